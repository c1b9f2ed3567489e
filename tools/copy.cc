#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <ostream>
#include <tuple>
#include <unistd.h>
#include <utility>

#include "tools/bulk.h"
#include "tools/catalog.h"
#include "tools/data.h"
#include "tools/output.h"

namespace {

namespace fs = std::filesystem;

struct copy_run {
  explicit copy_run(const tool_io &io) : progress{.io = io, .unit = "postings"} {}

  tool_database from;
  tool_database to;
  tool_progress progress;
  bool created = false;
  std::uint64_t postings = 0;
};

tool_problem copy_file(const tool_io &io, const fs::path &from, const fs::path &to) {
  std::error_code error;
  if (!fs::exists(from, error)) return {};
  const int fd = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return tool_problem_errno("cannot read " + from.string(), errno);
  tool_output output(io);
  tool_problem problem = tool_output_open(output, to.string());
  std::string block(std::size_t{1} << 20, '\0');
  ssize_t got = 1;
  while (!problem && got > 0 && !io.stop) {
    got = ::read(fd, block.data(), block.size());
    if (got < 0) problem = tool_problem_errno("cannot read " + from.string(), errno);
    if (got > 0) {
      problem = tool_output_write(output, {block.data(), static_cast<std::size_t>(got)});
    }
  }
  ::close(fd);
  return problem || io.stop ? problem : tool_output_end(output);
}

// Settings count from the first opening on, so they are in place before it.
tool_problem make_table(copy_run &run, const tool_copy_options &options) {
  const std::string &root = options.to_root.empty() ? options.root : options.to_root;
  std::error_code error;
  fs::create_directories(root, error);
  if (error) return {"cannot make " + root + ": " + error.message()};
  if (tool_problem problem = tool_database_open(run.to, root)) return problem;
  const std::int32_t result = zem_sdb_table_create(run.to.sdb, options.name.c_str());
  if (result == ZEM_SDB_E_NAME) {
    return {"table " + options.name + " exists already in " + root +
            ": choose another name, or drop it"};
  }
  run.created = result >= 0;
  if (tool_problem problem = tool_library_problem("creating table " + options.name, result)) {
    return problem;
  }
  const fs::path directory = fs::path(root) / options.name;
  for (const char *name : {"sdb.xml", tool_catalog_name}) {
    tool_problem problem = copy_file(
        run.progress.io, fs::path(tool_table_directory(run.from)) / name, directory / name);
    if (problem) return problem;
  }
  return tool_table_open(run.to, options.name);
}

tool_problem copy_shard(copy_run &run, tool_bulk &bulk, std::uint32_t shard) {
  std::uint64_t looked = 0;
  const auto add = [&](const tool_key_term &term, std::span<const std::uint64_t> ids) {
    for (const std::uint64_t id : ids) {
      tool_problem problem = tool_bulk_add(bulk, {.term = term, .id = id});
      if (problem) return problem;
    }
    constexpr std::uint64_t look = 65536;
    looked += ids.size();
    if (looked >= look) tool_progress_step(run.progress, std::exchange(looked, 0), "copying");
    return tool_problem{};
  };
  tool_problem problem = tool_walk(run.from, shard, {}, run.progress.io.stop, add);
  return problem ? problem : tool_bulk_end_shard(bulk);
}

tool_problem copy_postings(copy_run &run) {
  std::uint64_t terms = 0, disk_bytes = 0, memory_bytes = 0;
  const std::int32_t counted = zem_sdb_table_count(run.from.sdb, run.from.table, &terms,
                                                   &run.progress.total, &disk_bytes, &memory_bytes);
  if (tool_problem problem = tool_library_problem("counting", counted)) return problem;
  std::vector<tool_shard> shards;
  if (tool_problem problem = tool_shards(run.from, shards)) return problem;
  tool_bulk bulk(run.to);
  bulk.shard_bytes = std::numeric_limits<std::uint64_t>::max();  // as the table is divided now
  for (const tool_shard &shard : shards) {
    if (tool_problem problem = copy_shard(run, bulk, shard.number)) return problem;
    if (run.progress.io.stop) return {"stopped"};
  }
  tool_problem problem = tool_bulk_end(bulk);
  run.postings = bulk.handed;
  return problem;
}

tool_problem copy(copy_run &run, const tool_copy_options &options) {
  if (tool_problem problem = tool_database_open(run.from, options.root)) return problem;
  if (tool_problem problem = tool_table_open(run.from, options.table)) return problem;
  if (tool_problem problem = tool_settle(run.from, run.progress)) return problem;
  if (tool_problem problem = make_table(run, options)) return problem;
  if (tool_problem problem = copy_postings(run)) return problem;
  if (tool_problem problem = tool_table_close(run.to)) return problem;
  return tool_table_close(run.from);
}

void take_back(copy_run &run, const std::string &name) {
  if (run.to.table != 0) std::ignore = tool_table_close(run.to);
  zem_sdb_table_drop(run.to.sdb, name.c_str());
}

}  // namespace

tool_exit tool_copy(const tool_io &io, const tool_copy_options &options) {
  copy_run run(io);
  tool_problem problem = copy(run, options);
  if (problem && run.created) take_back(run, options.name);
  tool_progress_clear(run.progress);
  tool_database_report(run.from, io);
  tool_database_report(run.to, io);
  if (problem) return tool_fail(io, problem);
  io.out << "copied " << run.postings << " postings to table " << tool_printable(options.name)
         << '\n';
  return tool_exit::done;
}
