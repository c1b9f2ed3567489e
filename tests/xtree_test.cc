#include "src/xtree.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <new>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using tree = zem_xtree<std::uint32_t>;
using node = zem_xnode<std::uint32_t>;

static_assert(sizeof(node) == 48);

constexpr zem_term ant{3, 9, 9};
constexpr zem_term cat{5, 0, 0};
constexpr zem_term dog{6, 0, 0};
constexpr zem_term eel{6, 0, 1};
constexpr zem_term last_term{~0U, ~0U, ~0U};

struct key {
  zem_term term;
  std::uint64_t id;

  friend bool operator==(const key &, const key &) = default;
  friend std::ostream &operator<<(std::ostream &out, const key &k) {
    return out << k.term[0] << ',' << k.term[1] << ',' << k.term[2] << ':' << k.id;
  }
};

// The order of keys, written down a second time.
struct key_order {
  bool operator()(const key &a, const key &b) const {
    return a.term != b.term ? a.term < b.term : a.id > b.id;
  }
};

key key_of(const node &at) { return {at.term, at.id}; }

std::vector<key> keys_of(const tree &target) {
  std::vector<key> found;
  for (const node *at = zem_xtree_node_first(target); at != nullptr; at = at->next) {
    found.push_back(key_of(*at));
  }
  return found;
}

// Blocks of few records, so that every pool comes to the end of a block again and again.
constexpr std::size_t few_units = 16;

class XtreeTest : public ::testing::Test {
 protected:
  node *set(tree &target, const key &k, bool expect_new = true) {
    node *found = nullptr;
    EXPECT_EQ(zem_xtree_node_set(target, k.term, k.id, found), expect_new) << k;
    EXPECT_TRUE(zem_xtree_valid(target)) << k;
    return found;
  }
  node *insert(const zem_term &term, std::uint64_t id) { return set(numbers, {term, id}); }
  node *get(const zem_term &term, std::uint64_t id) {
    return zem_xtree_node_get(numbers, term, id);
  }
  // `count` keys of one term in key order, from id `from` down.
  void insert_run(tree &target, const zem_term &term, std::uint64_t from, std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i)
      set(target, {term, from - i});
  }

  tree numbers{few_units};
};

TEST_F(XtreeTest, AnEmptyTreeFindsNothing) {
  bool past_end = false;
  EXPECT_EQ(zem_xtree_node_first(numbers), nullptr);
  EXPECT_EQ(zem_xtree_node_last(numbers), nullptr);
  EXPECT_EQ(get(cat, 1), nullptr);
  EXPECT_EQ(zem_xtree_node_bfind(numbers, cat, zem_id_first, &past_end), nullptr);
  EXPECT_FALSE(past_end);
  EXPECT_TRUE(zem_xtree_valid(numbers));
  EXPECT_EQ(zem_xtree_msize(numbers), 0U);
}

TEST_F(XtreeTest, TermsRunUpAndIdsRunDown) {
  for (const std::uint64_t id : {5U, 9U, 7U})
    insert(dog, id);
  insert(eel, 8);
  insert(ant, 1);
  insert(cat, 6);

  EXPECT_THAT(keys_of(numbers), ElementsAre(key{ant, 1}, key{cat, 6}, key{dog, 9}, key{dog, 7},
                                            key{dog, 5}, key{eel, 8}));
  EXPECT_EQ(numbers.count, 6);
  EXPECT_EQ(key_of(*zem_xtree_node_first(numbers)), (key{ant, 1}));
  EXPECT_EQ(key_of(*zem_xtree_node_last(numbers)), (key{eel, 8}));
}

TEST_F(XtreeTest, TheFirstNodeOfEachTermIsMarked) {
  node *const seven = insert(dog, 7);
  EXPECT_EQ(seven->first, 1);
  EXPECT_EQ(insert(dog, 5)->first, 0);
  EXPECT_EQ(seven->first, 1);

  node *const nine = insert(dog, 9);
  EXPECT_EQ(nine->first, 1);
  EXPECT_EQ(seven->first, 0);
  EXPECT_EQ(insert(dog, 8)->first, 0);

  EXPECT_EQ(insert(cat, 1)->first, 1);
  EXPECT_EQ(insert(eel, 1)->first, 1);
  EXPECT_EQ(nine->first, 1);
}

