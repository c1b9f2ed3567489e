#include <array>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <vector>

#include "tests/support/faulty_files.h"
#include "tests/support/shard_life.h"

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr zem_status failed{-EIO};

class ShardMergeTest : public ShardTest {
 protected:
  postings in_dat() const { return dat_postings(shard->dat); }
  postings in_log() const {
    postings found;
    apply_log(shard->log, found);
    return found;
  }
  // Which of the shard's five files there are.
  std::string files() const {
    std::string found;
    for (const char *suffix : zem_suffix::all) {
      if (exists(suffix)) found += std::string(suffix) + ' ';
    }
    return found;
  }
};

TEST_F(ShardMergeTest, TheDataFileTakesLogAndDataInKeyOrder) {
  ASSERT_GE(insert(std::vector<posting>{{ant, 9}, {cat, 5}, {cat, 3}, {dog, 1}}), zem_ok);
  merge();
  ASSERT_GE(insert(std::vector<posting>{{ant, 1}, {cat, 5}, {cat, 4}}), zem_ok);
  merge();
  EXPECT_THAT(in_dat(), ElementsAre(posting{ant, 9}, posting{ant, 1}, posting{cat, 5},
                                    posting{cat, 4}, posting{cat, 3}, posting{dog, 1}));
  EXPECT_EQ(shard->dat.doc_num, 6);
  EXPECT_EQ(shard->dat.key_num, 3);
  EXPECT_THAT(in_log(), IsEmpty());
  EXPECT_EQ(files(), ".log .dat ");
}

TEST_F(ShardMergeTest, ADeleteTakesThePostingOutOfTheDataFile) {
  ASSERT_GE(insert(std::vector<posting>{{ant, 2}, {ant, 1}, {cat, 1}}), zem_ok);
  merge();
  // A delete reaches only what the live log holds.
  ASSERT_GE(remove(ant, 2), zem_ok);
  merge();
  EXPECT_EQ(in_dat().size(), 3);
  ASSERT_GE(insert(std::vector<posting>{{ant, 2}, {dog, 1}}), zem_ok);
  ASSERT_GE(remove(std::vector<posting>{{ant, 2}, {dog, 1}}), zem_ok);
  merge();
  EXPECT_THAT(in_dat(), ElementsAre(posting{ant, 1}, posting{cat, 1}));
}

TEST_F(ShardMergeTest, IdsAtBothEndsAreIdsLikeAnyOther) {
  const std::vector<posting> ends = {{cat, zem_id_first}, {cat, zem_id_first - 1}, {cat, 0}};
  ASSERT_GE(insert(ends), zem_ok);
  merge();
  EXPECT_THAT(in_dat(), ElementsAre(ends[0], ends[1], ends[2]));
  ASSERT_GE(insert(ends), zem_ok);
  ASSERT_GE(remove(cat, zem_id_first), zem_ok);
  ASSERT_GE(remove(cat, 0), zem_ok);
  merge();
  EXPECT_THAT(in_dat(), ElementsAre(ends[1]));
}

TEST_F(ShardMergeTest, AMergeThatLeavesNothingWritesAnIndexHeadOnly) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_GE(remove(cat, 1), zem_ok);
  merge();
  EXPECT_EQ(shard->dat.blk_num, 1);
  EXPECT_EQ(shard->dat.doc_num, 0);
  EXPECT_EQ(shard->dat.file.size, zem_block_size);
  ASSERT_EQ(close(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(held(), IsEmpty());
}

TEST_F(ShardMergeTest, UpdatesDuringAMergeGoToTheNextLog) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_EQ(begin(), zem_ok);
  EXPECT_EQ(files(), ".log _m.log .dat _m.dat ");
  ASSERT_GE(insert(cat, 2), zem_ok);
  ASSERT_EQ(pass(), zem_ok);
  ASSERT_GE(insert(cat, 3), zem_ok);
  ASSERT_EQ(end(), zem_ok);
  EXPECT_EQ(files(), ".log _m.log .dat _t.dat ");
  ASSERT_GE(insert(cat, 4), zem_ok);
  ASSERT_EQ(release(), zem_ok);
  EXPECT_THAT(in_dat(), ElementsAre(posting{cat, 1}));
  EXPECT_THAT(in_log(), ElementsAre(posting{cat, 4}, posting{cat, 3}, posting{cat, 2}));
  EXPECT_EQ(shard->mkey.id, 1);
}

