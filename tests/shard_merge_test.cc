#include <algorithm>
#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "tests/support/faulty_files.h"
#include "tests/support/shard_life.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr zem_status failed{-EIO};

// Random updates and merges, some of them cancelled, over several blocks of log and data.
TEST_F(ShardTest, ManyMergesKeepWhatAModelKeeps) {
  for (const std::uint64_t seed : {1U, 2U, 3U}) {
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    // Few terms give long runs of the data file between two postings of the log, many short ones.
    const std::uint32_t terms = seed == 1 ? 3 : 4000;
    const std::uint64_t ids = seed == 1 ? 40'000 : 8;
    std::map<posting, bool> log;
    postings all = held();
    for (int round = 0; round < 8; ++round) {
      const std::size_t changes = round % 3 == 2 ? 20 : 9000;
      for (std::size_t i = 0; i < changes; ++i) {
        const posting p{{static_cast<std::uint32_t>(seed * 10'000 + random() % terms), 0, 0},
                        random() % 50 == 0 ? zem_id_first - random() % 2 : random() % ids};
        if (random() % 4 == 0) {
          ASSERT_GE(remove(p.term, p.id), zem_ok);
          if (log.contains(p)) {
            log[p] = false;
            all.erase(p);
          }
        } else {
          ASSERT_GE(insert(p.term, p.id), zem_ok);
          if (log.try_emplace(p, true).second) all.insert(p);
        }
      }
      const bool frozen_before = frozen();
      ASSERT_EQ(begin(), zem_ok);
      if (!frozen_before) log.clear();
      ASSERT_EQ(pass(), zem_ok);
      if (round % 4 == 1) {
        cancel();
      } else {
        ASSERT_EQ(end(), zem_ok);
        ASSERT_EQ(release(), zem_ok);
      }
      ASSERT_EQ(held(), all) << round;
    }
    ASSERT_EQ(close(), zem_ok);
    ASSERT_EQ(reopen(), zem_ok);
    EXPECT_EQ(held(), all);
  }
}

// Terms of several blocks, with log postings before, between, in and behind their runs.
TEST_F(ShardTest, LongTermsComeOutAsAModelHasThem) {
  std::mt19937_64 random(5);
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
  ASSERT_EQ(begin(), zem_ok);
  cancel();
  add_some(3000);
  for (const auto &[term, expected] : all) {
    zem_var list;
    zem_found found{.list = &list, .counts = {}};
    const zem_read_guard locked(shard->lock);
    ASSERT_GE(zem_shard_query(*shard, {term, term}, found), zem_ok);
    EXPECT_TRUE(
        std::equal(list.values.begin(), list.values.end(), expected.begin(), expected.end()));
  }
}

// Each file operation of a begin fails.
TEST_F(ShardTest, AFailedBeginLeavesTheShardAsItWas) {
  for (const bool over_leftovers : {false, true}) {
    bool faulty = true;
    for (std::uint64_t nth = 1; faulty; ++nth) {
      SCOPED_TRACE(nth);
      ASSERT_GE(insert(cat, ++next_id), zem_ok);
      if (over_leftovers) {
        ASSERT_EQ(begin(), zem_ok);
        ASSERT_EQ(pass(), zem_ok);
        ASSERT_EQ(end(), zem_ok);
        ASSERT_GE(insert(cat, ++next_id), zem_ok);
      }
      const postings before = held();
      zem_status st = zem_ok;
      {
        faulty_files faults;
        faults.fail_once(nth, EIO);
        st = begin();
        faulty = faults.has_failed();
      }
      EXPECT_EQ(shard->refused, zem_ok);
      EXPECT_EQ(held(), before);
      if (st >= 0) {
        EXPECT_TRUE(frozen());
        cancel();
      } else {
        EXPECT_EQ(st, failed);
        EXPECT_FALSE(frozen());
        EXPECT_EQ(files().find("_m.dat"), std::string::npos);
      }
      merge();
      EXPECT_EQ(held(), before);
      EXPECT_EQ(zem_shard_commit(*shard), zem_ok);
    }
  }
}

// The sync after the rename to "_m.log" fails, and so does the rename back.
TEST_F(ShardTest, AFreezeThatCannotBeUndoneTouchesNoNameUntilTheNextOpen) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  {
    faulty_files faults;
    faults.fail_from(3, EIO, {file_op::open, file_op::rename});
    EXPECT_EQ(begin(), failed);
  }
  EXPECT_THAT(lines.take(), ElementsAre(HasSubstr("could not be renamed back")));
  EXPECT_EQ(begin(), failed);
  EXPECT_EQ(files(), "_m.log .dat ");
  ASSERT_GE(insert(dog, 1), zem_ok);
  ASSERT_EQ(close(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  merge();
  EXPECT_THAT(held(), ElementsAre(posting{cat, 1}, posting{dog, 1}));
}

// Each rename of an end fails. At last the second one and its undoing fail: the data file lies under
// "_t.dat" alone, and no name is touched until the next open.
TEST_F(ShardTest, AFailedEndCostsNothing) {
  ASSERT_GE(insert(ant, 1), zem_ok);
  merge();
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_EQ(begin(), zem_ok);
  ASSERT_EQ(pass(), zem_ok);
  {
    // When nobody knows whether the renames are durable, nothing they made superfluous is removed.
    faulty_files faults;
    faults.fail_once(1, EIO, {file_op::sync_dir});
    EXPECT_EQ(end(), zem_ok);
  }
  EXPECT_EQ(release(), failed);
  EXPECT_EQ(files(), ".log _m.log .dat _t.dat ");
  ASSERT_GE(insert(cat, 0), zem_ok);
  for (std::uint64_t nth = 1; nth <= 3; ++nth) {
    ASSERT_EQ(begin(), zem_ok);
    ASSERT_EQ(pass(), zem_ok);
    faulty_files faults;
    if (nth < 3) faults.fail_once(nth, EIO, {file_op::rename});
    if (nth == 3) faults.fail_from(2, EIO, {file_op::rename});
    EXPECT_EQ(end(), failed);
    cancel();
    EXPECT_EQ(shard->refused, nth < 3 ? zem_ok : failed);
    EXPECT_EQ(files(), nth < 3 ? ".log _m.log .dat " : ".log _m.log _m.dat _t.dat ");
    EXPECT_THAT(held(), ElementsAre(posting{ant, 1}, posting{cat, 1}, posting{cat, 0}));
  }
  EXPECT_EQ(begin(), failed);
  EXPECT_EQ(files(), ".log _m.log _m.dat _t.dat ");
  ASSERT_GE(insert(dog, 1), zem_ok);
  ASSERT_EQ(close(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(held(),
              ElementsAre(posting{ant, 1}, posting{cat, 1}, posting{cat, 0}, posting{dog, 1}));
  merge();
  EXPECT_EQ(files(), ".log .dat ");
}

}  // namespace