TEST_F(XtreeTest, APresentKeyIsFoundAndNotDoubled) {
  node *const made = insert(cat, 7);
  EXPECT_EQ(made->value, nullptr);
  made->value = zem_pool_new(numbers.value_pool);

  node *const found = set(numbers, {cat, 7}, /*expect_new=*/false);
  EXPECT_EQ(found, made);
  EXPECT_NE(found->value, nullptr);
  EXPECT_EQ(numbers.count, 1);
}

TEST_F(XtreeTest, ASearchGivesTheFirstNodeNotBefore) {
  for (const std::uint64_t id : {5U, 9U})
    insert(cat, id);
  insert(eel, 3);
  const auto sought = [&](const zem_term &term, std::uint64_t id) {
    bool past_end = false;
    const node *found = zem_xtree_node_bfind(numbers, term, id, &past_end);
    return std::pair(key_of(*found), past_end);
  };
  EXPECT_EQ(sought(cat, zem_id_first), std::pair(key{cat, 9}, false));
  EXPECT_EQ(sought(cat, 9), std::pair(key{cat, 9}, false));
  EXPECT_EQ(sought(cat, 8), std::pair(key{cat, 5}, false));
  EXPECT_EQ(sought(cat, 4), std::pair(key{eel, 3}, false));
  EXPECT_EQ(sought(dog, zem_id_first), std::pair(key{eel, 3}, false));
  EXPECT_EQ(sought(eel, 3), std::pair(key{eel, 3}, false));
  EXPECT_EQ(sought(eel, 2), std::pair(key{eel, 3}, true));
  EXPECT_EQ(sought(last_term, zem_id_first), std::pair(key{eel, 3}, true));

  bool past_end = true;
  zem_xtree_node_bfind(numbers, cat, 9, &past_end);
  EXPECT_TRUE(past_end);  // only ever set
}

// The ends of both orders; all ones is also what a search for a whole term says.
TEST_F(XtreeTest, ExtremeKeysAreKeysLikeOthers) {
  for (const zem_term &term : {zem_term{0, 0, 0}, last_term, zem_term{~0U, ~0U, 0}}) {
    for (const std::uint64_t id : {std::uint64_t{0}, zem_id_first, zem_id_first - 1}) {
      node *const made = insert(term, id);
      EXPECT_EQ(set(numbers, {term, id}, /*expect_new=*/false), made);
      EXPECT_EQ(get(term, id), made);
    }
    EXPECT_EQ(zem_xtree_node_bfind(numbers, term, zem_id_first)->id, zem_id_first);
  }
  EXPECT_EQ(key_of(*zem_xtree_node_last(numbers)), (key{last_term, 0}));
  // A greatest key that then is no longer at the end of its entry's room.
  insert_run(numbers, last_term, 1000, 200);
  EXPECT_EQ(key_of(*zem_xtree_node_last(numbers)), (key{last_term, 0}));
}

TEST_F(XtreeTest, TheThirtySecondNodeSplitsAnEntryInHalves) {
  insert_run(numbers, cat, 100, 31);
  EXPECT_EQ(numbers.root->level, 0U);

  insert(dog, 1);

  ASSERT_EQ(numbers.root->level, 1U);
  ASSERT_EQ(numbers.root->items.count, 2U);
  EXPECT_EQ(numbers.root->items.items[0].entry->items.count, 16U);
  EXPECT_EQ(numbers.root->items.items[1].entry->items.count, 16U);
}

TEST_F(XtreeTest, FreeingGivesAllMemoryBackAndTheTreeGoesOn) {
  insert_run(numbers, cat, 1000, 200);
  zem_pool_new(numbers.value_pool);
  EXPECT_GE(zem_xtree_msize(numbers), 200 * sizeof(node));

  zem_xtree_free_all(numbers);

  EXPECT_TRUE(zem_xtree_valid(numbers));
  EXPECT_EQ(numbers.count, 0);
  EXPECT_THAT(keys_of(numbers), IsEmpty());
  EXPECT_EQ(zem_xtree_msize(numbers), 0U);
  insert_run(numbers, dog, 1000, 100);
  EXPECT_EQ(numbers.count, 100);
}

