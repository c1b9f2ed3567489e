// `sdb check`: every file of a closed table, block by block. Reads alone.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>

#include "src/spm.h"
#include "tools/check_data.h"
#include "tools/check_log.h"
#include "tools/check_report.h"
#include "tools/check_table.h"
#include "tools/commands.h"

namespace {

// What one shard holds, and the range of its keys.
struct shard_content {
  std::uint32_t number = 0;
  std::uint64_t log_postings = 0;     // deleted ones included
  std::uint64_t frozen_postings = 0;  // likewise
  std::uint64_t data_postings = 0;
  std::uint64_t data_terms = 0;
  std::optional<check_key> low;
  std::optional<check_key> high;
  check_place low_place;
};

void widen(shard_content &content, const check_key &low, const check_key &high,
           const check_place &low_place) {
  if (!content.low || check_compare(low, *content.low) < 0) {
    content.low = low;
    content.low_place = low_place;
  }
  if (!content.high || check_compare(high, *content.high) > 0) content.high = high;
}

// Gives the number of postings that an open finds in the log.
std::uint64_t check_log_file(check_run &run, const check_table &table, const std::string &name,
                             shard_content &content) {
  check_file file;
  if (name.empty() || !check_file_open(run, table.directory, name, file)) return 0;
  zem_spm log;
  check_log_walk(run, file, [&](const check_log_block &block) {
    if (block.reached) check_log_replay(run, file, log, block);
  });
  const auto *first = zem_xtree_node_first(log.tree);
  const auto *last = zem_xtree_node_last(log.tree);
  if (first == nullptr) return 0;
  widen(content, {.term = first->term, .id = first->id}, {.term = last->term, .id = last->id},
        check_at(name, first->value->blk_no, 0));
  return static_cast<std::uint64_t>(log.tree.count);
}

void check_data_file(check_run &run, const check_table &table, const std::string &name,
                     shard_content &content) {
  check_file file;
  if (name.empty() || !check_file_open(run, table.directory, name, file)) return;
  const check_data data = check_data_walk(run, file, [](zem_block_view) {});
  content.data_postings = data.postings;
  content.data_terms = data.terms;
  if (data.low && data.high) {
    widen(content, *data.low, *data.high, check_at(name, data.low_block, 0));
  }
}

shard_content check_one(check_run &run, const check_table &table, const check_shard &shard) {
  shard_content content;
  content.number = shard.number;
  check_data_file(run, table, shard.dat, content);
  content.frozen_postings = check_log_file(run, table, shard.frozen_log, content);
  content.log_postings = check_log_file(run, table, shard.log, content);
  return content;
}

// A table looks for a posting in one shard: the first, in the order of their greatest keys, that is
// not below it. So each has to begin behind the end of the one before.
void check_ranges(check_run &run, const std::vector<shard_content> &shards) {
  std::vector<const shard_content *> ordered;
  for (const shard_content &shard : shards) {
    if (shard.low) ordered.push_back(&shard);
  }
  std::sort(ordered.begin(), ordered.end(), [](const shard_content *a, const shard_content *b) {
    return check_compare(*a->high, *b->high) < 0;
  });
  for (std::size_t i = 1; i < ordered.size(); ++i) {
    const shard_content &before = *ordered[i - 1];
    const shard_content &shard = *ordered[i];
    if (check_compare(*before.high, *shard.low) < 0) continue;
    check_damage(run, "range", shard.low_place,
                 "shard " + std::to_string(shard.number) + " begins at " +
                     check_key_text(*shard.low) + ", inside shard " +
                     std::to_string(before.number) + ", which ends at " +
                     check_key_text(*before.high) + "; queries miss what lies between");
  }
}

nlohmann::ordered_json place_json(const check_place &place) {
  nlohmann::ordered_json json{{"file", place.file}, {"block", nullptr}, {"byte", nullptr}};
  if (place.block) json["block"] = *place.block;
  if (place.byte) json["byte"] = *place.byte;
  return json;
}

void print_json(const check_run &run, const std::string &table,
                const std::vector<shard_content> &shards) {
  nlohmann::ordered_json root{{"table", table},
                              {"files", run.files},
                              {"blocks", run.blocks},
                              {"damage", check_count(run, check_severity::damage)},
                              {"notes", check_count(run, check_severity::note)},
                              {"complete", !run.io.stop},
                              {"shards", nlohmann::ordered_json::array()},
                              {"findings", nlohmann::ordered_json::array()}};
  for (const shard_content &shard : shards) {
    root["shards"].push_back({{"number", shard.number},
                              {"log_postings", shard.log_postings},
                              {"frozen_postings", shard.frozen_postings},
                              {"data_postings", shard.data_postings},
                              {"data_terms", shard.data_terms}});
  }
  for (const check_finding &finding : run.findings) {
    nlohmann::ordered_json json{
        {"severity", finding.severity == check_severity::damage ? "damage" : "note"},
        {"kind", finding.kind}};
    json.update(place_json(finding.place));
    json["words"] = finding.words;
    json["lost_postings"] = nullptr;
    if (finding.lost) json["lost_postings"] = *finding.lost;
    root["findings"].push_back(std::move(json));
  }
  run.io.out << root.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void print_text(const check_run &run, const std::string &table) {
  for (const check_finding &finding : run.findings)
    run.io.out << check_line(finding) << '\n';
  const std::uint64_t damaged = check_count(run, check_severity::damage);
  run.io.out << "table " << tool_printable(table) << ": " << check_some(run.files, "file") << ", "
             << check_some(run.blocks, "block") << " read; "
             << (damaged == 0 ? "no damage" : check_some(damaged, "damaged place")) << ", "
             << check_some(check_count(run, check_severity::note), "note") << '\n';
}

}  // namespace

tool_exit tool_check(const tool_io &io, const std::string &root, const std::string &table,
                     bool json) {
  check_table files;
  if (tool_problem problem = check_table_open(files, root, table)) return tool_fail(io, problem);
  check_run run(io);
  check_table_read(run, files, /*salvage=*/false);
  run.progress.total = check_table_bytes(files);
  std::vector<shard_content> shards;
  for (const check_shard &shard : files.shards) {
    if (!io.stop) shards.push_back(check_one(run, files, shard));
  }
  if (!io.stop) check_ranges(run, shards);
  tool_progress_clear(run.progress);
  if (json) {
    print_json(run, table, shards);
  } else {
    print_text(run, table);
  }
  if (io.stop) return tool_fail(io, {"stopped; what was looked at so far is told above"});
  return check_count(run, check_severity::damage) > 0 ? tool_exit::damaged : tool_exit::done;
}
