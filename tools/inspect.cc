#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>

#include "tools/data.h"

namespace {

using json = nlohmann::ordered_json;

void print_json(const tool_io &io, const json &value) {
  io.out << value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

// Opens a table, runs `look` on it, closes it, and tells how all that ended.
tool_exit look_into(const tool_io &io, const std::string &root, const std::string &table,
                    const std::function<tool_problem(tool_database &)> &look) {
  tool_database database;
  tool_problem problem = tool_database_open(database, root);
  if (!problem) problem = tool_table_open(database, table);
  if (!problem) problem = look(database);
  if (!problem) problem = tool_table_close(database);
  tool_database_report(database, io);
  return problem ? tool_fail(io, problem) : tool_exit::done;
}

tool_problem shard_problem(const tool_database &database, std::uint32_t shard,
                           std::int32_t result) {
  if (result != ZEM_SDB_E_SHARD) return tool_library_problem("reading shard", result);
  return {"table " + database.name + " has no shard " + std::to_string(shard) +
          ": see what there is with: sdb shards " + database.root + " " + database.name};
}

std::vector<std::uint64_t> longs_of(const zem_var *list) {
  const std::uint64_t *values = nullptr;
  const std::uint32_t *tags = nullptr;
  const std::int64_t count = zem_var_longs(list, &values, &tags);
  return {values, values + count};
}

// ---- shards ----

struct shard_row {
  tool_shard shard;
  std::uint64_t log_bytes = 0;
  std::uint64_t data_bytes = 0;
};

std::uint64_t file_bytes(const tool_database &database, std::uint32_t shard, const char *suffix) {
  const std::string name = "sdb_" + std::to_string(shard) + suffix;
  std::error_code error;  // a file that a merge has just moved counts for nothing
  const auto size = std::filesystem::file_size(
      std::filesystem::path(tool_table_directory(database)) / name, error);
  return error ? 0 : size;
}

tool_problem read_rows(const tool_database &database, std::vector<shard_row> &rows) {
  std::vector<tool_shard> shards;
  if (tool_problem problem = tool_shards(database, shards)) return problem;
  for (const tool_shard &shard : shards) {
    rows.push_back({.shard = shard,
                    .log_bytes = file_bytes(database, shard.number, ".log") +
                                 file_bytes(database, shard.number, "_m.log"),
                    .data_bytes = file_bytes(database, shard.number, ".dat")});
  }
  return {};
}

// The library gives zeros for a shard that has held no posting since it was opened.
std::string key_text(const tool_posting &key) {
  if (key == tool_posting{}) return "none";
  return tool_key_text(key.term) + " id " + std::to_string(key.id);
}

void print_rows(const tool_io &io, const std::vector<shard_row> &rows) {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto &[shard, log_bytes, data_bytes] = rows[i];
    io.out << "shard " << shard.number << ": ";
    if (i > 0) io.out << "behind " << key_text(rows[i - 1].shard.high) << ", ";
    io.out << "greatest key " << key_text(shard.high) << '\n'
           << "  log   " << shard.log_terms << " terms, " << log_bytes << " bytes\n"
           << "  data  " << shard.data_terms << " terms, " << data_bytes << " bytes\n";
  }
}

json json_rows(const std::string &table, const std::vector<shard_row> &rows) {
  json root{{"table", table}, {"shards", json::array()}};
  for (const auto &[shard, log_bytes, data_bytes] : rows) {
    root["shards"].push_back({{"number", shard.number},
                              {"high_term", shard.high.term},
                              {"high_id", shard.high.id},
                              {"log_terms", shard.log_terms},
                              {"log_bytes", log_bytes},
                              {"data_terms", shard.data_terms},
                              {"data_bytes", data_bytes}});
  }
  return root;
}

// ---- terms ----

struct term_row {
  tool_key_term term{};
  std::uint32_t postings = 0;
  std::vector<std::uint64_t> newest;
};

tool_problem read_terms(const tool_database &database, const tool_terms_options &options,
                        std::vector<term_row> &rows, bool &more) {
  const tool_term_page page;
  const auto list = options.source == tool_source_kind::log ? zem_sdb_log_keys : zem_sdb_dat_keys;
  const std::int32_t result =
      list(database.sdb, database.table, options.shard, options.first, options.limit,
           page.heads.get(), page.thirds.get(), page.ids.get());
  if (tool_problem problem = shard_problem(database, options.shard, result)) return problem;
  more = result == 1;
  for (std::int64_t i = 0; i < zem_var_size(page.heads.get()); ++i) {
    rows.push_back({.term = tool_key_from(zem_var_get_long(page.heads.get(), i),
                                          zem_var_get_integer(page.thirds.get(), i)),
                    .postings = zem_var_get_buf(page.thirds.get(), i),
                    .newest = longs_of(zem_xvars_get(page.ids.get(), i))});
  }
  return {};
}

void print_terms(const tool_io &io, const tool_terms_options &options,
                 const std::vector<term_row> &rows, bool more) {
  if (options.json) {
    json root{{"terms", json::array()}, {"more", more}};
    for (const auto &[term, postings, newest] : rows)
      root["terms"].push_back({{"term", term}, {"postings", postings}, {"newest", newest}});
    return print_json(io, root);
  }
  for (const auto &[term, postings, newest] : rows) {
    io.out << tool_key_text(term) << ": " << postings << (postings == 1 ? " id:" : " ids:");
    for (const std::uint64_t id : newest)
      io.out << ' ' << id;
    io.out << (newest.size() < postings ? " ...\n" : "\n");
  }
  if (more) io.err << "sdb: more terms follow: see them with --first and --limit\n";
}

// ---- ids ----

tool_problem query(const tool_database &database, const tool_get_options &options,
                   std::vector<std::uint64_t> &found) {
  const tool_list heads = tool_list_new(1);
  const tool_list thirds = tool_list_new(1);
  const tool_list ids = tool_list_new();
  const bool added = zem_var_add_long(heads.get(), tool_key_head(options.term)) == 1 &&
                     zem_var_add_integer(thirds.get(), options.term[2]) == 1 &&
                     zem_var_set_buf(heads.get(), 0, options.span01) == 1 &&
                     zem_var_set_buf(thirds.get(), 0, options.span2) == 1;
  if (!added) return {"out of memory"};
  const std::int32_t result =
      zem_sdb_query(database.sdb, database.table, heads.get(), thirds.get(), ids.get());
  found = longs_of(ids.get());
  std::sort(found.begin(), found.end());
  return tool_library_problem("the query", result);
}

void print_ids(const tool_io &io, const tool_key_term &term, bool as_json,
               const std::vector<std::uint64_t> &ids) {
  if (as_json) return print_json(io, json{{"term", term}, {"ids", ids}});
  for (const std::uint64_t id : ids)
    io.out << id << '\n';
}

}  // namespace