TEST_F(XtreeTest, SwappedTreesHoldEachOthersNodesAndGrowOn) {
  tree other(2 * few_units);
  insert_run(numbers, cat, 1000, 600);
  insert_run(other, dog, 1000, 3);
  const std::vector<key> cats = keys_of(numbers);
  const std::vector<key> dogs = keys_of(other);
  const node *const a_cat = get(cat, 700);

  zem_xtree_swap(numbers, other);

  EXPECT_EQ(keys_of(numbers), dogs);
  EXPECT_EQ(keys_of(other), cats);
  EXPECT_EQ(zem_xtree_node_get(other, cat, 700), a_cat);
  insert_run(numbers, cat, 1000, 600);
  insert_run(other, dog, 1000, 600);
  EXPECT_EQ(numbers.count, 603);
  EXPECT_EQ(other.count, 1200);

  tree empty(few_units);
  zem_xtree_swap(other, empty);
  EXPECT_TRUE(zem_xtree_valid(other));
  EXPECT_EQ(empty.count, 1200);
}

// For as long as this stands, the pool cannot have another block.
template <class T>
class pool_exhausted {
 public:
  explicit pool_exhausted(zem_pool<T> &pool) : pool_(pool), units_(pool.units) {
    pool_.units = std::numeric_limits<std::size_t>::max() / 4 / sizeof(T);
  }
  ~pool_exhausted() { pool_.units = units_; }
  pool_exhausted(const pool_exhausted &) = delete;
  pool_exhausted &operator=(const pool_exhausted &) = delete;

 private:
  zem_pool<T> &pool_;
  std::size_t units_;
};

// With one record to a block every node and every entry needs memory. Each insertion fails for want
// of it, first of entries if it splits any, then of a node.
TEST_F(XtreeTest, AnInsertionWithoutMemoryChangesNothing) {
  tree target(1);
  std::mt19937_64 random(42);
  // Sorted keys first: they leave full entries above each other, and chains of splits.
  for (std::uint64_t i = 0; i < 1200; ++i) {
    const key k{cat, i < 800 ? 100'000 - i : 200'000 + random() % 100'000'000};
    const std::vector<key> before = keys_of(target);
    node *made = nullptr;
    const auto expect_failure = [&] {
      const pool_exhausted no_nodes(target.node_pool);
      ASSERT_THROW(zem_xtree_node_set(target, k.term, k.id, made), std::bad_alloc);
      ASSERT_TRUE(zem_xtree_valid(target)) << "insertion " << i;
      ASSERT_EQ(keys_of(target), before) << "insertion " << i;
    };
    {
      const pool_exhausted no_entries(target.entry_pool);
      ASSERT_NO_FATAL_FAILURE(expect_failure());
    }
    ASSERT_NO_FATAL_FAILURE(expect_failure());
    ASSERT_NE(set(target, k), nullptr);
    ASSERT_EQ(target.entry_pool.in_use, target.entry_pool.blocks.size()) << "reserved too many";
  }
  EXPECT_EQ(target.root->level, 2U);
}

// How a test draws its keys.
struct workload {
  const char *name;
  std::uint32_t terms;
  std::uint64_t ids;
  std::size_t batch;  // keys that come sorted, one after the other
  bool descending;    // sorted the other way round

  friend std::ostream &operator<<(std::ostream &out, const workload &load) {
    return out << load.name;
  }
};

class XtreeRandomTest : public ::testing::TestWithParam<workload> {
 protected:
  static constexpr std::uint64_t seed = 42;