// A posting is deleted in the frozen log and comes back in the live one.
TEST_F(ShardMergeTest, TheLiveLogWinsOverTheFrozenOne) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_GE(remove(cat, 1), zem_ok);
  ASSERT_EQ(begin(), zem_ok);
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_EQ(pass(), zem_ok);
  ASSERT_EQ(end(), zem_ok);
  EXPECT_THAT(in_dat(), IsEmpty());
  EXPECT_THAT(held(), ElementsAre(posting{cat, 1}));
}

// The caches of the data index are limited before a merge and after it.
TEST_F(ShardMergeTest, EveryDataIndexKeepsTheLimitOfItsCache) {
  shard->dat.cache.limit = cfg.cache_key;
  shard->mdat.cache.limit = cfg.cache_key;
  for (int i = 0; i < 3; ++i) {
    ASSERT_GE(insert(cat, ++next_id), zem_ok);
    merge();
    EXPECT_EQ(shard->dat.cache.limit, cfg.cache_key) << i;
    EXPECT_EQ(shard->mdat.cache.limit, cfg.cache_key) << i;
  }
}

// ---- against a model

// Random updates and merges, some of them cancelled, over several blocks of log and data.
TEST_F(ShardMergeTest, ManyMergesKeepWhatAModelKeeps) {
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
                        random() % ids};
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

// ---- merges that fail

TEST_F(ShardMergeTest, ACancelledMergeIsTakenUpWithTheSameFrozenLog) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_EQ(begin(), zem_ok);
  ASSERT_EQ(pass(), zem_ok);
  cancel();
  EXPECT_EQ(files(), ".log _m.log .dat ");
  ASSERT_GE(insert(dog, 1), zem_ok);
  merge();
  EXPECT_THAT(in_dat(), ElementsAre(posting{cat, 1}));
  EXPECT_THAT(in_log(), ElementsAre(posting{dog, 1}));
  EXPECT_FALSE(frozen());
  merge();
  EXPECT_THAT(in_dat(), ElementsAre(posting{cat, 1}, posting{dog, 1}));
}

// Each file operation of a begin fails.
TEST_F(ShardMergeTest, AFailedBeginLeavesTheShardAsItWas) {
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
        EXPECT_FALSE(exists(zem_suffix::new_dat));
      }
      merge();
      EXPECT_EQ(held(), before);
      EXPECT_EQ(zem_shard_commit(*shard), zem_ok);
    }
  }
}