tool_exit tool_list_shards(const tool_io &io, const std::string &root, const std::string &table,
                           bool json) {
  std::vector<shard_row> rows;
  const tool_exit end = look_into(
      io, root, table, [&](const tool_database &database) { return read_rows(database, rows); });
  if (end != tool_exit::done) return end;
  if (json) {
    print_json(io, json_rows(table, rows));
  } else {
    print_rows(io, rows);
  }
  return end;
}

tool_exit tool_list_terms(const tool_io &io, const tool_terms_options &options) {
  std::vector<term_row> rows;
  bool more = false;
  const tool_exit end = look_into(
      io, options.root, options.table,
      [&](const tool_database &database) { return read_terms(database, options, rows, more); });
  if (end != tool_exit::done) return end;
  print_terms(io, options, rows, more);
  return rows.empty() ? tool_exit::nothing : end;
}

tool_exit tool_list_ids(const tool_io &io, const tool_ids_options &options) {
  std::vector<std::uint64_t> ids;
  const tool_exit end =
      look_into(io, options.root, options.table, [&](const tool_database &database) {
        const tool_list list = tool_list_new();
        const auto read =
            options.source == tool_source_kind::log ? zem_sdb_log_ids : zem_sdb_dat_ids;
        const std::int32_t result =
            read(database.sdb, database.table, options.shard, tool_key_head(options.term),
                 options.term[2], options.skip, options.limit, list.get());
        ids = longs_of(list.get());
        return shard_problem(database, options.shard, result);
      });
  if (end != tool_exit::done) return end;
  print_ids(io, options.term, options.json, ids);
  return ids.empty() ? tool_exit::nothing : end;
}

tool_exit tool_get(const tool_io &io, const tool_get_options &options) {
  std::vector<std::uint64_t> ids;
  const tool_exit end =
      look_into(io, options.root, options.table,
                [&](const tool_database &database) { return query(database, options, ids); });
  if (end != tool_exit::done) return end;
  print_ids(io, options.term, options.json, ids);
  return ids.empty() ? tool_exit::nothing : end;
}
