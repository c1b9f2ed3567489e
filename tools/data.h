// The commands that move and show postings as numbers: whole tables, shards, terms and ids.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tools/tool.h"
#include "tools/walk.h"

namespace CLI {
class App;
}

struct tool_load_options {
  std::string root;
  std::string table;
  std::string file = "-";  // "-": the standard input
  bool create = false;     // a table, and a database, that is missing
  // Of a data file filled in bulk, about. A shard of default settings divides at twice this.
  std::uint64_t shard_mib = 256;
};

struct tool_dump_options {
  std::string root;
  std::string table;
  std::string file = "-";   // "-": the program's output
  std::uint32_t shard = 0;  // 0: all
  tool_range range;
  bool binary = false;
};

struct tool_copy_options {
  std::string root;
  std::string table;
  std::string to_root;  // empty: `root`
  std::string name;     // of the new table
};

// Where a listing of one shard looks.
enum class tool_source_kind : std::uint8_t { data, log };

struct tool_terms_options {
  std::string root;
  std::string table;
  std::uint32_t shard = 0;
  tool_source_kind source = tool_source_kind::data;
  std::int64_t first = 0;
  std::int64_t limit = 20;  // 0: all
  bool json = false;
};

struct tool_ids_options {
  std::string root;
  std::string table;
  std::uint32_t shard = 0;
  tool_source_kind source = tool_source_kind::data;
  tool_key_term term{};
  std::int64_t skip = 0;
  std::int64_t limit = 0;  // 0: all
  bool json = false;
};

struct tool_get_options {
  std::string root;
  std::string table;
  tool_key_term term{};
  std::uint32_t span01 = 0;  // of words 0 and 1, and of word 2, as a query takes them
  std::uint32_t span2 = 0;
  bool json = false;
};

struct tool_bench_options {
  std::string directory;  // of the scratch database; empty: the system's for temporary files
  std::uint64_t postings = 1'000'000;
  bool json = false;
};

// Puts the postings of a stream into a table. An empty one is filled in bulk as long as they come in
// key order, and is as it was when the stream is refused meanwhile; from the first posting out of
// order on, and in any other table, they are inserted. Deletes wait until the stream has ended, held
// in memory; of several changes of one posting the last counts.
tool_exit tool_load(const tool_io &io, const tool_load_options &options);

// Merges a table and writes its postings in key order.
tool_exit tool_dump(const tool_io &io, const tool_dump_options &options);

// Merges a table and makes another of its settings, shards and postings, and of what `index` knows
// of its files. What ends the command before its time removes the new table.
tool_exit tool_copy(const tool_io &io, const tool_copy_options &options);

// Carries out deletes: merges every log into its data file, and waits for it.
tool_exit tool_merge(const tool_io &io, const std::string &root, const std::string &table);

// Empties a table, and forgets the files that were indexed in it. `sure` was said.
tool_exit tool_clear(const tool_io &io, const std::string &root, const std::string &table,
                     bool sure);

tool_exit tool_list_shards(const tool_io &io, const std::string &root, const std::string &table,
                           bool json);
tool_exit tool_list_terms(const tool_io &io, const tool_terms_options &options);
tool_exit tool_list_ids(const tool_io &io, const tool_ids_options &options);

// Prints the ids under a term, ascending; ends with `nothing` when there is none.
tool_exit tool_get(const tool_io &io, const tool_get_options &options);

// Measures the library in a database of its own, which it removes.
tool_exit tool_bench(const tool_io &io, const tool_bench_options &options);

// Adds these commands to the program's. The one that the command line names puts what runs it into
// `chosen`.
void tool_data_commands(CLI::App &app, const tool_io &io, std::function<tool_exit()> &chosen);