// The sync after the rename to "_m.log" fails, and so does the rename back.
TEST_F(ShardMergeTest, AFreezeThatCannotBeUndoneTouchesNoNameUntilTheNextOpen) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  {
    faulty_files faults;
    faults.fail_from(3, EIO, {file_op::open, file_op::rename});
    EXPECT_EQ(begin(), failed);
  }
  EXPECT_EQ(files(), "_m.log .dat ");
  EXPECT_THAT(lines.take(), ElementsAre(HasSubstr("could not be renamed back")));
  EXPECT_EQ(begin(), failed);
  EXPECT_EQ(files(), "_m.log .dat ");
  ASSERT_GE(insert(dog, 1), zem_ok);
  ASSERT_EQ(close(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(held(), ElementsAre(posting{cat, 1}, posting{dog, 1}));
  merge();
  EXPECT_THAT(in_dat(), ElementsAre(posting{cat, 1}, posting{dog, 1}));
}

TEST_F(ShardMergeTest, AFailedEndLeavesTheShardAsItWas) {
  ASSERT_GE(insert(ant, 1), zem_ok);
  merge();
  ASSERT_GE(insert(cat, 1), zem_ok);
  for (std::uint64_t nth = 1; nth <= 2; ++nth) {
    ASSERT_EQ(begin(), zem_ok);
    ASSERT_EQ(pass(), zem_ok);
    {
      faulty_files faults;
      faults.fail_once(nth, EIO, {file_op::rename});
      EXPECT_EQ(end(), failed);
    }
    EXPECT_EQ(files(), ".log _m.log .dat _m.dat ");
    cancel();
    EXPECT_EQ(shard->refused, zem_ok);
    EXPECT_THAT(in_dat(), ElementsAre(posting{ant, 1}));
    EXPECT_TRUE(frozen());
  }
  merge();
  EXPECT_THAT(in_dat(), ElementsAre(posting{ant, 1}, posting{cat, 1}));
}

// The second rename and its undoing fail: the data file lies under "_t.dat" alone.
TEST_F(ShardMergeTest, AnEndThatCannotBeUndoneTouchesNoNameUntilTheNextOpen) {
  ASSERT_GE(insert(ant, 1), zem_ok);
  merge();
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_EQ(begin(), zem_ok);
  ASSERT_EQ(pass(), zem_ok);
  {
    faulty_files faults;
    faults.fail_from(2, EIO, {file_op::rename});
    EXPECT_EQ(end(), failed);
    cancel();
  }
  EXPECT_EQ(files(), ".log _m.log _m.dat _t.dat ");
  EXPECT_EQ(begin(), failed);
  EXPECT_EQ(files(), ".log _m.log _m.dat _t.dat ");
  EXPECT_THAT(held(), ElementsAre(posting{ant, 1}, posting{cat, 1}));
  ASSERT_GE(insert(dog, 1), zem_ok);
  ASSERT_EQ(close(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(held(), ElementsAre(posting{ant, 1}, posting{cat, 1}, posting{dog, 1}));
  merge();
  EXPECT_EQ(files(), ".log .dat ");
}

// When nobody knows whether the renames are durable, nothing they made superfluous is removed.
TEST_F(ShardMergeTest, AnEndWhoseSyncFailsRemovesNothing) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_EQ(begin(), zem_ok);
  ASSERT_EQ(pass(), zem_ok);
  {
    faulty_files faults;
    faults.fail_once(1, EIO, {file_op::sync_dir});
    EXPECT_EQ(end(), zem_ok);
  }
  EXPECT_EQ(release(), failed);
  EXPECT_EQ(files(), ".log _m.log .dat _t.dat ");
  EXPECT_THAT(in_dat(), ElementsAre(posting{cat, 1}));
  ASSERT_GE(insert(dog, 1), zem_ok);
  merge();
  EXPECT_EQ(files(), ".log .dat ");
}

TEST_F(ShardMergeTest, ADamagedDataBlockStopsAMergeAndCostsNothing) {
  ASSERT_GE(insert_falling(cat, 20'000, 20'000), zem_ok);
  merge();
  ASSERT_GE(insert(dog, 1), zem_ok);
  std::array<std::byte, 1> byte{};
  ASSERT_EQ(zem_file_read(shard->dat.file, 2 * zem_block_size + 100, byte), zem_ok);
  byte[0] ^= std::byte{1};
  ASSERT_EQ(zem_file_write(shard->dat.file, 2 * zem_block_size + 100, byte), zem_ok);
  ASSERT_EQ(begin(), zem_ok);
  EXPECT_EQ(pass(), ZEM_SDB_E_CHECKSUM);
  EXPECT_THAT(lines.take(), ElementsAre(HasSubstr("sdb_1.dat, block 2: damaged")));
  cancel();
  EXPECT_EQ(files(), ".log _m.log .dat ");

  byte[0] ^= std::byte{1};
  ASSERT_EQ(zem_file_write(shard->dat.file, 2 * zem_block_size + 100, byte), zem_ok);
  merge();
  EXPECT_EQ(in_dat().size(), 20'001);
}

TEST_F(ShardMergeTest, AShardThatLostDataBlocksIsNotMerged) {
  ASSERT_GE(insert_falling(cat, 20'000, 20'000), zem_ok);
  merge();
  ASSERT_GE(insert(dog, 1), zem_ok);
  constexpr std::array wrong{std::byte{0x55}, std::byte{0x55}};
  ASSERT_EQ(zem_file_write(shard->dat.file, 100, wrong), zem_ok);                       // index
  ASSERT_EQ(zem_file_write(shard->dat.file, 2 * zem_block_size + 100, wrong), zem_ok);  // data
  ASSERT_EQ(close(), zem_ok);
  EXPECT_EQ(reopen(), ZEM_SDB_E_CHECKSUM);
  EXPECT_THAT(lines.take(), Each(HasSubstr("sdb_1.dat, block ")));
  EXPECT_EQ(begin(), ZEM_SDB_E_CHECKSUM);
  EXPECT_EQ(files(), ".log .dat ");
  EXPECT_GE(insert(dog, 0), zem_ok);
  EXPECT_EQ(zem_shard_commit(*shard), zem_ok);
  EXPECT_LT(held().size(), 20'002);
  EXPECT_GT(held().size(), 2);
}

}  // namespace
