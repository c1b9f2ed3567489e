#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <ostream>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/bulk.h"
#include "tools/commands.h"
#include "tools/data.h"
#include "tools/posting_stream.h"

namespace {

constexpr std::uint32_t batch_limit = 8192;  // postings routed at once
// As many deletes as a log takes, inserts included, without asking for a merge by its size: at the
// least `merge_num`, 1 MiB, these need some 750 KB of it.
constexpr std::size_t delete_limit = 16384;
constexpr std::uint64_t look_changes = 4096;  // between two looks at `stop` and the progress

struct load_run {
  explicit load_run(const tool_io &where)
      : io(where), progress{.io = where, .unit = "postings"}, reader{.stop = where.stop} {}
  ~load_run() {
    if (reader.fd > STDIN_FILENO) ::close(reader.fd);
  }
  load_run(const load_run &) = delete;
  load_run &operator=(const load_run &) = delete;

  const tool_io &io;
  tool_database database;
  tool_progress progress;
  tool_posting_reader reader;
  bool created = false;  // the table, by this run

  std::optional<tool_bulk> bulk;  // while postings come in order into an empty table
  tool_doc batch = tool_doc_new();
  std::uint32_t batch_postings = 0;
  std::set<tool_posting> deletes;

  std::uint64_t in_bulk = 0;  // postings in the table by way of the bulk loader
  std::uint64_t updates = 0;  // inserts given to the table
};

// ---- where it reads, and into what ----

tool_problem open_input(load_run &run, const std::string &file) {
  run.reader.fd = file == "-" ? STDIN_FILENO : ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status = {};
  if (run.reader.fd < 0 || ::fstat(run.reader.fd, &status) != 0) {
    return tool_problem_errno("cannot read " + file, errno);
  }
  if (S_ISDIR(status.st_mode)) return {"cannot read " + file + ": it is a directory"};
  if (S_ISREG(status.st_mode) && status.st_size > 0) {
    run.progress.total = static_cast<std::uint64_t>(status.st_size);
    run.progress.unit = "bytes";
  }
  return {};
}

tool_problem make_table(load_run &run, const tool_load_options &options) {
  if (!options.create) return {};
  std::error_code error;
  std::filesystem::create_directories(options.root, error);
  if (error) return {"cannot make " + options.root + ": " + error.message()};
  tool_database database;
  if (tool_problem problem = tool_database_open(database, options.root)) return problem;
  const std::int32_t result = zem_sdb_table_create(database.sdb, options.table.c_str());
  run.created = result >= 0;
  if (result == ZEM_SDB_E_NAME) return {};
  return tool_library_problem("creating table " + options.table, result);
}

tool_problem open_table(load_run &run, const tool_load_options &options) {
  if (tool_problem problem = make_table(run, options)) return problem;
  if (tool_problem problem = tool_database_open(run.database, options.root)) return problem;
  if (tool_problem problem = tool_table_open(run.database, options.table)) return problem;
  std::uint64_t terms = 0, postings = 0, disk_bytes = 0, memory_bytes = 0;
  const std::int32_t counted = zem_sdb_table_count(run.database.sdb, run.database.table, &terms,
                                                   &postings, &disk_bytes, &memory_bytes);
  if (tool_problem problem = tool_library_problem("counting", counted)) return problem;
  std::vector<tool_shard> shards;
  if (tool_problem problem = tool_shards(run.database, shards)) return problem;
  // A log that holds nothing but deletes has a range, into which nothing may be filled past it.
  const bool empty =
      postings == 0 && std::none_of(shards.begin(), shards.end(), [](const tool_shard &shard) {
        return shard.log_terms + shard.data_terms > 0;
      });
  // An insert that follows a delete in one log is ignored: what was deleted before goes first.
  if (!empty) return tool_settle(run.database, run.progress);
  run.bulk.emplace(run.database);
  run.bulk->shard_bytes = options.shard_mib << 20;
  return {};
}

// ---- changes ----

tool_problem route(load_run &run, zem_doc *batch) {
  const std::unique_ptr<zem_keys, tool_keys_free> keys(zem_sdb_keys_new());
  if (!keys) throw std::bad_alloc();
  return tool_patiently("updating", [&] {
    return zem_sdb_update(run.database.sdb, run.database.table, batch, keys.get());
  });
}

void add_to(const tool_doc &batch, const tool_posting &posting, std::uint32_t flag) {
  if (zem_sdb_doc_add(batch.get(), posting.id, posting.term.data(), flag) < 0) {
    throw std::bad_alloc();
  }
}

tool_problem give_batch(load_run &run) {
  if (run.batch_postings == 0) return {};
  tool_problem problem = route(run, run.batch.get());
  if (!problem) run.updates += run.batch_postings;
  zem_sdb_doc_clear(run.batch.get());
  run.batch_postings = 0;
  return problem;
}

// What came in order stays; everything that follows takes the way of updates, which lead it into
// the shards that were loaded.
tool_problem end_bulk(load_run &run) {
  if (!run.bulk) return {};
  tool_problem problem = tool_bulk_end(*run.bulk);
  run.in_bulk = run.bulk->handed;
  run.bulk.reset();
  return problem;
}

tool_problem insert(load_run &run, const tool_posting &posting) {
  if (!run.deletes.empty()) run.deletes.erase(posting);
  if (run.bulk) {
    if (tool_bulk_takes(*run.bulk, posting)) return tool_bulk_add(*run.bulk, posting);
    if (tool_problem problem = end_bulk(run)) return problem;
  }
  add_to(run.batch, posting, 1);
  return ++run.batch_postings < batch_limit ? tool_problem{} : give_batch(run);
}

void look(load_run &run, std::uint64_t &shown) {
  const bool bytes = run.progress.total > 0;
  const std::uint64_t now = bytes ? run.reader.consumed : run.reader.changes;
  tool_progress_step(run.progress, now - shown, "loading");
  shown = now;
}

tool_problem take_change(load_run &run, const tool_change &change) {
  if (change.insert) return insert(run, change.posting);
  run.deletes.insert(change.posting);
  return {};
}

// Takes the stream from its first change on, which was read already.
tool_problem take_stream(load_run &run, tool_change change, bool more) {
  std::uint64_t shown = 0;
  while (more && !run.io.stop) {
    if (tool_problem problem = take_change(run, change)) return problem;
    if (run.reader.changes % look_changes == 0) look(run, shown);
    more = tool_posting_next(run.reader, change);
  }
  return run.reader.problem;
}

// ---- deletes ----

// A delete reaches what the live log holds, so each posting is inserted first. Between the two no
// merge may set the log aside: after a settling nothing asks for one before the log has grown.
tool_problem delete_some(load_run &run, std::set<tool_posting>::const_iterator &next) {
  if (tool_problem problem = tool_settle(run.database, run.progress)) return problem;
  const tool_doc inserts = tool_doc_new();
  const tool_doc deletes = tool_doc_new();
  for (std::size_t i = 0; i < delete_limit && next != run.deletes.end(); ++i, ++next) {
    add_to(inserts, *next, 1);
    add_to(deletes, *next, 0);
  }
  if (tool_problem problem = route(run, inserts.get())) return problem;
  return route(run, deletes.get());
}

tool_problem apply_deletes(load_run &run) {
  if (run.deletes.empty()) return {};
  for (auto next = run.deletes.cbegin(); next != run.deletes.cend() && !run.io.stop;) {
    if (tool_problem problem = delete_some(run, next)) return problem;
  }
  return tool_settle(run.database, run.progress);  // queries find deleted postings until then
}

// ---- the whole run ----

tool_problem load(load_run &run, const tool_load_options &options) {
  if (tool_problem problem = open_input(run, options.file)) return problem;
  tool_change first;
  const bool any = tool_posting_next(run.reader, first);
  if (run.reader.problem) return run.reader.problem;
  if (tool_problem problem = open_table(run, options)) return problem;
  tool_problem problem = take_stream(run, first, any);
  if (problem || run.io.stop) {
    // What the table has already it keeps; a bulk that has not ended goes.
    if (tool_problem second = give_batch(run); second && !problem) problem = second;
    return problem;
  }
  if (tool_problem ended = end_bulk(run)) return ended;
  if (tool_problem given = give_batch(run)) return given;
  return apply_deletes(run);
}

// Nothing is left of a table that this run made for nothing.
void take_back(load_run &run, const std::string &table) {
  if (!run.created || run.in_bulk + run.updates > 0) return;
  zem_sdb_table_drop(run.database.sdb, table.c_str());
}

tool_exit refuse(load_run &run, const tool_load_options &options, const tool_problem &problem) {
  const tool_exit end = tool_fail(run.io, problem);
  const std::uint64_t kept = run.in_bulk + run.updates;
  if (kept == 0) {
    run.io.err << "sdb: nothing was loaded\n";
    return end;
  }
  run.io.err << "sdb: " << kept << " postings from before that are in table "
             << tool_printable(options.table) << ", deletes are not; load the mended stream again: "
             << "what is there already does no harm\n";
  return end;
}

}  // namespace

tool_exit tool_load(const tool_io &io, const tool_load_options &options) {
  load_run run(io);
  tool_problem problem = load(run, options);
  if (!problem && io.stop) problem = {"stopped"};
  run.bulk.reset();
  if (run.database.table != 0) {
    tool_problem closing = tool_table_close(run.database);
    if (!problem) problem = closing;
  }
  if (problem) take_back(run, options.table);
  tool_progress_clear(run.progress);
  tool_database_report(run.database, io);
  if (problem) return refuse(run, options, problem);
  io.out << "loaded " << run.in_bulk + run.updates << " postings";
  if (run.in_bulk > 0) io.out << ", " << run.in_bulk << " of them in bulk";
  if (!run.deletes.empty()) io.out << "; deleted " << run.deletes.size();
  io.out << '\n';
  return tool_exit::done;
}
