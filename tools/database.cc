#include "tools/database.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <new>
#include <ostream>
#include <thread>
#include <utility>

namespace {

void keep_line(void *context, int level, const char *line) {
  if (level < 0) return;  // information for those who watch merges
  auto &database = *static_cast<tool_database *>(context);
  const std::lock_guard held(database.lines_mutex);
  database.lines.emplace_back(line);
}

// The library says in a sentence of its own why a table does not open. That line is not reported
// once more.
std::string last_line(tool_database &database) {
  const std::lock_guard held(database.lines_mutex);
  if (database.lines.empty()) return "table " + database.name + " does not open: memory is short";
  std::string line = std::move(database.lines.back());
  database.lines.pop_back();
  return line;
}

// A table has a settings file from its creation and a list of shards from its first opening. Other
// directories below the root are somebody else's: not to be filled, and not to be removed.
bool is_table(const std::string &root, const std::string &name) {
  const std::filesystem::path directory = std::filesystem::path(root) / name;
  std::error_code error;
  return std::filesystem::exists(directory / "sdb.xml", error) ||
         std::filesystem::exists(directory / "sdb.lst", error);
}

}  // namespace

tool_list tool_list_new(int tagged) {
  zem_var *list = zem_var_new(0, tagged);
  if (list == nullptr) throw std::bad_alloc();
  return tool_list(list);
}

tool_lists tool_lists_new() {
  zem_xvars *lists = zem_xvars_new();
  if (lists == nullptr) throw std::bad_alloc();
  return tool_lists(lists);
}

tool_database::~tool_database() {
  zem_sdb_free(sdb);
  zem_err_free(log);
}

tool_problem tool_database_open(tool_database &database, const std::string &root) {
  std::error_code error;
  if (!std::filesystem::is_directory(root, error)) {
    return {"there is no database at " + root +
            ": name a directory that exists, or make one with: sdb create " + root + " TABLE"};
  }
  database.root = root;
  database.log = zem_err_new(&keep_line, &database);
  database.sdb = zem_sdb_new(root.c_str(), database.log);
  if (database.sdb == nullptr) throw std::bad_alloc();
  return {};
}

std::vector<std::string> tool_database_tables(const tool_database &database) {
  const tool_list list = tool_list_new();
  zem_sdb_table_list(database.sdb, list.get());
  std::vector<std::string> names;
  for (std::int64_t i = 0; i < zem_var_size(list.get()); ++i) {
    const char *text = nullptr;
    std::int64_t length = 0;
    if (zem_var_get_string(list.get(), i, &text, &length) == 1) {
      names.emplace_back(text, static_cast<std::size_t>(length));
    }
  }
  std::erase_if(names, [&](const std::string &name) { return !is_table(database.root, name); });
  std::sort(names.begin(), names.end());
  return names;
}

tool_problem tool_table_open(tool_database &database, const std::string &name) {
  const std::vector<std::string> names = tool_database_tables(database);
  if (!std::binary_search(names.begin(), names.end(), name)) {
    return {"there is no table " + name + " in " + database.root + ": make it with: sdb create " +
            database.root + " " + name};
  }
  database.name = name;
  database.table = zem_sdb_table_open(database.sdb, name.c_str());
  if (database.table == 0) return {last_line(database)};
  const std::unique_ptr<zem_keys, tool_keys_free> keys(zem_sdb_keys_new());
  if (!keys) throw std::bad_alloc();
  if (zem_sdb_shards(database.sdb, database.table, keys.get()) < 0 ||
      zem_sdb_keys_size(keys.get()) == 0) {
    return {"table " + name +
            " opened without its content. Free disk space or mend what the library's lines name, "
            "then try again; its files are as they were"};
  }
  return {};
}

tool_problem tool_table_close(tool_database &database) {
  const std::uint64_t table = std::exchange(database.table, 0);
  return tool_library_problem("closing table " + database.name,
                              zem_sdb_table_close(database.sdb, table));
}

std::string tool_table_directory(const tool_database &database) {
  return (std::filesystem::path(database.root) / database.name).string();
}

tool_problem tool_library_problem(const std::string &what, std::int32_t result) {
  if (result >= 0) return {};
  return {what + " failed: " + zem_sdb_error(result) + " (" + std::to_string(result) + ")"};
}

tool_problem tool_patiently(const std::string &what, const std::function<std::int32_t()> &call) {
  constexpr auto pause = std::chrono::milliseconds(100);
  constexpr int tries = 600;
  std::int32_t result = call();
  for (int i = 0; result == -EBUSY && i < tries; ++i) {
    std::this_thread::sleep_for(pause);
    result = call();
  }
  return tool_library_problem(what, result);
}

void tool_database_report(tool_database &database, const tool_io &io) {
  const std::lock_guard held(database.lines_mutex);
  for (const std::string &line : database.lines)
    io.err << "sdb: library: " << line << '\n';
  database.lines.clear();
}
