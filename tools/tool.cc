#include "tools/tool.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <functional>
#include <new>
#include <ostream>
#include <system_error>

#include "include/zem_sdb.h"
#include "tools/commands.h"
#include "tools/data.h"
#include "tools/output.h"

namespace {

// What the command line said; the members of the command that was named are filled in.
struct arguments {
  tool_index_options index;
  tool_search_options search;
  tool_repair_options repair;
  std::string root;
  std::string table;
  bool lines = false;
  bool json = false;
};

void add_place(CLI::App &command, std::string &root, std::string &table) {
  command.add_option("ROOT", root, "directory of the database")->required();
  command.add_option("TABLE", table, "name of the table")->required();
}

tool_exit run_command(const CLI::App &app, arguments &given, const tool_io &io) {
  if (app.got_subcommand("create")) return tool_create(io, given.root, given.table);
  if (app.got_subcommand("drop")) return tool_drop(io, given.root, given.table);
  if (app.got_subcommand("list")) return tool_list_tables(io, given.root);
  if (app.got_subcommand("stat")) return tool_stat(io, given.root, given.table, given.json);
  if (app.got_subcommand("check")) return tool_check(io, given.root, given.table, given.json);
  if (app.got_subcommand("repair")) return tool_repair(io, given.repair);
  if (app.got_subcommand("search")) return tool_search(io, given.search);
  given.index.unit = given.lines ? tool_unit::line : tool_unit::paragraph;
  return tool_index(io, given.index);
}

tool_exit parse_and_run(int argc, const char *const *argv, const tool_io &io) {
  CLI::App app("Indexes text files, finds documents by their words, and keeps tables of postings.",
               "sdb");
  app.set_version_flag("--version", std::string("sdb ") + zem_sdb_version());
  app.require_subcommand(1);
  app.footer(
      "Ends with 0 when it found or did something, 1 when it looked and found nothing, 2 when\n"
      "the arguments make no sense, 3 after a failure, 4 when a table turned out to be damaged.");
  arguments given;

  add_place(*app.add_subcommand("create", "Make a table"), given.root, given.table);
  add_place(*app.add_subcommand("drop", "Remove a table with all it holds"), given.root,
            given.table);
  app.add_subcommand("list", "Print the names of the tables")
      ->add_option("ROOT", given.root, "directory of the database")
      ->required();

  CLI::App &index = *app.add_subcommand(
      "index", "Add the words of text files; files indexed before are skipped unless they changed");
  add_place(index, given.index.root, given.index.table);
  index.add_option("PATH", given.index.paths, "files, or directories to walk")->required();
  index.add_flag("--lines", given.lines, "make each line a document, not each paragraph");

  CLI::App &search = *app.add_subcommand("search", "Print the documents that hold all the words");
  add_place(search, given.search.root, given.search.table);
  search.add_option("WORD", given.search.words, "words to find")->required();
  search.add_flag("--any", given.search.any, "one of the words is enough");
  search.add_option("--limit", given.search.limit, "documents to show; 0 shows all");

  CLI::App &stat = *app.add_subcommand("stat", "Print counts, sizes and shards of a table");
  add_place(stat, given.root, given.table);
  stat.add_flag("--json", given.json, "print them as JSON");

  CLI::App &check =
      *app.add_subcommand("check", "Look for damage in every file of a table; nothing is changed");
  add_place(check, given.root, given.table);
  check.add_flag("--json", given.json, "print what is found as JSON");

  CLI::App &repair =
      *app.add_subcommand("repair", "Write all that can be read of a damaged table to a new one");
  add_place(repair, given.repair.root, given.repair.table);
  repair.add_option("NEW-TABLE", given.repair.new_table, "name of the new table")->required();
  repair.add_option("--to-root", given.repair.new_root,
                    "directory of the database for the new table, if it is another one");

  std::function<tool_exit()> chosen;
  tool_data_commands(app, io, chosen);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error, io.out, io.err) == 0 ? tool_exit::done : tool_exit::usage;
  }
  return chosen ? chosen() : run_command(app, given, io);
}

// What was found and did not arrive is a failure, even where the command itself went well.
tool_exit flushed(const tool_io &io, tool_exit end) {
  io.out.flush();
  if (io.out || end == tool_exit::usage || end == tool_exit::failed) return end;
  return tool_fail(io, {tool_output_lost});
}

}  // namespace

tool_problem tool_problem_errno(std::string_view what, int error) {
  return {std::string(what) + ": " + std::generic_category().message(error)};
}

tool_exit tool_fail(const tool_io &io, const tool_problem &problem) {
  io.err << "sdb: " << tool_printable(problem.sentence) << '\n';
  return tool_exit::failed;
}

std::string tool_printable(std::string_view text) {
  std::string printable(text);
  for (char &c : printable) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte < 0x20 && c != '\t') || byte == 0x7f) c = '?';
  }
  return printable;
}

int tool_run(int argc, const char *const *argv, const tool_io &io) {
  tool_exit end = tool_exit::failed;
  try {
    end = flushed(io, parse_and_run(argc, argv, io));
  } catch (const std::bad_alloc &) {
    io.err << "sdb: out of memory: close other programs, or search for rarer words\n";
  } catch (const std::exception &error) {
    io.err << "sdb: " << error.what() << '\n';
  }
  return static_cast<int>(end);
}
