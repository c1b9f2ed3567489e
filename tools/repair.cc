// `sdb repair`: writes all that can be read of a closed table to a new one, through the library's
// public interface. The files of the old one stay as they are.
//
// What a posting comes to is decided as merges would: by the last record of it in the live log, else by
// that in the frozen log, else by the data file. Of a damaged log the blocks behind the damage count too.
// Only inserts go to the new table, each posting of a shard once, so nothing depends on their order.
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <new>
#include <ostream>
#include <thread>

#include "src/table.h"
#include "tools/catalog.h"
#include "tools/check_data.h"
#include "tools/check_log.h"
#include "tools/check_report.h"
#include "tools/check_table.h"
#include "tools/commands.h"
#include "tools/database.h"

namespace {

constexpr std::uint32_t batch_count = 16384;
constexpr auto busy_pause = std::chrono::milliseconds(100);
constexpr int busy_tries = 600;

struct batch_free {
  void operator()(zem_doc *batch) const noexcept { zem_sdb_doc_free(batch); }
};

struct repair_run {
  explicit repair_run(const tool_io &io) : look(io) {}

  check_run look;
  check_table from;
  tool_database to;
  bool created = false;  // the new table, which a failure removes again
  std::unique_ptr<zem_doc, batch_free> batch;
  std::uint32_t batched = 0;
  std::uint64_t postings = 0;  // written
  tool_problem problem;        // the first
};

// ---- the new table ----

// The library keeps what it could not place and answers -EBUSY while a shard lets nobody in; giving
// it the same postings again does no harm.
void send_batch(repair_run &run) {
  if (run.batched == 0 || run.problem) return;
  zem_sdb_doc_set_val(run.batch.get(), 1, run.batched);
  const auto send = [&] {
    return zem_sdb_update(run.to.sdb, run.to.table, run.batch.get(), nullptr);
  };
  std::int32_t result = send();
  for (int i = 0; result == -EBUSY && i < busy_tries; ++i) {
    std::this_thread::sleep_for(busy_pause);
    result = send();
  }
  run.problem = tool_library_problem("writing to the new table", result);
  run.postings += run.batched;
  run.batched = 0;
  zem_sdb_doc_clear(run.batch.get());
}

void insert(repair_run &run, const zem_term &term, std::uint64_t id) {
  if (run.problem) return;
  const int added = zem_sdb_doc_add(run.batch.get(), id, term.data(), 1);
  if (added < 0) throw std::bad_alloc();
  run.batched += static_cast<std::uint32_t>(added);
  if (run.batched >= batch_count) send_batch(run);
}

// The settings go over as they are, but for a file that cannot be read; so does what the program knows
// of the documents.
tool_problem copy_companions(const repair_run &run) {
  const std::string directory = zem_dir_merge(run.to.root, run.to.name);
  zem_cfg cfg;
  const std::string settings = zem_dir_merge(run.from.directory, zem_table_cfg_file);
  std::string text;
  zem_status st = zem_ok;
  if (run.from.names.contains(zem_table_cfg_file) && zem_cfg_read(cfg, settings) >= 0) {
    st = zem_file_get_string(settings, std::size_t{1} << 20, text);
    if (st >= 0) st = zem_file_set_string(zem_dir_merge(directory, zem_table_cfg_file), text);
  }
  if (st >= 0 && run.from.names.contains(tool_catalog_name)) {
    st = zem_file_copy(zem_dir_merge(run.from.directory, tool_catalog_name),
                       zem_dir_merge(directory, tool_catalog_name));
  }
  if (st >= 0) st = zem_dir_sync(directory);
  return tool_library_problem("copying to " + directory, st);
}

tool_problem create_table(repair_run &run, const std::string &root, const std::string &name) {
  std::error_code error;
  std::filesystem::create_directories(root, error);
  if (error) return {"cannot make " + root + ": " + error.message()};
  if (tool_problem problem = tool_database_open(run.to, root)) return problem;
  const std::int32_t result = zem_sdb_table_create(run.to.sdb, name.c_str());
  if (result == ZEM_SDB_E_NAME)
    return {"table " + name + " exists already: choose another name for the new table"};
  if (result == -EINVAL) {
    return {"a table cannot be named '" + name +
            "': choose a name without slashes and control characters"};
  }
  if (tool_problem problem = tool_library_problem("creating table " + name, result)) return problem;
  run.created = true;
  run.to.name = name;
  if (tool_problem problem = copy_companions(run)) return problem;
  return tool_table_open(run.to, name);
}

// A new table that is not complete is no table to keep.
void drop_table(repair_run &run) {
  if (!run.created) return;
  if (run.to.table != 0) std::ignore = tool_table_close(run.to);
  std::ignore = zem_sdb_table_drop(run.to.sdb, run.to.name.c_str());
}

// ---- the old table ----

// Brings all that can be read of a log into the map.
void read_log(repair_run &run, const std::string &name, zem_spm &log) {
  check_file file;
  if (name.empty() || !check_file_open(run.look, run.from.directory, name, file)) return;
  check_log_walk(run.look, file,
                 [&](const check_log_block &block) { check_log_apply(log, block); });
}

// Inserts what the logs do not decide.
void copy_data(repair_run &run, const std::string &name, const zem_spm &log) {
  check_file file;
  if (name.empty() || !check_file_open(run.look, run.from.directory, name, file)) return;
  check_data_walk(run.look, file, [&](zem_block_view block) {
    check_data_postings(block, [&](const zem_term &term, std::uint64_t id) {
      if (zem_xtree_node_get(log.tree, term, id) == nullptr) insert(run, term, id);
    });
  });
}

void copy_shard(repair_run &run, const check_shard &shard) {
  zem_spm log;
  read_log(run, shard.frozen_log, log);
  read_log(run, shard.log, log);
  copy_data(run, shard.dat, log);
  for (const auto *node = zem_xtree_node_first(log.tree); node != nullptr; node = node->next) {
    if (node->value->flag >= 0) insert(run, node->term, node->id);
  }
}

tool_problem copy_shards(repair_run &run) {
  run.batch.reset(zem_sdb_doc_new());
  if (run.batch == nullptr) throw std::bad_alloc();
  for (const check_shard &shard : run.from.shards) {
    copy_shard(run, shard);
    if (run.problem) return run.problem;
    if (run.look.io.stop) return {"stopped; the new table was removed again"};
  }
  send_batch(run);
  if (run.problem) return run.problem;
  return tool_table_close(run.to);
}

tool_problem repair(repair_run &run, const tool_repair_options &options) {
  if (tool_problem problem = check_table_open(run.from, options.root, options.table))
    return problem;
  check_table_read(run.look, run.from, /*salvage=*/true);
  run.look.progress.total = check_table_bytes(run.from);
  const std::string &root = options.new_root.empty() ? options.root : options.new_root;
  if (tool_problem problem = create_table(run, root, options.new_table)) return problem;
  return copy_shards(run);
}

std::uint64_t print_summary(const repair_run &run, const tool_repair_options &options) {
  std::uint64_t places = 0;
  std::uint64_t lost = 0;
  for (const check_finding &finding : run.look.findings) {
    if (finding.severity != check_severity::damage) continue;
    run.look.io.out << check_line(finding) << '\n';
    ++places;
    lost += finding.lost.value_or(0);
  }
  run.look.io.out << "table " << tool_printable(options.new_table) << ": "
                  << check_some(run.postings, "posting") << " of "
                  << check_some(run.from.shards.size(), "shard") << " written; "
                  << (places == 0 ? "nothing was damaged"
                                  : check_some(places, "damaged place") + " cost " +
                                        check_some(lost, "posting"))
                  << '\n';
  return places;
}

}  // namespace

tool_exit tool_repair(const tool_io &io, const tool_repair_options &options) {
  repair_run run(io);
  tool_problem problem = repair(run, options);
  tool_progress_clear(run.look.progress);
  if (problem) drop_table(run);
  tool_database_report(run.to, io);
  if (problem) return tool_fail(io, problem);
  return print_summary(run, options) > 0 ? tool_exit::damaged : tool_exit::done;
}
