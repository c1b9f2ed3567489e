#include "tools/data.h"

#include <CLI/CLI.hpp>
#include <limits>
#include <memory>

namespace {

using chosen_command = std::function<tool_exit()>;

// Each command keeps what its command line said in a record that lives as long as the command does.
struct registry {
  CLI::App &app;
  const tool_io &io;
  chosen_command &chosen;

  template <class Options>
  CLI::App &add(const char *name, const char *what, const std::shared_ptr<Options> &options,
                tool_exit (*run)(const tool_io &, const Options &)) const {
    CLI::App &command = *app.add_subcommand(name, what);
    command.callback([this_io = &io, into = &chosen, options, run] {
      *into = [this_io, options, run] { return run(*this_io, *options); };
    });
    return command;
  }
};

// What the commands without a record of their own are told.
struct plain_options {
  std::string root;
  std::string table;
  bool json = false;
  bool sure = false;
};

template <class Options>
void add_place(CLI::App &command, const std::shared_ptr<Options> &options) {
  command.add_option("ROOT", options->root, "directory of the database")->required();
  command.add_option("TABLE", options->table, "name of the table")->required();
}

template <class Options>
void add_json(CLI::App &command, const std::shared_ptr<Options> &options) {
  command.add_flag("--json", options->json, "print JSON");
}

// The words of a term as three arguments.
template <class Options>
void add_term(CLI::App &command, const std::shared_ptr<Options> &options) {
  command.add_option("W0", options->term[0], "word 0 of the term")->required();
  command.add_option("W1", options->term[1], "word 1")->required();
  command.add_option("W2", options->term[2], "word 2")->required();
}

template <class Options>
void add_source(CLI::App &command, const std::shared_ptr<Options> &options) {
  command.add_option("--shard", options->shard, "number of the shard")->required();
  CLI::Option *data = command.add_flag_callback(
      "--data", [options] { options->source = tool_source_kind::data; },
      "look into its data file (as without this)");
  command
      .add_flag_callback(
          "--log", [options] { options->source = tool_source_kind::log; },
          "look into its log, where deleted postings show as well")
      ->excludes(data);
}

// The command line library's own check names the greatest floating-point number.
CLI::Validator not_negative() {
  return {[](const std::string &text) { return text.starts_with('-') ? "is negative" : ""; },
          "COUNT"};
}

// An option that takes "W0,W1,W2" as one argument.
template <class Options>
void add_bound(CLI::App &command, const std::shared_ptr<Options> &options, const char *name,
               tool_key_term tool_range::*bound, const char *what) {
  command
      .add_option_function<std::string>(
          name,
          [options, bound, name](const std::string &text) {
            const std::vector<std::string> words = CLI::detail::split(text, ',');
            tool_key_term &term = options->range.*bound;
            bool whole = words.size() == term.size();
            for (std::size_t i = 0; whole && i < term.size(); ++i)
              whole = CLI::detail::lexical_cast(words[i], term[i]);
            if (!whole) throw CLI::ValidationError(name, "takes three words of a term, W0,W1,W2");
            if (options->range.to < options->range.from) {
              throw CLI::ValidationError(name, "leaves no term between --from and --to");
            }
          },
          what)
      ->type_name("W0,W1,W2");
}

// ---- postings in and out ----

void add_load(const registry &commands) {
  const auto options = std::make_shared<tool_load_options>();
  CLI::App &command = commands.add("load", "Put postings from a text or binary stream into a table",
                                   options, &tool_load);
  add_place(command, options);
  command.add_option("FILE", options->file, "stream of postings; -: the standard input");
  command.add_flag("--create", options->create, "make the table, and the database, if missing");
  command.add_option("--shard-mib", options->shard_mib, "MiB of a shard filled in bulk, 256")
      ->check(CLI::Range(1, 4095));
  command.footer(
      "A text has a posting a line: WORD0 WORD1 WORD2 ID, in decimal. '- ' before it deletes the\n"
      "posting; deletes wait until the stream has ended, and of several changes of one posting\n"
      "the last counts. Blank lines and what follows a '#' are passed over. `dump --binary`\n"
      "writes the other form.\n"
      "An empty table is filled in bulk as long as the postings come in key order (terms\n"
      "ascending, ids descending); from the first that does not on, they are inserted.");
}

void add_dump(const registry &commands) {
  const auto options = std::make_shared<tool_dump_options>();
  CLI::App &command = commands.add(
      "dump", "Merge a table and write its postings in key order, for load", options, &tool_dump);
  add_place(command, options);
  command.add_option("--shard", options->shard, "only this shard")
      ->check(CLI::Range(1U, std::numeric_limits<std::uint32_t>::max()));
  add_bound(command, options, "--from", &tool_range::from, "first term to write");
  add_bound(command, options, "--to", &tool_range::to, "last term to write");
  command.add_flag("--binary", options->binary, "write the binary form");
  command.add_option("-o,--output", options->file,
                     "file to write; it appears when it is whole; -: the standard output");
}

void add_copy(const registry &commands) {
  const auto options = std::make_shared<tool_copy_options>();
  CLI::App &command = commands.add("copy", "Merge a table and make another of all that it holds",
                                   options, &tool_copy);
  add_place(command, options);
  command.add_option("NEW", options->name, "name of the new table")->required();
  command.add_option("--to-root", options->to_root, "database of the new table, made if missing");
}

// ---- looking at numbers ----

void add_listings(const registry &commands) {
  const auto terms = std::make_shared<tool_terms_options>();
  CLI::App &list_terms = commands.add("terms", "Print terms of a shard: postings and newest ids",
                                      terms, &tool_list_terms);
  add_place(list_terms, terms);
  add_source(list_terms, terms);
  list_terms.add_option("--first", terms->first, "number of the first term, from 0")
      ->check(not_negative());
  list_terms.add_option("--limit", terms->limit, "terms to print, 20; 0 prints all")
      ->check(not_negative());
  add_json(list_terms, terms);

  const auto ids = std::make_shared<tool_ids_options>();
  CLI::App &list_ids =
      commands.add("ids", "Print the ids of a term in a shard, descending", ids, &tool_list_ids);
  add_place(list_ids, ids);
  add_term(list_ids, ids);
  add_source(list_ids, ids);
  list_ids.add_option("--skip", ids->skip, "ids to pass over")->check(not_negative());
  list_ids.add_option("--limit", ids->limit, "ids to print; 0 prints all")->check(not_negative());
  add_json(list_ids, ids);

  const auto get = std::make_shared<tool_get_options>();
  CLI::App &get_ids = commands.add("get", "Query a table for the ids of a term", get, &tool_get);
  add_place(get_ids, get);
  add_term(get_ids, get);
  get_ids.add_option("--span01", get->span01, "span of words 0 and 1 of the query");
  get_ids.add_option("--span2", get->span2, "span of its word 2");
  add_json(get_ids, get);
}

tool_exit run_shards(const tool_io &io, const plain_options &options) {
  return tool_list_shards(io, options.root, options.table, options.json);
}
tool_exit run_merge(const tool_io &io, const plain_options &options) {
  return tool_merge(io, options.root, options.table);
}
tool_exit run_clear(const tool_io &io, const plain_options &options) {
  return tool_clear(io, options.root, options.table, options.sure);
}

void add_plain(const registry &commands) {
  const auto options = std::make_shared<plain_options>();
  CLI::App &shards = commands.add("shards", "Print the shards of a table: ranges, terms, sizes",
                                  options, &run_shards);
  add_place(shards, options);
  add_json(shards, options);
  add_place(commands.add("merge", "Merge every log of a table, which carries out deletes", options,
                         &run_merge),
            options);
  CLI::App &clear = commands.add("clear", "Empty a table", options, &run_clear);
  add_place(clear, options);
  clear.add_flag("--yes", options->sure, "yes, all of it");
}

void add_bench(const registry &commands) {
  const auto options = std::make_shared<tool_bench_options>();
  CLI::App &command =
      commands.add("bench", "Measure the library on this machine, in a database that is removed",
                   options, &tool_bench);
  command.add_option("--postings", options->postings, "postings to insert and to load, 1000000")
      ->check(CLI::Range(std::uint64_t{1000}, std::uint64_t{1} << 32));
  command.add_option("--dir", options->directory, "directory on the disk to measure");
  add_json(command, options);
}

}  // namespace

void tool_data_commands(CLI::App &app, const tool_io &io, std::function<tool_exit()> &chosen) {
  const registry commands{.app = app, .io = io, .chosen = chosen};
  add_load(commands);
  add_dump(commands);
  add_copy(commands);
  add_listings(commands);
  add_plain(commands);
  add_bench(commands);
}
