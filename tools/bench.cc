#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>
#include <random>
#include <sstream>

#include "tools/bulk.h"
#include "tools/data.h"

namespace {

namespace fs = std::filesystem;
using steady = std::chrono::steady_clock;

constexpr std::uint64_t ids_a_term = 10;  // on average
constexpr std::int64_t insert_count = 8192;
constexpr std::uint64_t seed = 42;
constexpr std::size_t queries = 20'000;
constexpr auto sync_time = std::chrono::seconds(1);

struct result_row {
  std::string what;
  double value = 0;
  std::string unit;
};

struct bench_run {
  bench_run(const tool_io &where, std::uint64_t how_many)
      : io(where), postings(how_many), progress{.io = where, .total = 2 * how_many} {
    progress.unit = "postings";
  }
  ~bench_run() {
    std::error_code error;
    if (!root.empty()) fs::remove_all(root, error);
  }
  bench_run(const bench_run &) = delete;
  bench_run &operator=(const bench_run &) = delete;

  const tool_io &io;
  std::uint64_t postings;
  tool_progress progress;
  std::string root;
  std::mt19937_64 random{seed};
  std::vector<result_row> rows;
};

double seconds_since(steady::time_point begin) {
  return std::chrono::duration<double>(steady::now() - begin).count();
}

// A term out of as many as there are for this number of postings, spread over all of the range.
tool_key_term term_of(const bench_run &run, std::uint64_t number) {
  const std::uint64_t terms = std::max<std::uint64_t>(run.postings / ids_a_term, 1);
  const auto word = static_cast<std::uint32_t>((number % terms) * (tool_range::most / terms));
  return {word, 0, 0};
}

tool_problem open_scratch(bench_run &run, const std::string &directory) {
  std::error_code error;
  const fs::path parent = directory.empty() ? fs::temp_directory_path(error) : fs::path(directory);
  std::string name = (parent / "sdb-bench-XXXXXX").string();
  if (error || ::mkdtemp(name.data()) == nullptr) {
    return {"cannot make a directory in " + parent.string() + ": name another with --dir"};
  }
  run.root = name;
  return {};
}

tool_problem open_table(const bench_run &run, tool_database &database, const std::string &name) {
  if (tool_problem problem = tool_database_open(database, run.root)) return problem;
  const std::int32_t result = zem_sdb_table_create(database.sdb, name.c_str());
  if (result != ZEM_SDB_E_NAME) {
    if (tool_problem problem = tool_library_problem("creating a table", result)) return problem;
  }
  return tool_table_open(database, name);
}

// Inserts random postings in batches; `count` of them, or fewer when stopped.
tool_problem insert_batch(bench_run &run, const tool_database &database, std::int64_t count,
                          std::uint64_t &id) {
  const tool_list ids = tool_list_new();
  const tool_list heads = tool_list_new();
  const tool_list thirds = tool_list_new();
  for (std::int64_t i = 0; i < count; ++i) {
    zem_var_add_long(ids.get(), ++id);
    zem_var_add_long(heads.get(), tool_key_head(term_of(run, run.random())));
    zem_var_add_integer(thirds.get(), 0);
  }
  return tool_patiently("inserting", [&] {
    return zem_sdb_inserts(database.sdb, database.table, ids.get(), heads.get(), thirds.get());
  });
}

tool_problem sync(const tool_database &database) {
  return tool_patiently("syncing", [&] { return zem_sdb_sync(database.sdb, database.table); });
}

tool_problem measure_inserts(bench_run &run, const tool_database &database) {
  const auto begin = steady::now();
  std::uint64_t id = 0;
  while (id < run.postings && !run.io.stop) {
    const auto count =
        std::min<std::int64_t>(insert_count, static_cast<std::int64_t>(run.postings - id));
    if (tool_problem problem = insert_batch(run, database, count, id)) return problem;
    tool_progress_step(run.progress, static_cast<std::uint64_t>(count), "inserting");
  }
  if (tool_problem problem = sync(database)) return problem;
  run.rows.push_back(
      {"inserts, synced at the end", static_cast<double>(id) / seconds_since(begin), "/s"});
  return {};
}

tool_problem measure_syncs(bench_run &run, const tool_database &database) {
  const auto begin = steady::now();
  std::uint64_t id = run.postings;
  while (steady::now() - begin < sync_time && !run.io.stop) {
    if (tool_problem problem = insert_batch(run, database, 1, id)) return problem;
    if (tool_problem problem = sync(database)) return problem;
    tool_progress_step(run.progress, 0, "syncing each insert");
  }
  const auto count = static_cast<double>(id - run.postings);
  run.rows.push_back({"inserts, each synced", count / seconds_since(begin), "/s"});
  return {};
}

tool_problem query(const tool_database &database, const tool_key_term &term) {
  const tool_list heads = tool_list_new(1);
  const tool_list thirds = tool_list_new(1);
  const tool_list ids = tool_list_new();
  zem_var_add_long(heads.get(), tool_key_head(term));
  zem_var_add_integer(thirds.get(), term[2]);
  return tool_library_problem(
      "a query", zem_sdb_query(database.sdb, database.table, heads.get(), thirds.get(), ids.get()));
}

tool_problem measure_queries(bench_run &run, const tool_database &database,
                             const std::string &where) {
  std::vector<double> micros;
  const auto begin = steady::now();
  for (std::size_t i = 0; i < queries && !run.io.stop; ++i) {
    const auto asked = steady::now();
    if (tool_problem problem = query(database, term_of(run, run.random()))) return problem;
    micros.push_back(seconds_since(asked) * 1e6);
  }
  if (micros.empty()) return {};
  const double rate = static_cast<double>(micros.size()) / seconds_since(begin);
  std::sort(micros.begin(), micros.end());
  run.rows.push_back({"point queries" + where, rate, "/s"});
  run.rows.push_back({"  half of them within", micros[micros.size() / 2], "us"});
  run.rows.push_back({"  99 of 100 within", micros[micros.size() * 99 / 100], "us"});
  return {};
}

tool_problem measure_bulk(bench_run &run, tool_database &database) {
  const auto begin = steady::now();
  tool_bulk bulk(database);
  const std::uint64_t terms = std::max<std::uint64_t>(run.postings / ids_a_term, 1);
  std::uint64_t done = 0;
  for (std::uint64_t number = 0; number < terms && !run.io.stop; ++number) {
    for (std::uint64_t id = ids_a_term; id > 0; --id) {
      tool_problem problem = tool_bulk_add(bulk, {.term = term_of(run, number), .id = id});
      if (problem) return problem;
    }
    done += ids_a_term;
    if (number % 1024 == 0) tool_progress_step(run.progress, 1024 * ids_a_term, "bulk loading");
  }
  if (tool_problem problem = tool_bulk_end(bulk)) return problem;
  run.rows.push_back({"bulk load", static_cast<double>(done) / seconds_since(begin), "/s"});
  return {};
}

tool_problem measure_opening(bench_run &run, const std::string &table, const std::string &what) {
  tool_database database;
  if (tool_problem problem = tool_database_open(database, run.root)) return problem;
  const auto begin = steady::now();
  if (tool_problem problem = tool_table_open(database, table)) return problem;
  run.rows.push_back({what, seconds_since(begin) * 1e3, "ms"});
  return tool_table_close(database);
}

tool_problem measure_logs(bench_run &run) {
  tool_database database;
  if (tool_problem problem = open_table(run, database, "inserts")) return problem;
  if (tool_problem problem = measure_inserts(run, database)) return problem;
  if (tool_problem problem = measure_syncs(run, database)) return problem;
  if (tool_problem problem = measure_queries(run, database, " among logs")) return problem;
  return tool_table_close(database);
}

tool_problem measure_loads(bench_run &run) {
  tool_database database;
  if (tool_problem problem = open_table(run, database, "bulk")) return problem;
  if (tool_problem problem = measure_bulk(run, database)) return problem;
  if (tool_problem problem = measure_queries(run, database, " of a data file")) return problem;
  return tool_table_close(database);
}

tool_problem measure(bench_run &run, const tool_bench_options &options) {
  if (tool_problem problem = open_scratch(run, options.directory)) return problem;
  if (tool_problem problem = measure_logs(run)) return problem;
  if (tool_problem problem = measure_loads(run)) return problem;
  if (run.io.stop) return {"stopped"};
  if (tool_problem problem = measure_opening(run, "inserts", "opening, with logs")) return problem;
  return measure_opening(run, "bulk", "opening, data file alone");
}

void print_rows(const bench_run &run) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(0);
  for (const auto &[what, value, unit] : run.rows)
    text << std::left << std::setw(30) << what << std::right << std::setw(12) << value << ' '
         << unit << '\n';
  run.io.out << text.str();
}

void print_json(const bench_run &run) {
  nlohmann::ordered_json root{{"postings", run.postings},
                              {"measured", nlohmann::ordered_json::array()}};
  for (const auto &[what, value, unit] : run.rows)
    root["measured"].push_back({{"what", what}, {"value", value}, {"unit", unit}});
  run.io.out << root.dump(2) << '\n';
}

}  // namespace

tool_exit tool_bench(const tool_io &io, const tool_bench_options &options) {
  bench_run run(io, options.postings);
  tool_problem problem = measure(run, options);
  tool_progress_clear(run.progress);
  if (problem) return tool_fail(io, problem);
  if (options.json) {
    print_json(run);
  } else {
    print_rows(run);
  }
  return tool_exit::done;
}
