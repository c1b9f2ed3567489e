#include <filesystem>
#include <ostream>

#include "tools/catalog.h"
#include "tools/data.h"

namespace {

tool_problem merge(tool_database &database, tool_progress &progress, const std::string &root,
                   const std::string &table) {
  if (tool_problem problem = tool_database_open(database, root)) return problem;
  if (tool_problem problem = tool_table_open(database, table)) return problem;
  if (tool_problem problem = tool_settle(database, progress)) return problem;
  return tool_table_close(database);
}

// The catalogue goes after the postings: cut off between the two, the command is given again.
tool_problem clear(tool_database &database, const std::string &root, const std::string &table) {
  if (tool_problem problem = tool_database_open(database, root)) return problem;
  if (tool_problem problem = tool_table_open(database, table)) return problem;
  const std::int32_t result = zem_sdb_table_clear(database.sdb, database.table);
  if (tool_problem problem = tool_library_problem("clearing table " + table, result)) {
    return problem;
  }
  std::error_code error;
  std::filesystem::remove(std::filesystem::path(tool_table_directory(database)) / tool_catalog_name,
                          error);
  if (error) return {"cannot remove the catalogue of table " + table + ": " + error.message()};
  return tool_table_close(database);
}

}  // namespace

tool_exit tool_merge(const tool_io &io, const std::string &root, const std::string &table) {
  tool_database database;
  tool_progress progress{.io = io, .unit = "postings"};
  tool_problem problem = merge(database, progress, root, table);
  tool_progress_clear(progress);
  tool_database_report(database, io);
  return problem ? tool_fail(io, problem) : tool_exit::done;
}

tool_exit tool_clear(const tool_io &io, const std::string &root, const std::string &table,
                     bool sure) {
  if (!sure) {
    io.err << "sdb: clear removes all that table " << tool_printable(table)
           << " holds: say --yes if that is meant\n";
    return tool_exit::usage;
  }
  tool_database database;
  tool_problem problem = clear(database, root, table);
  tool_database_report(database, io);
  return problem ? tool_fail(io, problem) : tool_exit::done;
}
