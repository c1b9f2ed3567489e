#include "src/xtree.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <new>
#include <ostream>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace {

using tree = zem_xtree<std::uint32_t>;
using node = zem_xnode<std::uint32_t>;
// With the id's complement, so that pairs are in the order of keys.
using key = std::pair<zem_term, std::uint64_t>;

constexpr zem_term last_term{~0U, ~0U, ~0U};

// Blocks of few records, so that every pool comes to the end of a block again and again.
constexpr std::size_t few_units = 16;

std::vector<key> keys_of(const tree &target) {
  std::vector<key> found;
  for (const node *at = zem_xtree_node_first(target); at != nullptr; at = at->next)
    found.emplace_back(at->term, ~at->id);
  return found;
}

std::pair<node *, bool> set(tree &target, const key &k) {
  node *found = nullptr;
  const bool is_new = zem_xtree_node_set(target, k.first, ~k.second, found);
  return {found, is_new};
}

// Makes the pool unable to have another block.
template <class T>
void exhaust(zem_pool<T> &pool) {
  pool.units = std::numeric_limits<std::size_t>::max() / 4 / sizeof(T);
}

// With one record to a block every node and every entry needs memory. Each insertion fails for want
// of it, first of entries if it splits any, then of a node.
TEST(Xtree, AnInsertionWithoutMemoryChangesNothing) {
  tree target(1);
  std::mt19937_64 random(42);
  // Sorted keys first: they leave full entries above each other, and chains of splits.
  for (std::uint64_t i = 0; i < 1200; ++i) {
    const key k{last_term, i < 800 ? i : 200'000 + random() % 100'000'000};
    const std::vector<key> before = keys_of(target);
    for (const bool entries : {true, false}) {
      exhaust(target.node_pool);
      if (entries) exhaust(target.entry_pool);
      ASSERT_THROW(set(target, k), std::bad_alloc);
      target.node_pool.units = target.entry_pool.units = 1;
      ASSERT_TRUE(zem_xtree_valid(target)) << "insertion " << i;
      ASSERT_EQ(keys_of(target), before) << "insertion " << i;
    }
    ASSERT_TRUE(set(target, k).second);
    ASSERT_EQ(target.entry_pool.in_use, target.entry_pool.blocks.size()) << "reserved too many";
  }
  EXPECT_EQ(target.root->level, 2U);
}

struct workload {
  std::uint32_t terms;
  std::uint64_t ids;
  std::size_t batch;  // keys that come sorted, one after the other
  bool descending;    // sorted the other way round
};

void PrintTo(const workload &each, std::ostream *out) {
  *out << each.terms << " terms, " << (each.descending ? "falling" : "rising") << " batches of "
       << each.batch;
}

// As a run of changes goes into a log map.
zem_xtree_places<std::uint32_t> look_ahead(const tree &target, std::span<const key> keys) {
  std::vector<zem_xkey> flight;
  for (const key &k : keys.first(std::min(keys.size(), zem_xtree_flight)))
    flight.push_back(zem_xtree_key(k.first, ~k.second));
  return zem_xtree_prefetch(target, flight);
}

class XtreeRandomTest : public ::testing::TestWithParam<workload> {};

TEST_P(XtreeRandomTest, BehavesAsAMapDoes) {
  std::mt19937_64 random(42);
  tree target(few_units);
  std::map<key, node *> model;
  // Terms that differ in one word only, in any of the three, and extreme ones.
  const auto draw = [&]() -> key {
    const auto number = static_cast<std::uint32_t>(random() % GetParam().terms);
    zem_term term{7, 7, 7};
    term.at(number % 3) = number / 3;
    if (number % 50 == 0) term = number % 100 == 0 ? zem_term{} : last_term;
    return {term, random() % GetParam().ids};
  };
  // A look at everything after each key, or a tree of four levels.
  while (model.size() < (GetParam().batch == 1 ? 1500 : 20'000)) {
    std::vector<key> batch(GetParam().batch);
    std::generate(batch.begin(), batch.end(), draw);
    std::sort(batch.begin(), batch.end());
    if (GetParam().descending) std::reverse(batch.begin(), batch.end());
    const bool ahead = batch.size() > 1 && random() % 2 == 0;
    zem_xtree_places<std::uint32_t> places{};
    for (std::size_t i = 0; i < batch.size(); ++i) {
      const std::size_t turn = i % zem_xtree_flight;
      if (ahead && turn == 0) places = look_ahead(target, std::span(batch).subspan(i));
      zem_xtree_turn_to(target, places.at(turn));
      const key &k = batch[i];
      const auto [found, is_new] = set(target, k);
      ASSERT_EQ(is_new, model.try_emplace(k, found).second);
      ASSERT_EQ(found, model.at(k)) << "nodes never move";
    }
    for (int i = 0; i < 40; ++i) {
      const key k{draw().first, i % 2 == 0 ? random() % GetParam().ids : ~zem_id_first};
      const auto exact = model.find(k);
      ASSERT_EQ(zem_xtree_node_get(target, k.first, ~k.second),
                exact == model.end() ? nullptr : exact->second);
      const auto bound = model.lower_bound(k);
      bool past_end = false;
      const node *found = zem_xtree_node_bfind(target, k.first, ~k.second, &past_end);
      ASSERT_EQ(past_end, bound == model.end());
      ASSERT_EQ(found, past_end ? std::prev(bound)->second : bound->second);
    }
    ASSERT_TRUE(zem_xtree_valid(target)) << "at " << model.size() << " keys";
  }
  std::vector<key> expected;
  for (const auto &entry : model)
    expected.push_back(entry.first);
  ASSERT_EQ(keys_of(target), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Workloads, XtreeRandomTest,
    ::testing::Values(workload{300, 50, 1, false}, workload{1, ~std::uint64_t{0}, 1, false},
                      workload{30'000, 40, 500, false}, workload{60, ~std::uint64_t{0}, 500, false},
                      workload{100'000, 1000, 20'000, false}, workload{100'000, 1000, 20'000, true},
                      workload{30'000, 40, 100, true}),
    [](const auto &each) { return "workload" + std::to_string(each.index); });

}  // namespace
