// The ordered tree: insertion in the shapes that the library meets, look-up and scan.
//
// `run` is how many keys share a term on average.
#include "src/xtree.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

namespace {

using tree = zem_xtree<std::uint64_t>;
using node = zem_xnode<std::uint64_t>;

constexpr std::size_t units_a_block = 65536;
constexpr std::size_t tree_size = std::size_t{1} << 20;
constexpr std::size_t batch_size = 8192;

struct bench_key {
  zem_term term;
  std::uint64_t id;
};

// Keys in random order, over terms that are spread over the whole order of terms.
std::vector<bench_key> random_keys(std::size_t count, std::size_t terms, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::vector<bench_key> keys(count);
  for (bench_key &key : keys) {
    const std::uint64_t number = random() % terms;
    const std::uint64_t mixed = number * 0x9E3779B97F4A7C15;
    key.term = {static_cast<std::uint32_t>(mixed >> 32), static_cast<std::uint32_t>(mixed), 7};
    key.id = random() >> 1;
  }
  return keys;
}

void sort_keys(std::span<bench_key> keys) {
  std::sort(keys.begin(), keys.end(), [](const bench_key &a, const bench_key &b) {
    return zem_xtree_key_compare(a.term, a.id, b.term, b.id) < 0;
  });
}

std::size_t terms_for(const benchmark::State &state) {
  return tree_size / static_cast<std::size_t>(state.range(0));
}

void insert_all(tree &target, std::span<const bench_key> keys) {
  node *made = nullptr;
  for (const bench_key &key : keys)
    zem_xtree_node_set(target, key.term, key.id, made);
}

void count_items(benchmark::State &state, std::size_t items) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(items));
}

// A million keys into an empty tree in key order, as a data index and a replayed merge come.
void insert_sorted(benchmark::State &state) {
  auto keys = random_keys(tree_size, terms_for(state), /*seed=*/42);
  sort_keys(keys);
  for (auto _ : state) {
    tree target(units_a_block);
    insert_all(target, keys);
    benchmark::DoNotOptimize(target.count);
  }
  count_items(state, keys.size());
}
BENCHMARK(insert_sorted)->ArgName("run")->Arg(1)->Arg(64)->Unit(benchmark::kMillisecond);

// A million keys in no order: nothing is near the key before.
void insert_random(benchmark::State &state) {
  const auto keys = random_keys(tree_size, terms_for(state), /*seed=*/42);
  for (auto _ : state) {
    tree target(units_a_block);
    insert_all(target, keys);
    benchmark::DoNotOptimize(target.count);
  }
  count_items(state, keys.size());
}
BENCHMARK(insert_random)->ArgName("run")->Arg(1)->Arg(64)->Unit(benchmark::kMillisecond);

// How an empty pending batch fills, with its memory fresh from the kernel.
void insert_pending_batch(benchmark::State &state) {
  const auto keys = random_keys(batch_size, terms_for(state), /*seed=*/42);
  for (auto _ : state) {
    tree target(batch_size);
    insert_all(target, keys);
    benchmark::DoNotOptimize(target.count);
  }
  count_items(state, keys.size());
}
BENCHMARK(insert_pending_batch)->ArgName("run")->Arg(1)->Arg(64)->Unit(benchmark::kMicrosecond);

// The way into a log map: sorted batches into a tree of a million keys. With `newest` the ids are
// greater than any before, as those of documents numbered in turn are.
void insert_batches(benchmark::State &state) {
  constexpr std::size_t batches = 16;
  const auto base = random_keys(tree_size, terms_for(state), /*seed=*/42);
  auto added = random_keys(batches * batch_size, terms_for(state), /*seed=*/43);
  if (state.range(1) != 0) {
    std::uint64_t id = std::uint64_t{1} << 63;
    for (bench_key &key : added)
      key.id = ++id;
  }
  for (std::size_t i = 0; i < batches; ++i) {
    sort_keys(std::span(added).subspan(i * batch_size, batch_size));
  }
  for (auto _ : state) {
    state.PauseTiming();
    tree target(units_a_block);
    insert_all(target, base);
    state.ResumeTiming();
    insert_all(target, added);
    benchmark::DoNotOptimize(target.count);
    state.PauseTiming();
    zem_xtree_free_all(target);
    state.ResumeTiming();
  }
  count_items(state, added.size());
}
BENCHMARK(insert_batches)
    ->ArgNames({"run", "newest"})
    ->Args({1, 0})
    ->Args({64, 0})
    ->Args({64, 1})
    ->Unit(benchmark::kMillisecond);

// The first posting of a term, as a query begins.
void find_term(benchmark::State &state) {
  tree target(units_a_block);
  insert_all(target, random_keys(tree_size, terms_for(state), /*seed=*/42));
  const auto sought = random_keys(batch_size, terms_for(state), /*seed=*/43);
  for (auto _ : state) {
    for (const bench_key &key : sought) {
      benchmark::DoNotOptimize(zem_xtree_node_bfind(target, key.term, zem_id_first));
    }
  }
  count_items(state, sought.size());
}
BENCHMARK(find_term)->ArgName("run")->Arg(1)->Arg(64)->Unit(benchmark::kMillisecond);

// One posting by its key, as a delete looks for it.
void get_key(benchmark::State &state) {
  tree target(units_a_block);
  auto keys = random_keys(tree_size, terms_for(state), /*seed=*/42);
  insert_all(target, keys);
  std::shuffle(keys.begin(), keys.end(), std::mt19937_64(44));
  keys.resize(batch_size);
  for (auto _ : state) {
    for (const bench_key &key : keys) {
      benchmark::DoNotOptimize(zem_xtree_node_get(target, key.term, key.id));
    }
  }
  count_items(state, keys.size());
}
BENCHMARK(get_key)->ArgName("run")->Arg(1)->Arg(64)->Unit(benchmark::kMillisecond);

// The whole tree along `next`. `sorted` says in what order its keys arrived, and so how its nodes
// lie in memory.
void scan(benchmark::State &state) {
  auto keys = random_keys(tree_size, tree_size, /*seed=*/42);
  if (state.range(0) != 0) sort_keys(keys);
  tree target(units_a_block);
  insert_all(target, keys);
  for (auto _ : state) {
    std::uint64_t sum = 0;
    for (const node *at = zem_xtree_node_first(target); at != nullptr; at = at->next)
      sum += at->id;
    benchmark::DoNotOptimize(sum);
  }
  count_items(state, keys.size());
}
BENCHMARK(scan)->ArgName("sorted")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);

}  // namespace
