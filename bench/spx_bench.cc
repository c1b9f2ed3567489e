#include "src/spx.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/spx_iter.h"

namespace format = zem_spx_format;

namespace {

constexpr std::size_t posting_count = 1 << 20;

void require(zem_status st) {
  if (st < 0) throw std::runtime_error("data file operation failed");
}

// Data files in a directory of their own.
struct bench_directory {
  bench_directory() {
    path = (std::filesystem::temp_directory_path() / "spx-bench-XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("no directory");
  }
  ~bench_directory() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  bench_directory(const bench_directory &) = delete;
  bench_directory &operator=(const bench_directory &) = delete;
  std::string path;
};

void open_fresh(zem_spx &spx, const bench_directory &directory, const char *name) {
  zem_spx_shrink(spx);
  spx.file.name = directory.path + '/' + name;
  require(zem_spx_open(spx, zem_file_mode::fresh));
}

// 2^20 postings, `run` of them a term: a 14-byte group head for each run.
void write_file(zem_spx &spx, std::int64_t run) {
  zem_xblk xblk;
  zem_mkey mkey;
  std::size_t left = posting_count;
  for (std::uint32_t number = 0; left > 0; ++number) {
    const zem_term term{number / 1000, number % 1000, 7};
    for (auto id = static_cast<std::uint64_t>(run); id > 0 && left > 0; --id, --left)
      require(zem_spx_insert(spx, xblk, id * 13, term, mkey, 0));
  }
  require(zem_spx_commit(spx, xblk));
  require(zem_spx_merge(spx, xblk.blk_no));
}

void count_postings(benchmark::State &state) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(posting_count));
}

// Postings one by one into a file, checksums and writes included, without the sync.
void spx_write(benchmark::State &state) {
  const bench_directory directory;
  zem_spx spx;
  for (auto _ : state) {
    state.PauseTiming();
    open_fresh(spx, directory, "1.dat");
    state.ResumeTiming();
    write_file(spx, state.range(0));
  }
  count_postings(state);
}
BENCHMARK(spx_write)->ArgName("run")->Arg(1)->Arg(64)->Arg(4096)->Unit(benchmark::kMillisecond);

// What a merge does where the log has nothing: every run of one file moves to another.
void spx_copy(benchmark::State &state) {
  const bench_directory directory;
  zem_spx from;
  zem_spx to;
  open_fresh(from, directory, "1.dat");
  write_file(from, state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    open_fresh(to, directory, "2.dat");
    state.ResumeTiming();
    zem_xiter it;
    zem_xblk xblk;
    zem_mkey mkey;
    require(zem_spx_iterd_first(from, it));
    while (zem_xiter_stands(it)) {
      const std::span<const std::byte> run = zem_xiter_run(it);
      require(zem_spx_insert_run(to, xblk, it.term, run, mkey, 0));
      require(zem_spx_iterd_skip(from, it, run.size() / format::id_size));
    }
    require(zem_spx_commit(to, xblk));
  }
  count_postings(state);
}
BENCHMARK(spx_copy)->ArgName("run")->Arg(1)->Arg(64)->Arg(4096)->Unit(benchmark::kMillisecond);

// The whole file a posting at a time, past the cache.
void spx_scan(benchmark::State &state) {
  const bench_directory directory;
  zem_spx spx;
  open_fresh(spx, directory, "1.dat");
  write_file(spx, state.range(0));
  for (auto _ : state) {
    std::uint64_t sum = 0;
    zem_xiter it;
    require(zem_spx_iterd_first(spx, it));
    while (zem_xiter_stands(it)) {
      sum += it.doc;
      require(zem_spx_iterd_next(spx, it));
    }
    benchmark::DoNotOptimize(sum);
  }
  count_postings(state);
}
BENCHMARK(spx_scan)->ArgName("run")->Arg(1)->Arg(64)->Arg(4096)->Unit(benchmark::kMillisecond);

// A random term of a cached file and all its ids, as a query of one word takes them.
void spx_query(benchmark::State &state) {
  const bench_directory directory;
  zem_spx spx;
  open_fresh(spx, directory, "1.dat");
  write_file(spx, state.range(0));
  std::mt19937 random(42);
  std::int64_t found = 0;
  for (auto _ : state) {
    const auto number = static_cast<std::uint32_t>(random() % spx.key_num);
    std::uint64_t sum = 0;
    zem_xiter it;
    require(zem_spx_iter_find_x(spx, it, {number / 1000, number % 1000, 7}, zem_id_first));
    while (zem_xiter_stands(it)) {
      const std::span<const std::byte> run = zem_xiter_run(it);
      for (std::size_t at = 0; at < run.size(); at += format::id_size)
        sum += zem_stream_get_lword(&run[at]);
      found += static_cast<std::int64_t>(run.size() / format::id_size);
      require(zem_spx_iter_skip(spx, it, run.size() / format::id_size));
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(found);
}
BENCHMARK(spx_query)->ArgName("run")->Arg(1)->Arg(64)->Arg(4096)->Arg(1 << 18);

// A query whose block is not in the cache: read, checksum, directory.
void spx_query_uncached(benchmark::State &state) {
  const bench_directory directory;
  zem_spx spx;
  open_fresh(spx, directory, "1.dat");
  write_file(spx, state.range(0));
  std::mt19937 random(42);
  for (auto _ : state) {
    zem_cache_clear(spx.cache);
    const auto number = static_cast<std::uint32_t>(random() % spx.key_num);
    zem_xiter it;
    require(zem_spx_iter_find_x(spx, it, {number / 1000, number % 1000, 7}, zem_id_first));
    benchmark::DoNotOptimize(it.doc);
  }
}
BENCHMARK(spx_query_uncached)->ArgName("run")->Arg(1)->Arg(64)->Arg(4096);

// Opening a file: its index only.
void spx_load(benchmark::State &state) {
  const bench_directory directory;
  zem_spx spx;
  open_fresh(spx, directory, "1.dat");
  write_file(spx, 1);
  state.counters["blocks"] = static_cast<double>(spx.tree.count);
  for (auto _ : state) {
    zem_spx_shrink(spx);
    zem_mkey mkey;
    require(zem_spx_load(spx, mkey, nullptr));
  }
}
BENCHMARK(spx_load);

}  // namespace

BENCHMARK_MAIN();
