#include <algorithm>
#include <array>
#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <vector>

#include "base/var.h"

#include "tests/support/faulty_files.h"
#include "tests/support/shard_life.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class ShardQueryTest : public ShardTest {
 protected:
  using ids = std::vector<std::uint64_t>;

  zem_status query(const zem_shard_item &item, zem_found &found) const {
    const zem_read_guard locked(shard->lock);
    return zem_shard_query(*shard, item, found);
  }
  zem_status query(const zem_term &term, zem_found &found) const {
    return query({term, term}, found);
  }
  // As a query of one item gathers them.
  ids list_of(const zem_term &term) const {
    zem_var list;
    zem_found found{.list = &list, .counts = {}};
    EXPECT_GE(query(term, found), zem_ok);
    return list.values;
  }
  static std::map<std::uint64_t, std::uint64_t> counts_in(const zem_found &found) {
    std::map<std::uint64_t, std::uint64_t> counts;
    for (const zem_idmap_slot &slot : found.counts.slots) {
      if (slot.id != 0) counts[slot.id] = slot.count;
    }
    return counts;
  }
  // A merge that has begun and goes no further.
  void freeze() {
    ASSERT_EQ(begin(), zem_ok);
    cancel();
  }
};

TEST_F(ShardQueryTest, APostingIsFoundOnceWhereverItLies) {
  ASSERT_GE(insert(std::vector<posting>{{cat, 1}, {cat, 4}, {cat, 6}, {cat, 7}}), zem_ok);
  merge();
  ASSERT_GE(insert(std::vector<posting>{{cat, 2}, {cat, 4}, {cat, 5}, {cat, 7}}), zem_ok);
  freeze();
  ASSERT_GE(insert(std::vector<posting>{{cat, 3}, {cat, 5}, {cat, 6}, {cat, 7}}), zem_ok);
  EXPECT_THAT(list_of(cat), ElementsAre(7, 6, 5, 4, 3, 2, 1));
}

TEST_F(ShardQueryTest, ATermIsNotMistakenForItsNeighbours) {
  ASSERT_GE(insert(std::vector<posting>{{ant, 1}, {dog, 3}}), zem_ok);
  merge();
  ASSERT_GE(insert(std::vector<posting>{{ant, 2}, {dog, 4}}), zem_ok);
  EXPECT_THAT(list_of(cat), IsEmpty());
  EXPECT_THAT(list_of(ant), ElementsAre(2, 1));
  EXPECT_THAT(list_of({9, 0, 0}), IsEmpty());
}

TEST_F(ShardQueryTest, ADeletedPostingShowsUntilAMerge) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_GE(remove(cat, 1), zem_ok);
  EXPECT_THAT(list_of(cat), ElementsAre(1));
  freeze();
  EXPECT_THAT(list_of(cat), ElementsAre(1));
  merge();
  EXPECT_THAT(list_of(cat), IsEmpty());
}

TEST_F(ShardQueryTest, IdZeroIsNeverReported) {
  ASSERT_GE(insert(std::vector<posting>{{cat, 2}, {cat, 0}, {dog, 0}}), zem_ok);
  EXPECT_THAT(list_of(cat), ElementsAre(2));
  merge();
  EXPECT_THAT(list_of(cat), ElementsAre(2));
  EXPECT_THAT(list_of(dog), IsEmpty());
  zem_found found;
  ASSERT_GE(query(cat, found), zem_ok);
  EXPECT_THAT(counts_in(found), ElementsAre(Pair(2, 1)));
}

TEST_F(ShardQueryTest, TheGreatestIdIsFound) {
  ASSERT_GE(insert(cat, zem_id_first), zem_ok);
  EXPECT_THAT(list_of(cat), ElementsAre(zem_id_first));
  merge();
  EXPECT_THAT(list_of(cat), ElementsAre(zem_id_first));
}

TEST_F(ShardQueryTest, ItemsAddUp) {
  ASSERT_GE(insert(std::vector<posting>{{cat, 1}, {cat, 2}, {dog, 2}}), zem_ok);
  zem_found found;
  for (const zem_term &term : {cat, dog, cat})
    ASSERT_GE(query(term, found), zem_ok);
  EXPECT_THAT(counts_in(found), ElementsAre(Pair(1, 2), Pair(2, 3)));
}

// The item's own term counts only inside its range, which a span that wraps around can deny.
TEST_F(ShardQueryTest, ARangeThatWrapsHoldsNothing) {
  const zem_term term{5, 6, 7};
  ASSERT_GE(insert(term, 1), zem_ok);
  const auto found_with = [&](const zem_term &high) {
    zem_found found;
    EXPECT_GE(query({term, high}, found), zem_ok);
    return found.counts.used;
  };
  EXPECT_EQ(found_with({5, 6, 7}), 1);
  EXPECT_EQ(found_with({9, 9, 9}), 1);
  EXPECT_EQ(found_with({4, 9, 9}), 0);
  EXPECT_EQ(found_with({9, 5, 9}), 0);
  EXPECT_EQ(found_with({9, 9, 6}), 0);
}

// Terms of several blocks, with log postings before, between, in and behind their runs.
TEST_F(ShardQueryTest, LongTermsComeOutAsAModelHasThem) {
  constexpr std::uint64_t seed = 5;
  std::mt19937_64 random(seed);
  std::map<zem_term, std::set<std::uint64_t, std::greater<>>> all;
  const auto add_some = [&](std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const zem_term term{static_cast<std::uint32_t>(random() % 3), 0, 0};
      const std::uint64_t id = 1 + random() % 100'000;
      ASSERT_GE(insert(term, id), zem_ok);
      all[term].insert(id);
    }
  };
  add_some(40'000);
  merge();
  add_some(300);
  freeze();
  add_some(3000);
  for (const auto &[term, expected] : all) {
    EXPECT_EQ(list_of(term), ids(expected.begin(), expected.end())) << seed;
    zem_found found;
    ASSERT_GE(query(term, found), zem_ok);
    ASSERT_GE(query(term, found), zem_ok);
    EXPECT_EQ(found.counts.used, expected.size());
    for (const auto &[id, count] : counts_in(found))
      EXPECT_EQ(count, 2) << id;
  }
}

TEST_F(ShardQueryTest, WhatWasFoundBeforeAFailureStays) {
  ASSERT_GE(insert_falling(cat, 20'000, 20'000), zem_ok);
  merge();
  ASSERT_GE(insert(cat, 30'000), zem_ok);
  zem_var list;
  zem_found found{.list = &list, .counts = {}};
  {
    faulty_files faults;
    faults.fail_once(2, EIO, {file_op::read});
    EXPECT_EQ(query(cat, found), -EIO);
  }
  ASSERT_GT(list.values.size(), 1);
  EXPECT_LT(list.values.size(), 20'001);
  EXPECT_EQ(list.values.front(), 30'000);

  constexpr std::array wrong{std::byte{0x55}, std::byte{0x66}};
  ASSERT_EQ(zem_file_write(shard->dat.file, 3 * zem_block_size + 100, wrong), zem_ok);
  EXPECT_EQ(query(cat, found), ZEM_SDB_E_CHECKSUM);
}

}  // namespace
