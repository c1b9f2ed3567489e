#include "tools/walk.h"

#include <algorithm>
#include <filesystem>
#include <new>
#include <string>

namespace {

constexpr std::int64_t page_terms = 16384;
constexpr std::int64_t page_ids = std::int64_t{1} << 20;
constexpr std::int64_t shown_ids = 11;  // of each term, that come with a page of terms
constexpr std::uint32_t wait_ms = 100;  // between two looks at `stop`
constexpr int settle_tries = 4;         // a log that fills while an older one is merged takes two

// A merge that failed leaves the log that it had set aside.
bool is_settled(const tool_database &database, const std::vector<tool_shard> &shards) {
  const std::filesystem::path directory = tool_table_directory(database);
  return std::none_of(shards.begin(), shards.end(), [&](const tool_shard &shard) {
    std::error_code error;
    const std::string frozen = "sdb_" + std::to_string(shard.number) + "_m.log";
    return shard.log_terms > 0 || std::filesystem::exists(directory / frozen, error) || error;
  });
}

tool_problem merge_once(tool_database &database, tool_progress &progress) {
  const std::int32_t asked = zem_sdb_merge(database.sdb, database.table);
  if (tool_problem problem = tool_library_problem("merging", asked)) return problem;
  std::int32_t idle = 0;
  while (idle == 0) {
    if (progress.io.stop) return {"stopped"};
    idle = zem_sdb_wait(database.sdb, database.table, wait_ms);
    if (idle == 0) tool_progress_step(progress, 0, "merging");
  }
  return tool_library_problem("waiting for the merge", idle);
}

tool_key_term term_at(const tool_term_page &page, std::int64_t index) {
  return tool_key_from(zem_var_get_long(page.heads.get(), index),
                       zem_var_get_integer(page.thirds.get(), index));
}

std::span<const std::uint64_t> longs_of(const zem_var *list) {
  const std::uint64_t *values = nullptr;
  const std::uint32_t *tags = nullptr;
  const std::int64_t count = zem_var_longs(list, &values, &tags);
  return {values, static_cast<std::size_t>(count)};
}

tool_problem visit_ids(const tool_ids_visitor &visit, const tool_key_term &term,
                       std::span<const std::uint64_t> ids) {
  if (!ids.empty() && ids.back() == 0) ids = ids.first(ids.size() - 1);
  return ids.empty() ? tool_problem{} : visit(term, ids);
}

// A term with more ids than a page of terms shows.
tool_problem walk_ids(const tool_database &database, std::uint32_t shard, const tool_key_term &term,
                      const std::atomic<bool> &stop, const tool_ids_visitor &visit) {
  const tool_list ids = tool_list_new();
  std::int64_t count = page_ids;
  for (std::int64_t skip = 0; count == page_ids && !stop; skip += count) {
    const std::int32_t result =
        zem_sdb_dat_ids(database.sdb, database.table, shard, tool_key_head(term), term[2], skip,
                        page_ids, ids.get());
    if (tool_problem problem = tool_library_problem("reading a data file", result)) return problem;
    count = zem_var_size(ids.get());
    if (tool_problem problem = visit_ids(visit, term, longs_of(ids.get()))) return problem;
  }
  return {};
}

// Visits the terms of a page; `past` tells that one lies behind the range.
tool_problem walk_page(const tool_database &database, std::uint32_t shard, const tool_range &range,
                       const std::atomic<bool> &stop, const tool_term_page &page, bool &past,
                       const tool_ids_visitor &visit) {
  const std::int64_t count = zem_var_size(page.heads.get());
  for (std::int64_t i = 0; i < count && !stop; ++i) {
    const tool_key_term term = term_at(page, i);
    past = term > range.to;
    if (past) break;
    if (term < range.from) continue;
    const bool whole = zem_var_get_buf(page.thirds.get(), i) <= shown_ids;
    tool_problem problem = whole
                               ? visit_ids(visit, term, longs_of(zem_xvars_get(page.ids.get(), i)))
                               : walk_ids(database, shard, term, stop, visit);
    if (problem) return problem;
  }
  return {};
}

// The number of the first term of the range in the shard.
tool_problem find_start(const tool_database &database, std::uint32_t shard, const tool_range &range,
                        std::int64_t &start) {
  std::uint32_t holder = 0;
  std::uint64_t position = 0;
  const std::int32_t result = zem_sdb_dat_find(
      database.sdb, database.table, tool_key_head(range.from), range.from[2], &holder, &position);
  if (tool_problem problem = tool_library_problem("finding the first term", result)) return problem;
  // Another shard holds nothing of the range, or begins within it.
  const bool here = holder == shard && position <= std::numeric_limits<std::int64_t>::max();
  start = here ? static_cast<std::int64_t>(position) : 0;
  return {};
}

}  // namespace

tool_problem tool_shards(const tool_database &database, std::vector<tool_shard> &shards) {
  shards.clear();
  const std::unique_ptr<zem_keys, tool_keys_free> keys(zem_sdb_keys_new());
  if (!keys) throw std::bad_alloc();
  const std::int32_t listed = zem_sdb_shards(database.sdb, database.table, keys.get());
  if (tool_problem problem = tool_library_problem("listing the shards", listed)) return problem;
  for (std::int64_t i = 0; i < zem_sdb_keys_size(keys.get()); ++i) {
    tool_shard shard;
    zem_sdb_keys_fetch(keys.get(), i, &shard.high.id, shard.high.term.data(), &shard.number);
    const std::int32_t counted = zem_sdb_key_count(database.sdb, database.table, shard.number,
                                                   &shard.log_terms, &shard.data_terms);
    if (tool_problem problem = tool_library_problem("counting terms", counted)) return problem;
    shards.push_back(shard);
  }
  std::sort(shards.begin(), shards.end(),
            [](const tool_shard &a, const tool_shard &b) { return a.high < b.high; });
  return {};
}

tool_problem tool_settle(tool_database &database, tool_progress &progress) {
  for (int i = 0; i < settle_tries; ++i) {
    if (tool_problem problem = merge_once(database, progress)) return problem;
    std::vector<tool_shard> shards;
    if (tool_problem problem = tool_shards(database, shards)) return problem;
    if (is_settled(database, shards)) return {};
  }
  return {"table " + database.name +
          " cannot be merged: free disk space or mend what the library's lines name, then try "
          "again; nothing is lost"};
}

tool_problem tool_walk(const tool_database &database, std::uint32_t shard, const tool_range &range,
                       const std::atomic<bool> &stop, const tool_ids_visitor &visit) {
  std::int64_t first = 0;
  if (tool_problem problem = find_start(database, shard, range, first)) return problem;
  const tool_term_page page;
  std::int32_t more = 1;
  for (bool past = false; more == 1 && !past && !stop; first += page_terms) {
    zem_var_shrink(page.heads.get(), 0);
    zem_var_shrink(page.thirds.get(), 0);
    more = zem_sdb_dat_keys(database.sdb, database.table, shard, first, page_terms,
                            page.heads.get(), page.thirds.get(), page.ids.get());
    if (tool_problem problem = tool_library_problem("reading a data file", more)) return problem;
    if (tool_problem problem = walk_page(database, shard, range, stop, page, past, visit)) {
      return problem;
    }
  }
  return {};
}
