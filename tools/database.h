// One database with at most one open table, for the length of a command: what the library logs is
// kept and shown, and what it answers is turned into sentences.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "include/zem_sdb.h"
#include "tools/tool.h"

// Frees a value list of the library.
struct tool_list_free {
  void operator()(zem_var *list) const noexcept { zem_var_free(list); }
};
using tool_list = std::unique_ptr<zem_var, tool_list_free>;

// An empty list; ends the program when memory is short, as `new` does.
tool_list tool_list_new(int tagged = 0);

// Frees a list of value lists.
struct tool_lists_free {
  void operator()(zem_xvars *lists) const noexcept { zem_xvars_free(lists); }
};
using tool_lists = std::unique_ptr<zem_xvars, tool_lists_free>;
tool_lists tool_lists_new();

struct tool_keys_free {
  void operator()(zem_keys *keys) const noexcept { zem_sdb_keys_free(keys); }
};

struct tool_database {
  tool_database() = default;
  ~tool_database();
  tool_database(const tool_database &) = delete;
  tool_database &operator=(const tool_database &) = delete;

  std::string root;
  zem_err *log = nullptr;
  zem_sdb *sdb = nullptr;
  std::string name;         // of the open table
  std::uint64_t table = 0;  // its handle; 0: none is open

  std::mutex lines_mutex;
  std::vector<std::string> lines;  // error lines of the library; the sink adds from any thread
};

// Opens the database under an existing directory.
tool_problem tool_database_open(tool_database &database, const std::string &root);

// The names of its tables, sorted. A directory without a file of a table is none.
std::vector<std::string> tool_database_tables(const tool_database &database);

// Opens a table for use. Fails for one that is unknown, open elsewhere, or opened with no shard.
tool_problem tool_table_open(tool_database &database, const std::string &name);

// Closes the open table: everything given to it is on disk afterwards, or this fails.
tool_problem tool_table_close(tool_database &database);

// Its directory, where the catalogue lies too.
std::string tool_table_directory(const tool_database &database);

// A failed call of the library, in words; none for a result that is no failure.
tool_problem tool_library_problem(const std::string &what, std::int32_t result);

// Calls the library as long as it answers -EBUSY, for a minute at most: it keeps what it could not
// place while a shard lets nobody in, and giving it the same postings again does no harm.
tool_problem tool_patiently(const std::string &what, const std::function<std::int32_t()> &call);

// Prints the library's error lines that came since the last time.
void tool_database_report(tool_database &database, const tool_io &io);
