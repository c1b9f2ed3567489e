// The files of a closed table as the next open would take them: settings, list, and for each shard the
// files that hold its postings by the rules of recovery.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/file.h"

#include "tools/check_report.h"

// What holds a shard's postings. Empty names: there is no such file, or an open takes none.
struct check_shard {
  std::uint32_t number = 0;
  std::string dat;
  std::string frozen_log;
  std::string log;
};

struct check_table {
  std::string directory;
  std::shared_ptr<zem_fd> lock;  // as of whoever has the table open
  std::set<std::string> names;   // of its files
  // Of the list, ascending. Where the list is gone or names nothing: those whose files are there.
  std::vector<check_shard> shards;
};

// Takes the lock of a table and reads the names of its files. Fails for one that is not there or is
// open elsewhere. Creates nothing.
tool_problem check_table_open(check_table &table, const std::string &root, const std::string &name);

// Looks at the settings, the list, and which files there are, and fills in the shards. `salvage`: a
// list with odd lines is completed by the files that are there.
void check_table_read(check_run &run, check_table &table, bool salvage);

// Bytes of the files that hold the shards' postings, at least 1.
std::uint64_t check_table_bytes(const check_table &table);
