#include <ostream>
#include <utility>

#include "tools/data.h"
#include "tools/output.h"
#include "tools/posting_stream.h"

namespace {

struct dump_run {
  explicit dump_run(const tool_io &io) : progress{.io = io, .unit = "postings"}, output(io) {}

  tool_database database;
  tool_progress progress;
  tool_output output;
  tool_posting_writer writer;
};

tool_problem count_postings(dump_run &run) {
  std::uint64_t terms = 0, disk_bytes = 0, memory_bytes = 0;
  return tool_library_problem("counting",
                              zem_sdb_table_count(run.database.sdb, run.database.table, &terms,
                                                  &run.progress.total, &disk_bytes, &memory_bytes));
}

tool_problem dump_shards(dump_run &run, const tool_dump_options &options) {
  std::vector<tool_shard> shards;
  if (tool_problem problem = tool_shards(run.database, shards)) return problem;
  std::uint64_t looked = 0;
  const tool_ids_visitor visit = [&](const tool_key_term &term,
                                     std::span<const std::uint64_t> ids) {
    constexpr std::uint64_t look = 65536;
    looked += ids.size();
    if (looked >= look) tool_progress_step(run.progress, std::exchange(looked, 0), "dumping");
    return tool_posting_write(run.writer, term, ids);
  };
  bool known = options.shard == 0;
  for (const tool_shard &shard : shards) {
    if (options.shard != 0 && shard.number != options.shard) continue;
    known = true;
    if (shard.high.term < options.range.from) continue;
    tool_problem problem =
        tool_walk(run.database, shard.number, options.range, run.output.io.stop, visit);
    if (problem) return problem;
  }
  if (known) return {};
  return {"table " + options.table + " has no shard " + std::to_string(options.shard) +
          ": see what there is with: sdb shards " + options.root + " " + options.table};
}

tool_problem dump(dump_run &run, const tool_dump_options &options) {
  if (tool_problem problem = tool_database_open(run.database, options.root)) return problem;
  if (tool_problem problem = tool_table_open(run.database, options.table)) return problem;
  if (tool_problem problem = tool_output_open(run.output, options.file)) return problem;
  if (tool_problem problem = tool_settle(run.database, run.progress)) return problem;
  if (tool_problem problem = count_postings(run)) return problem;
  if (tool_problem problem = tool_posting_begin(run.writer)) return problem;
  if (tool_problem problem = dump_shards(run, options)) return problem;
  // Without its end a binary stream is refused by whoever reads it.
  if (run.output.io.stop) return {"stopped"};
  if (tool_problem problem = tool_posting_end(run.writer)) return problem;
  if (tool_problem problem = tool_output_end(run.output)) return problem;
  return tool_table_close(run.database);
}

}  // namespace

tool_exit tool_dump(const tool_io &io, const tool_dump_options &options) {
  dump_run run(io);
  run.writer.binary = options.binary;
  run.writer.sink = [&](std::string_view bytes) { return tool_output_write(run.output, bytes); };
  tool_problem problem = dump(run, options);
  tool_progress_clear(run.progress);
  tool_database_report(run.database, io);
  if (problem) return tool_fail(io, problem);
  if (io.terminal) io.err << "sdb: dumped " << run.writer.postings << " postings\n";
  return tool_exit::done;
}
