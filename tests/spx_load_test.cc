#include "src/spx.h"

#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

#include "tests/support/data_file.h"
#include "tests/support/faulty_files.h"

namespace format = zem_spx_format;

namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

constexpr zem_status bad_checksum{ZEM_SDB_E_CHECKSUM};
constexpr zem_status bad_kind{ZEM_SDB_E_KIND};

// Three data blocks of one term each, and whole blocks of zeros behind them.
class SpxLoadTest : public DataFileTest {
 protected:
  SpxLoadTest() {
    start_file();
    insert_falling(cat, 50'000, format::postings_max);
    insert_falling(dog, 50'000, format::postings_max);
    insert_falling(emu, 50'000, 100);
    finish();
    all = postings();
  }
  std::vector<data_posting> without(const zem_term &term) const {
    std::vector<data_posting> kept;
    for (const data_posting &posting : all)
      if (posting.term != term) kept.push_back(posting);
    return kept;
  }
  std::vector<data_posting> all;
};

TEST_F(SpxLoadTest, DamagedHeadIsRebuiltFromTheDataBlocks) {
  corrupt(0);

  EXPECT_EQ(reopen(), bad_checksum);

  EXPECT_EQ(postings(), all);
  EXPECT_EQ(spx->blk_num, 3U);
  EXPECT_EQ(spx->key_num, 3U);
  EXPECT_EQ(spx->doc_num, all.size());
  EXPECT_EQ(zem_mkey_compare(mkey, emu, 50'000 - 99), 0);
  EXPECT_FALSE(spx->damaged);
  EXPECT_THAT(log, ElementsAre(AllOf(HasSubstr(spx->file.name), HasSubstr("block 0"))));
}

TEST_F(SpxLoadTest, HeadOfAnotherKindIsRebuilt) {
  forge(0, [](std::byte *head) { head[format::kind_at] = format::kind_data; });
  EXPECT_EQ(reopen(), bad_kind);
  EXPECT_EQ(postings(), all);
  EXPECT_FALSE(spx->damaged);
}

TEST_F(SpxLoadTest, ZeroHeadOfALongerFileIsRebuilt) {
  erase(0);
  EXPECT_EQ(reopen(), bad_checksum);
  EXPECT_EQ(postings(), all);
  EXPECT_FALSE(spx->damaged);
}

TEST_F(SpxLoadTest, TornHeadOfAnEmptyFileIsDamage) {
  start_file();
  std::vector<std::byte> torn(zem_block_size);
  torn[5000] = std::byte{1};
  write_block(0, torn);
  EXPECT_EQ(reopen(), bad_checksum);
  EXPECT_EQ(spx->tree.count, 0);
  EXPECT_FALSE(spx->damaged);
}

// Right checksums, wrong content: the three entries lie at 16, 42 and 68, each with a group head.
TEST_F(SpxLoadTest, NonsenseInTheHeadIsRebuilt) {
  constexpr std::size_t n_at = format::head_data_blocks_at;
  constexpr std::size_t next_at = format::head_next_at;
  constexpr std::size_t count_at = format::head_groups_at + format::term_size;
  constexpr std::size_t entry_at = format::head_groups_at + format::group_head_size;
  constexpr std::size_t blk_no_at = entry_at + format::id_size;
  const auto set = [](std::size_t at, unsigned value) {
    return [=](std::byte *head) { head[at] = static_cast<std::byte>(value); };
  };
  const std::vector<std::pair<const char *, std::function<void(std::byte *)>>> cases = {
      {"N too small", set(n_at, 2)},
      {"N too large", set(n_at, 4)},
      {"N beyond the file", set(n_at + 2, 1)},
      {"N of all ones", [](std::byte *head) { zem_stream_set_dword(head + n_at, ~0U); }},
      {"an entry less", set(format::entry_count_at, 2)},
      {"an entry more", set(format::entry_count_at, 4)},
      {"entries beyond the block", set(format::entry_count_at + 2, 255)},
      {"chained far beyond the file", set(next_at + 3, 128)},
      {"chained to a data block", set(next_at, 2)},
      {"chained to a zero block", set(next_at, 4)},
      {"empty group", set(count_at, 0)},
      {"group longer than the entries", set(count_at, 9)},
      {"keys out of order", set(format::head_groups_at, 3)},
      {"term twice without continuing",
       [](std::byte *head) { std::memcpy(head + 43, head + 16, format::term_size); }},
      {"block 0", set(blk_no_at, 0)},
      {"block 2 first", set(blk_no_at, 2)},
      {"endless number", [](std::byte *head) { std::memset(head + blk_no_at, 0xff, 12); }},
      {"no group", set(blk_no_at + 1, 0)},
      {"more groups than postings", [](std::byte *head) { head[blk_no_at + 2] = std::byte{0}; }},
      {"first block continues", set(blk_no_at + 4, 1)},
      {"cont neither 0 nor 1", set(blk_no_at + 4, 2)},
  };
  const std::vector<std::byte> good = read_block(0);
  for (const auto &[name, change] : cases) {
    SCOPED_TRACE(name);
    write_block(0, good);
    forge(0, change);
    ASSERT_NE(read_block(0), good);
    EXPECT_THAT(reopen(), AnyOf(bad_checksum, bad_kind));
    EXPECT_EQ(postings(), all);
    EXPECT_EQ(walked, zem_ok);
    EXPECT_FALSE(log.empty());
  }
}

TEST_F(SpxLoadTest, RebuildLeavesOutADamagedDataBlockAndSaysSo) {
  corrupt(0);
  corrupt(2);

  EXPECT_EQ(reopen(), bad_checksum);

  EXPECT_EQ(postings(), without(dog));
  EXPECT_TRUE(spx->damaged);
  ASSERT_THAT(log, SizeIs(2));
  EXPECT_THAT(log[1], AllOf(HasSubstr(spx->file.name), HasSubstr("block 2")));
}

TEST_F(SpxLoadTest, HoleBetweenDataBlocksIsALoss) {
  corrupt(0);
  erase(2);
  EXPECT_EQ(reopen(), bad_checksum);
  EXPECT_EQ(postings(), without(dog));
  EXPECT_TRUE(spx->damaged);
}

TEST_F(SpxLoadTest, GoodHeadTellsThatTheLastBlockIsMissing) {
  forge(0, [](std::byte *head) { head[format::entry_count_at] = std::byte{2}; });
  erase(3);
  EXPECT_EQ(reopen(), bad_checksum);
  EXPECT_EQ(postings(), without(emu));
  EXPECT_TRUE(spx->damaged);
}

TEST_F(SpxLoadTest, CutFileIsALoss) {
  ASSERT_EQ(zem_file_truncate(spx->file, 3 * zem_block_size + 500), zem_ok);
  EXPECT_EQ(reopen(), bad_checksum);
  EXPECT_EQ(postings(), without(emu));
  EXPECT_TRUE(spx->damaged);
}

TEST_F(SpxLoadTest, DataBlocksOutOfOrderAreALoss) {
  const std::vector<std::byte> second = read_block(2);
  write_block(2, read_block(1));
  write_block(1, second);
  corrupt(0);
  EXPECT_EQ(reopen(), bad_checksum);
  EXPECT_TRUE(spx->damaged);
  EXPECT_EQ(postings(), without(cat));
}

TEST_F(SpxLoadTest, FailedReadIsNotTakenForDamage) {
  for (const bool damaged : {false, true}) {
    if (damaged) corrupt(0);
    for (std::uint64_t nth = 1; nth <= (damaged ? 2U : 1U); ++nth) {
      zem_spx fresh;
      fresh.file.name = spx->file.name;
      ASSERT_EQ(zem_spx_open(fresh, zem_file_mode::existing), zem_ok);
      faulty_files files;
      files.fail_once(nth, EIO, {file_op::read});
      zem_mkey key;
      EXPECT_EQ(zem_spx_load(fresh, key, err), zem_status{-EIO});
      EXPECT_EQ(fresh.tree.count, 0);
      EXPECT_EQ(fresh.doc_num, 0U);
      EXPECT_EQ(zem_mkey_compare(key, {0, 0, 0}, 0), 0);
      EXPECT_EQ(log.empty(), nth == 1);  // else the damage was met before
    }
  }
}

TEST_F(SpxLoadTest, KeyIsNotRaisedByADamagedIndex) {
  forge(0, [](std::byte *head) {
    std::memset(head + 68, 0xff, 4);  // the last entry's term: everything else is fine
    head[format::entry_count_at] = std::byte{200};
  });
  EXPECT_EQ(reopen(), bad_checksum);
  EXPECT_EQ(mkey.term, emu);
}

class SpxChainLoadTest : public DataFileTest {
 protected:
  SpxChainLoadTest() {
    start_file();
    for (std::uint32_t i = 1; i <= 2800; ++i) {
      insert({i, 0, 0}, i);
      EXPECT_EQ(zem_spx_commit(*spx, xblk), zem_ok);
    }
    finish();
  }
  static constexpr std::uint32_t chain = 2801;
};

TEST_F(SpxChainLoadTest, DamagedChainLosesNothing) {
  corrupt(chain);
  EXPECT_EQ(reopen(), bad_checksum);
  EXPECT_EQ(spx->doc_num, 2800U);
  EXPECT_FALSE(spx->damaged);
  EXPECT_THAT(log, ElementsAre(HasSubstr("block 2801")));

  erase(chain);
  EXPECT_EQ(reopen(), bad_checksum);
  EXPECT_EQ(spx->doc_num, 2800U);

  forge(chain, [](std::byte *block) {
    block[format::kind_at] = format::kind_index;  // chained to itself, without an entry
    zem_stream_set_dword(block + format::chain_next_at, chain);
  });
  EXPECT_EQ(reopen(), bad_checksum);
  EXPECT_EQ(spx->doc_num, 2800U);
  EXPECT_FALSE(spx->damaged);
}

TEST_F(SpxChainLoadTest, GoodChainBlockEndsTheDataOfAFileWithoutAHead) {
  corrupt(0);
  EXPECT_EQ(reopen(), bad_checksum);
  EXPECT_EQ(spx->doc_num, 2800U);
  EXPECT_EQ(spx->blk_num, 2800U);
  EXPECT_FALSE(spx->damaged);
}

// Blocks that pass their checksum and are nonsense, or are not what the index says.
TEST_F(SpxLoadTest, DataBlockIsVerifiedAgainstItselfAndTheIndex) {
  constexpr std::size_t count_at = format::groups_at + format::term_size;
  constexpr std::size_t ids_at = format::groups_at + format::group_head_size;
  const auto word = [](std::size_t at, unsigned value) {
    return [=](std::byte *block) {
      zem_stream_set_word(block + at, static_cast<std::uint16_t>(value));
    };
  };
  const std::vector<std::pair<const char *, std::function<void(std::byte *)>>> cases = {
      {"fewer postings", word(format::posting_count_at, format::postings_max - 1)},
      {"more postings", word(format::posting_count_at, format::postings_max + 1)},
      {"no group", word(format::group_count_at, 0)},
      {"two groups", word(format::group_count_at, 2)},
      {"groups beyond all bounds", word(format::group_count_at, 65'535)},
      {"empty group", word(count_at, 0)},
      {"group beyond the block", word(count_at, format::postings_max + 1)},
      {"ids out of order", word(ids_at, 1)},
      {"an id twice", [](std::byte *block) { std::memcpy(block + ids_at, block + ids_at + 8, 8); }},
      {"another last posting", word(ids_at + (format::postings_max - 1) * 8, 1)},
      {"another term", word(format::groups_at, 0)},
  };
  const std::vector<std::byte> good = read_block(1);
  zem_xiter it;
  for (const auto &[name, change] : cases) {
    SCOPED_TRACE(name);
    write_block(1, good);
    forge(1, change);
    ASSERT_EQ(reopen(), zem_ok);
    EXPECT_EQ(zem_spx_iter_first(*spx, it), bad_checksum);
    EXPECT_FALSE(zem_xiter_stands(it));
    EXPECT_EQ(zem_spx_iterd_first(*spx, it), bad_checksum);
    EXPECT_FALSE(zem_xiter_stands(it));
  }
  write_block(1, good);
  corrupt(1);
  EXPECT_EQ(zem_spx_iter_first(*spx, it), bad_checksum);
  write_block(1, good);
  forge(1, [](std::byte *block) { block[format::kind_at] = format::kind_index; });
  EXPECT_EQ(zem_spx_iter_first(*spx, it), bad_kind);
  erase(1);
  EXPECT_EQ(zem_spx_iter_first(*spx, it), bad_checksum);
  write_block(1, good);
  EXPECT_EQ(zem_spx_iter_first(*spx, it), zem_yes);
  EXPECT_EQ(postings(), all);
}

TEST_F(SpxLoadTest, WalkStopsAtTheDamageAndQueriesElsewhereGoOn) {
  corrupt(2);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(), SizeIs(format::postings_max));
  EXPECT_EQ(walked, bad_checksum);
  zem_xiter it;
  EXPECT_EQ(zem_spx_iter_find_x(*spx, it, dog, zem_id_first), bad_checksum);
  EXPECT_EQ(zem_spx_iter_find_x(*spx, it, emu, zem_id_first), zem_yes);
}

// Whatever bytes pass the checksums: no crash, no failed assertion, and what a walk gives is in
// order, so that it can be merged.
TEST_F(SpxLoadTest, RandomBytesNeverBreakAWalk) {
  start_file();
  zem_spx_shrink(*spx);
  for (std::uint32_t i = 0; i < 6; ++i) {
    for (std::uint32_t j = 0; j < 4; ++j)
      insert({i, j / 2, 0}, 1000 - 10 * j);
    ASSERT_EQ(zem_spx_commit(*spx, xblk), zem_ok);
  }
  finish();
  std::vector<std::vector<std::byte>> good;
  for (std::uint32_t blk_no = 0; blk_no < 8; ++blk_no)
    good.push_back(read_block(blk_no));

  constexpr unsigned seed = 20'240'607;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  int rebuilt = 0;
  for (int round = 0; round < 400; ++round) {
    for (int change = 0; change < 2; ++change) {
      forge(static_cast<std::uint32_t>(random() % 3), [&](std::byte *block) {
        block[4 + random() % 150] =
            static_cast<std::byte>(random() % (random() % 2 == 0 ? 4 : 256));
      });
    }
    if (reopen() < 0) ++rebuilt;
    const std::vector<data_posting> found = postings();
    for (std::size_t i = 1; i < found.size(); ++i)
      ASSERT_LT(found[i - 1], found[i]);
    ASSERT_TRUE(walked < 0 || found.size() == spx->doc_num);
    for (std::uint32_t blk_no = 0; blk_no < 3; ++blk_no)
      write_block(blk_no, good[blk_no]);
  }
  EXPECT_GT(rebuilt, 50);
}

}  // namespace