  // Terms that differ in one word only, in any of the three, and extreme ones.
  zem_term draw_term() {
    const auto number = static_cast<std::uint32_t>(random_() % GetParam().terms);
    if (number % 50 == 0) return number % 100 == 0 ? zem_term{} : last_term;
    zem_term term{7, 7, 7};
    term.at(number % 3) = number / 3;
    return term;
  }
  std::vector<key> draw_batch() {
    std::vector<key> batch;
    for (std::size_t i = 0; i < GetParam().batch; ++i) {
      const std::uint64_t id = random_() % GetParam().ids;
      batch.push_back({draw_term(), id == 0 ? zem_id_first : id});
    }
    std::sort(batch.begin(), batch.end(), key_order());
    if (GetParam().descending) std::reverse(batch.begin(), batch.end());
    return batch;
  }
  void insert_batch() {
    for (const key &k : draw_batch()) {
      node *found = nullptr;
      const bool is_new = zem_xtree_node_set(target_, k.term, k.id, found);
      ASSERT_EQ(is_new, model_.try_emplace(k, found).second) << k;
      ASSERT_EQ(found, model_.at(k)) << k;  // nodes never move
    }
  }
  void search(const key &k) {
    const auto exact = model_.find(k);
    ASSERT_EQ(zem_xtree_node_get(target_, k.term, k.id),
              exact == model_.end() ? nullptr : exact->second)
        << k;
    const auto bound = model_.lower_bound(k);
    bool past_end = false;
    const node *found = zem_xtree_node_bfind(target_, k.term, k.id, &past_end);
    ASSERT_EQ(past_end, bound == model_.end()) << k;
    ASSERT_EQ(found, past_end ? std::prev(bound)->second : bound->second) << k;
  }
  void search_around() {
    for (int i = 0; i < 20; ++i) {
      ASSERT_NO_FATAL_FAILURE(search({draw_term(), random_() % GetParam().ids}));
      ASSERT_NO_FATAL_FAILURE(search({draw_term(), zem_id_first}));
    }
  }
  // Runs until the tree holds `size` keys, looking at everything after each batch.
  void grow_to(std::size_t size) {
    while (model_.size() < size) {
      ASSERT_NO_FATAL_FAILURE(insert_batch());
      ASSERT_NO_FATAL_FAILURE(search_around());
      ASSERT_TRUE(zem_xtree_valid(target_)) << "at " << model_.size() << " keys, seed " << seed;
    }
    std::vector<key> expected;
    for (const auto &entry : model_)
      expected.push_back(entry.first);
    ASSERT_EQ(keys_of(target_), expected);
  }

 private:
  std::mt19937_64 random_{seed};
  tree target_{few_units};
  std::map<key, node *, key_order> model_;
};

TEST_P(XtreeRandomTest, BehavesAsAMapDoes) {
  // A look at everything after each key, then a tree of four levels.
  grow_to(GetParam().batch == 1 ? 1500 : 20'000);
}

INSTANTIATE_TEST_SUITE_P(
    Workloads, XtreeRandomTest,
    ::testing::Values(workload{"key_by_key", 300, 50, 1, false},
                      workload{"one_term_key_by_key", 1, ~std::uint64_t{0}, 1, false},
                      workload{"sorted_batches", 30'000, 40, 500, false},
                      workload{"batches_of_long_terms", 60, ~std::uint64_t{0}, 500, false},
                      workload{"all_ascending", 100'000, 1000, 20'000, false},
                      workload{"all_descending", 100'000, 1000, 20'000, true},
                      workload{"batches_running_down", 30'000, 40, 100, true}),
    [](const auto &entry) { return entry.param.name; });

// The array alone, where an entry of a tree would hardly get it: keys that differ in the last field
// only, and an array with no slot to spare.
TEST(Xarray, FindsEveryPlaceAtEveryCount) {
  const auto key_at = [](std::uint32_t place) {
    return zem_xkey{.head = place / 16, .id = 9 - place % 4, .tail = place / 4};
  };
  zem_xarray<std::uint32_t> array;
  for (std::uint32_t count = 0; count < zem_xarray_capacity; ++count) {
    for (std::uint32_t place = 0; place < count; ++place) {
      EXPECT_EQ(zem_xarray_lower_bound(array, key_at(2 * place + 1)), place);
      EXPECT_EQ(zem_xarray_lower_bound(array, key_at(2 * place)), place);
    }
    EXPECT_EQ(zem_xarray_lower_bound(array, key_at(2 * count)), count);
    zem_xarray_insert_at(array, count, key_at(2 * count + 1), count);
  }

  zem_xarray<std::uint32_t> upper;
  zem_xarray_move_upper(array, 16, upper);
  EXPECT_EQ(zem_xarray_lower_bound(array, key_at(63)), 16U);
  EXPECT_EQ(zem_xarray_lower_bound(upper, key_at(0)), 0U);
  EXPECT_EQ(zem_xarray_lower_bound(upper, key_at(63)), 15U);
}

}  // namespace
