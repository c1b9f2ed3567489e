// The program's commands. Each opens what it needs, prints what it found or did, and leaves nothing
// open behind it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/text.h"
#include "tools/tool.h"

struct tool_index_options {
  std::string root;
  std::string table;
  std::vector<std::string> paths;  // files, or directories to walk
  tool_unit unit = tool_unit::paragraph;
};

struct tool_search_options {
  std::string root;
  std::string table;
  std::vector<std::string> words;
  bool any = false;         // documents that hold one of the words are enough
  std::uint64_t limit = 0;  // documents shown; 0: all
};

struct tool_repair_options {
  std::string root;
  std::string table;
  std::string new_table;
  std::string new_root;  // empty: `root`
};

// Makes a table, and the root when it is missing.
tool_exit tool_create(const tool_io &io, const std::string &root, const std::string &table);

// Removes a table with all it holds.
tool_exit tool_drop(const tool_io &io, const std::string &root, const std::string &table);

// Prints the names of the tables, one a line.
tool_exit tool_list_tables(const tool_io &io, const std::string &root);

// Prints counts, sizes and shards of a table.
tool_exit tool_stat(const tool_io &io, const std::string &root, const std::string &table,
                    bool json);

// Adds the words of text files to a table. Directories are walked, without following links and
// without the database's own files. A file whose path and content were indexed before is left
// alone; one that changed is indexed anew, and what was found in it before is found no more. Files
// that hold NUL bytes count as no text. Raised `io.stop` ends it after the document in hand: files
// that were finished stay indexed, and the same command goes on later.
tool_exit tool_index(const tool_io &io, const tool_index_options &options);

// Prints the documents that hold the words: where they lie, and their text as the file holds it
// now. A document whose file is gone or changed is named with a note in place of its text.
tool_exit tool_search(const tool_io &io, const tool_search_options &options);

// Looks at every file of a table that nobody has open, and prints what is wrong with it. Changes and
// creates nothing. Ends with tool_exit::damaged when something is lost or queries fail.
tool_exit tool_check(const tool_io &io, const std::string &root, const std::string &table,
                     bool json);

// Writes all that can be read of a table that nobody has open to a new one, and prints what could not
// be read, which makes it end with tool_exit::damaged. Leaves the old table as it is; a run that fails
// or is stopped leaves no new one.
tool_exit tool_repair(const tool_io &io, const tool_repair_options &options);
