// The shard log: the way of postings in, files included, and back by replay.
//
// `run` is how many postings share a term: at 1 every posting pays for a 14-byte group head.
#include "src/spm.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "src/spm_iter.h"

namespace {

constexpr std::size_t posting_count = std::size_t{1} << 20;
constexpr std::size_t batch_size = 8192;

struct bench_posting {
  zem_term term;
  std::uint64_t id;
};

// Batches as a table routes them: each in key order, over terms all over the range.
std::vector<bench_posting> sorted_batches(std::size_t run, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::vector<bench_posting> postings(posting_count);
  bench_posting next{};
  for (std::size_t i = 0; i < postings.size(); ++i) {
    if (i % run == 0) {
      const std::uint64_t head = random();
      next.term = {static_cast<std::uint32_t>(head >> 32), static_cast<std::uint32_t>(head), 7};
    }
    next.id = random() >> 1;
    postings[i] = next;
  }
  for (auto from = postings.begin(); from != postings.end(); from += batch_size) {
    std::sort(from, from + batch_size, [](const bench_posting &a, const bench_posting &b) {
      return zem_xtree_key_compare(a.term, a.id, b.term, b.id) < 0;
    });
  }
  return postings;
}

// A log in a directory of its own.
struct bench_log {
  bench_log() {
    directory = (std::filesystem::temp_directory_path() / "spm-bench-XXXXXX").string();
    if (::mkdtemp(directory.data()) == nullptr) std::abort();
    spm.file.name = directory + "/1.log";
    open(zem_file_mode::fresh);
  }
  ~bench_log() { std::filesystem::remove_all(directory); }
  bench_log(const bench_log &) = delete;
  bench_log &operator=(const bench_log &) = delete;

  void open(zem_file_mode mode) {
    if (zem_spm_open(spm, mode) < 0) std::abort();
  }
  void insert(const std::vector<bench_posting> &postings) {
    for (std::size_t i = 0; i < postings.size(); ++i) {
      if (i % batch_size == 0) zem_proc_shrink(proc);
      if (zem_spm_insert(spm, proc, postings[i].id, postings[i].term, mkey) < 0) std::abort();
    }
  }
  void commit() {
    if (zem_spm_commit(spm) < 0) std::abort();
  }
  void reopen() {
    zem_spm_shrink(spm);
    open(zem_file_mode::existing);
    if (zem_spm_load(spm, mkey, spm.file.name + ".bad", nullptr) < 0) std::abort();
  }

  std::string directory;
  zem_spm spm;
  zem_proc proc;
  zem_mkey mkey;
};

void count_items(benchmark::State &state) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(posting_count));
}

void log_insert(benchmark::State &state) {
  const auto postings = sorted_batches(static_cast<std::size_t>(state.range(0)), /*seed=*/42);
  for (auto _ : state) {
    bench_log log;
    log.insert(postings);
    benchmark::DoNotOptimize(log.spm.sum_recs);
  }
  count_items(state);
}
BENCHMARK(log_insert)->ArgName("run")->Arg(1)->Arg(64)->Unit(benchmark::kMillisecond);

// The writing alone: every posting is in the map already and is deleted.
void log_delete(benchmark::State &state) {
  const auto postings = sorted_batches(/*run=*/64, /*seed=*/42);
  bench_log log;
  log.insert(postings);
  for (auto _ : state) {
    for (std::size_t i = 0; i < postings.size(); ++i) {
      if (i % batch_size == 0) zem_proc_shrink(log.proc);
      const bench_posting &posting = postings[i];
      if (zem_spm_delete(log.spm, log.proc, posting.id, posting.term, log.mkey) < 0) std::abort();
    }
  }
  count_items(state);
}
BENCHMARK(log_delete)->Unit(benchmark::kMillisecond);

void log_replay(benchmark::State &state) {
  bench_log log;
  log.insert(sorted_batches(static_cast<std::size_t>(state.range(0)), /*seed=*/42));
  log.commit();
  for (auto _ : state)
    log.reopen();
  count_items(state);
}
BENCHMARK(log_replay)->ArgName("run")->Arg(1)->Arg(64)->Unit(benchmark::kMillisecond);

// A log of one posting in a file of 8 MiB: what the opening of a table pays for each small shard.
void log_open_small(benchmark::State &state) {
  bench_log log;
  log.insert({{{1, 2, 3}, 4}});
  log.commit();
  for (auto _ : state)
    log.reopen();
}
BENCHMARK(log_open_small)->Unit(benchmark::kMicrosecond);

// One posting and its way to the disk.
void log_commit(benchmark::State &state) {
  bench_log log;
  std::uint64_t id = 0;
  for (auto _ : state) {
    if (zem_spm_insert(log.spm, log.proc, ++id, {1, 2, 3}, log.mkey) < 0) std::abort();
    log.commit();
  }
}
BENCHMARK(log_commit)->Unit(benchmark::kMicrosecond);

void log_scan(benchmark::State &state) {
  bench_log log;
  log.insert(sorted_batches(/*run=*/64, /*seed=*/42));
  for (auto _ : state) {
    std::uint64_t sum = 0;
    zem_iter iter;
    for (zem_spm_iterd_first(log.spm, iter); iter.node != nullptr; zem_spm_iterd_next(iter))
      sum += iter.doc + static_cast<std::uint64_t>(iter.val->flag);
    benchmark::DoNotOptimize(sum);
  }
  count_items(state);
}
BENCHMARK(log_scan)->Unit(benchmark::kMillisecond);

}  // namespace
