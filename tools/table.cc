#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <ostream>
#include <system_error>
#include <vector>

#include "include/zem_sdb.h"
#include "tools/catalog.h"
#include "tools/commands.h"
#include "tools/database.h"

namespace {

struct shard_stat {
  std::uint32_t number = 0;
  std::array<std::uint32_t, 3> term{};  // of the high key
  std::uint64_t id = 0;                 // of the high key
  std::uint64_t log_terms = 0;
  std::uint64_t data_terms = 0;
};

struct table_stat {
  std::uint64_t files = 0;
  std::uint64_t documents = 0;
  std::uint64_t terms = 0;
  std::uint64_t postings = 0;
  std::uint64_t disk_bytes = 0;
  std::uint64_t memory_bytes = 0;
  std::vector<shard_stat> shards;
};

tool_problem read_shards(const tool_database &database, std::vector<shard_stat> &shards) {
  const std::unique_ptr<zem_keys, tool_keys_free> keys(zem_sdb_keys_new());
  if (!keys) throw std::bad_alloc();
  const std::int32_t listed = zem_sdb_shards(database.sdb, database.table, keys.get());
  if (tool_problem problem = tool_library_problem("listing the shards", listed)) return problem;
  for (std::int64_t i = 0; i < zem_sdb_keys_size(keys.get()); ++i) {
    shard_stat shard;
    zem_sdb_keys_fetch(keys.get(), i, &shard.id, shard.term.data(), &shard.number);
    const std::int32_t counted = zem_sdb_key_count(database.sdb, database.table, shard.number,
                                                   &shard.log_terms, &shard.data_terms);
    if (tool_problem problem = tool_library_problem("counting terms", counted)) return problem;
    shards.push_back(shard);
  }
  return {};
}

tool_problem read_stat(tool_database &database, const std::string &root, const std::string &table,
                       table_stat &stat) {
  if (tool_problem problem = tool_database_open(database, root)) return problem;
  if (tool_problem problem = tool_table_open(database, table)) return problem;
  tool_catalog catalog;
  const std::string directory = tool_table_directory(database);
  if (tool_problem problem = tool_catalog_open(catalog, directory, false)) return problem;
  for (const auto &[path, place] : catalog.newest) {
    ++stat.files;
    stat.documents += catalog.sources[place].count;
  }
  const std::int32_t counted =
      zem_sdb_table_count(database.sdb, database.table, &stat.terms, &stat.postings,
                          &stat.disk_bytes, &stat.memory_bytes);
  if (tool_problem problem = tool_library_problem("counting", counted)) return problem;
  if (tool_problem problem = read_shards(database, stat.shards)) return problem;
  return tool_table_close(database);
}

void print_json(const tool_io &io, const std::string &table, const table_stat &stat) {
  nlohmann::ordered_json root{{"table", table},
                              {"files", stat.files},
                              {"documents", stat.documents},
                              {"terms", stat.terms},
                              {"postings", stat.postings},
                              {"disk_bytes", stat.disk_bytes},
                              {"memory_bytes", stat.memory_bytes},
                              {"shards", nlohmann::ordered_json::array()}};
  for (const shard_stat &shard : stat.shards) {
    root["shards"].push_back({{"number", shard.number},
                              {"log_terms", shard.log_terms},
                              {"data_terms", shard.data_terms},
                              {"high_term", shard.term},
                              {"high_id", shard.id}});
  }
  // A name that is no UTF-8 is a possible directory name; it must not end the program.
  io.out << root.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void print_text(const tool_io &io, const std::string &table, const table_stat &stat) {
  io.out << "table      " << tool_printable(table) << '\n'
         << "files      " << stat.files << '\n'
         << "documents  " << stat.documents << '\n'
         << "terms      " << stat.terms << " (estimate)\n"
         << "postings   " << stat.postings << '\n'
         << "on disk    " << stat.disk_bytes << " bytes\n"
         << "in memory  " << stat.memory_bytes << " bytes\n"
         << "shards     " << stat.shards.size() << '\n';
  for (const shard_stat &shard : stat.shards) {
    io.out << "  shard " << shard.number << ": " << shard.log_terms << " terms in its log, "
           << shard.data_terms << " in its data file\n";
  }
}

}  // namespace

tool_exit tool_create(const tool_io &io, const std::string &root, const std::string &table) {
  std::error_code error;
  std::filesystem::create_directories(root, error);
  if (error) return tool_fail(io, {"cannot make " + root + ": " + error.message()});
  tool_database database;
  if (tool_problem problem = tool_database_open(database, root)) return tool_fail(io, problem);
  const std::int32_t result = zem_sdb_table_create(database.sdb, table.c_str());
  tool_database_report(database, io);
  if (result == ZEM_SDB_E_NAME) {
    return tool_fail(io, {"table " + table + " exists already: choose another name, or drop it"});
  }
  if (result == -EINVAL) {
    return tool_fail(io, {"a table cannot be named '" + table +
                          "': choose a name without slashes and control characters"});
  }
  if (tool_problem problem = tool_library_problem("creating table " + table, result)) {
    return tool_fail(io, problem);
  }
  return tool_exit::done;
}

tool_exit tool_drop(const tool_io &io, const std::string &root, const std::string &table) {
  tool_database database;
  if (tool_problem problem = tool_database_open(database, root)) return tool_fail(io, problem);
  const std::vector<std::string> names = tool_database_tables(database);
  if (!std::binary_search(names.begin(), names.end(), table)) {
    return tool_fail(io, {"there is no table " + table + " in " + root +
                          ": see what there is with: sdb list " + root});
  }
  const std::int32_t result = zem_sdb_table_drop(database.sdb, table.c_str());
  tool_database_report(database, io);
  if (result == ZEM_SDB_E_NAME) {
    return tool_fail(
        io, {"another program has table " + table + " open. Wait until that ends and try again"});
  }
  if (tool_problem problem = tool_library_problem("dropping table " + table, result)) {
    return tool_fail(io, problem);
  }
  return tool_exit::done;
}

tool_exit tool_list_tables(const tool_io &io, const std::string &root) {
  tool_database database;
  if (tool_problem problem = tool_database_open(database, root)) return tool_fail(io, problem);
  for (const std::string &name : tool_database_tables(database)) {
    io.out << tool_printable(name) << '\n';
  }
  return tool_exit::done;
}

tool_exit tool_stat(const tool_io &io, const std::string &root, const std::string &table,
                    bool json) {
  tool_database database;
  table_stat stat;
  tool_problem problem = read_stat(database, root, table, stat);
  tool_database_report(database, io);
  if (problem) return tool_fail(io, problem);
  if (json) {
    print_json(io, table, stat);
  } else {
    print_text(io, table, stat);
  }
  return tool_exit::done;
}
