#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/faulty_files.h"
#include "tests/support/log_file.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace format = zem_spm_format;

class LogLoadTest : public LogTest {
 protected:
  static constexpr std::size_t sectors = zem_block_size / format::head_size;

  // Two full blocks and a third one that a commit wrote; postings of the first and of all.
  void write_three_blocks() {
    fill_until(8);
    first_block = postings();
    insert_falling(ant, 5000, 3);
    fill_until(8);
    insert_falling(cat, 5000, 3);
    ASSERT_EQ(commit(), zem_ok);
    ASSERT_EQ(spm->blk_no, 2U);
  }
  bool exists(const std::string &name) const { return std::filesystem::exists(name); }

  std::vector<log_posting> first_block;
};

TEST_F(LogLoadTest, FilesWithoutAWrittenBlockAreEmptyLogs) {
  for (const std::uintmax_t size : {0U, 100U, 65535U, 65536U, 8U << 20}) {
    ASSERT_EQ(zem_spm_close(*spm), zem_ok);
    std::filesystem::resize_file(spm->file.name, 0);
    std::filesystem::resize_file(spm->file.name, size);
    ASSERT_EQ(reopen(), zem_ok);
    EXPECT_THAT(postings(), IsEmpty());
    EXPECT_EQ(spm->blk_no, 0U);
    EXPECT_EQ(spm->blk_pos, 9U);
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_TRUE(zem_spm_dirty(*spm));
    EXPECT_EQ(commit(), zem_ok);
    EXPECT_FALSE(zem_spm_dirty(*spm));
  }
}

TEST_F(LogLoadTest, EveryPostingReturnsAndWritingGoesOnBehindThem) {
  write_three_blocks();
  remove(cat, 4999);
  ASSERT_EQ(commit(), zem_ok);
  const std::vector<log_posting> before = postings();
  const std::uint32_t pos = spm->blk_pos;
  const zem_mkey key = mkey;

  ASSERT_EQ(reopen(), zem_ok);

  EXPECT_EQ(postings(), before);
  EXPECT_EQ(spm->blk_no, 2U);
  EXPECT_EQ(spm->blk_pos, pos);
  EXPECT_EQ(zem_mkey_compare(key, mkey.term, mkey.id), 0);
  insert(dog, 1);
  EXPECT_EQ(spm->blk_pos, pos + format::group_head_size + format::posting_size);
  const std::vector<log_posting> after = postings();
  ASSERT_EQ(commit(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(postings(), after);
}

// A block was committed, grew and was being written again when the power went: its head is old, and
// each 512 bytes of its body are old or new. `begin` makes the old block, `grow` the new one.
class LogTornTest : public LogLoadTest {
 protected:
  template <class Begin, class Grow>
  void expect_cut_back(Begin &&begin, Grow &&grow) {
    begin();
    ASSERT_EQ(commit(), zem_ok);
    const std::vector<log_posting> committed = postings();
    const std::vector<std::byte> old_block = read_block(0);
    grow();
    ASSERT_EQ(commit(), zem_ok);
    const std::vector<std::byte> new_block = read_block(0);

    for (std::size_t edge = 1; edge <= sectors; ++edge) {
      const auto at = static_cast<std::ptrdiff_t>(edge * format::head_size);
      for (const bool new_first : {true, false}) {
        const auto &front = new_first ? new_block : old_block;
        const auto &back = new_first ? old_block : new_block;
        std::vector<std::byte> torn = back;
        std::copy(front.begin(), front.begin() + at, torn.begin());
        std::copy_n(old_block.begin(), format::head_size, torn.begin());
        write_block(0, torn);
        ASSERT_EQ(reopen(), zem_ok) << edge;
        ASSERT_EQ(postings(), committed) << edge;
        ASSERT_EQ(torn != old_block, spm->blk_dirty);
      }
    }
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_FALSE(exists(bad_name()));

    // What the torn write left in the block must not come back.
    insert({9, 9, 9}, 9);
    ASSERT_EQ(commit(), zem_ok);
    const std::vector<log_posting> after = postings();
    ASSERT_EQ(reopen(), zem_ok);
    EXPECT_EQ(postings(), after);
    EXPECT_FALSE(spm->blk_dirty);
  }
};

TEST_F(LogTornTest, ATornRewriteIsCutBackToTheLastCommit) {
  expect_cut_back([&] { insert_falling(cat, 5000, 100); },
                  [&] {
                    insert_falling(cat, 4000, 900);
                    insert_falling(dog, 5000, 900);
                    remove(cat, 4000);
                    fill_until(30);
                  });
}

TEST_F(LogTornTest, ACountThatLiesAcrossTwoPiecesIsNotTrusted) {
  expect_cut_back(
      [&] {
        insert_falling(ant, 5000, 508);
        ASSERT_EQ((spm->blk_pos + format::group_count_at + 1) % format::head_size, 0U);
        insert_falling(cat, 5000, 255);
      },
      [&] { insert_falling(cat, 4000, 500); });
}

TEST_F(LogTornTest, ABlockCutBackEndsTheLog) {
  insert(cat, 7);
  ASSERT_EQ(commit(), zem_ok);
  const std::vector<std::byte> head = read_block(0);
  fill_until(8);
  insert(ant, 5);
  ASSERT_EQ(commit(), zem_ok);
  std::vector<std::byte> torn = read_block(0);
  std::copy_n(head.begin(), format::head_size, torn.begin());
  write_block(0, torn);

  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(), ElementsAre(log_posting{cat, 7}));
  EXPECT_THAT(lines, ElementsAre(HasSubstr("block 1")));
  ASSERT_EQ(commit(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(), ElementsAre(log_posting{cat, 7}));
  EXPECT_THAT(lines, IsEmpty());
}

TEST_F(LogTornTest, ABodyWithoutAHeadIsCutOffInSilence) {
  insert_falling(cat, 5000, 1000);
  ASSERT_EQ(commit(), zem_ok);
  std::vector<std::byte> torn = read_block(0);
  std::fill_n(torn.begin(), format::head_size, std::byte{0});
  write_block(0, torn);
  write_block(3, std::vector<std::byte>(zem_block_size, std::byte{0}));

  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(), IsEmpty());
  EXPECT_THAT(lines, IsEmpty());
  insert(cat, 1);
  ASSERT_EQ(commit(), zem_ok);
  const std::vector<std::byte> block = read_block(0);
  EXPECT_TRUE(std::all_of(block.begin() + format::head_size, block.end(),
                          [](std::byte byte) { return byte == std::byte{0}; }));
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(), ElementsAre(log_posting{cat, 1}));
}

TEST_F(LogLoadTest, ABadBlockEndsTheLogAndTheFileIsKeptAside) {
  for (const bool kind : {false, true}) {
    ASSERT_EQ(zem_spm_open(*spm, zem_file_mode::fresh), zem_ok);
    zem_spm_shrink(*spm);
    write_three_blocks();
    if (kind) {
      forge(1, [](std::byte *block) { block[format::kind_at] = std::byte{2}; });
    } else {
      corrupt(1);
    }
    const std::vector<std::byte> damaged = read_file(spm->file.name);
    const std::string copy = bad_name() + (kind ? ".1" : "");

    ASSERT_EQ(reopen(), kind ? ZEM_SDB_E_KIND : ZEM_SDB_E_CHECKSUM);

    EXPECT_EQ(postings(), first_block);
    EXPECT_THAT(lines,
                ElementsAre(AllOf(StartsWith(spm->file.name + ", block 1"), HasSubstr(copy))));
    EXPECT_EQ(read_file(copy), damaged);
    EXPECT_EQ(zem_spm_writable(*spm), zem_ok);

    insert_falling(cat, 5000, 2);
    EXPECT_EQ(spm->blk_no, 1U);
    ASSERT_EQ(commit(), zem_ok);
    const std::vector<log_posting> after = postings();
    ASSERT_EQ(reopen(), zem_ok) << "nothing of what was dropped is left";
    EXPECT_EQ(postings(), after);
    EXPECT_THAT(lines, IsEmpty());
  }
  EXPECT_FALSE(exists(bad_name() + ".2"));
}

TEST_F(LogLoadTest, WrittenBlocksBehindTheEndAreKeptAside) {
  write_three_blocks();
  write_block(1, std::vector<std::byte>(zem_block_size));
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(postings(), first_block);
  EXPECT_THAT(lines, ElementsAre(HasSubstr("block 2")));
  EXPECT_TRUE(exists(bad_name()));

  ASSERT_EQ(commit(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(lines, IsEmpty()) << "a commit alone cuts them off";
  EXPECT_EQ(postings(), first_block);
}

TEST_F(LogLoadTest, ABlockThatTheFileHoldsOnlyInPartIsKeptAside) {
  write_three_blocks();
  std::filesystem::resize_file(spm->file.name, 3 * zem_block_size - 1);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(spm->blk_no, 1U);
  EXPECT_THAT(lines, ElementsAre(HasSubstr("block 2")));
  EXPECT_TRUE(exists(bad_name()));
}

// Each operation by which the copy is made fails once.
TEST_F(LogLoadTest, ALogWhoseDroppedBlocksCannotBeKeptTakesNoPostings) {
  write_three_blocks();
  corrupt(1);
  const std::vector<std::byte> damaged = read_file(spm->file.name);
  for (const file_op op : {file_op::write, file_op::sync, file_op::sync_dir}) {
    std::filesystem::remove(bad_name());
    faulty_files files;
    files.fail_once(1, ENOSPC, {op});
    ASSERT_EQ(reopen(), ZEM_SDB_E_CHECKSUM);
    files.fail_none();

    EXPECT_EQ(postings(), first_block);
    EXPECT_THAT(lines, ElementsAre(HasSubstr("block 1")));
    EXPECT_EQ(zem_spm_writable(*spm), -ENOSPC);
    EXPECT_EQ(try_insert(cat, 7), -ENOSPC);
    EXPECT_EQ(try_remove(first_block[0].term, first_block[0].id), -ENOSPC);
    EXPECT_EQ(postings(), first_block);
    EXPECT_EQ(commit(), zem_ok);
    EXPECT_FALSE(zem_spm_dirty(*spm));
    EXPECT_EQ(read_file(spm->file.name), damaged);
  }
  ASSERT_EQ(reopen(), ZEM_SDB_E_CHECKSUM);
  EXPECT_EQ(zem_spm_writable(*spm), zem_ok);
}

TEST_F(LogLoadTest, AFrozenLogIsReadByTheSameRulesAndNeverWritten) {
  insert(cat, 7);
  ASSERT_EQ(commit(), zem_ok);
  const std::vector<std::byte> head = read_block(0);
  insert_falling(cat, 6, 3);
  ASSERT_EQ(commit(), zem_ok);
  std::vector<std::byte> torn = read_block(0);
  std::copy_n(head.begin(), format::head_size, torn.begin());
  insert_falling(cat, 900, 500);
  ASSERT_EQ(commit(), zem_ok);
  const std::vector<std::byte> body = read_block(0);
  std::copy(body.begin() + format::head_size, body.end(), torn.begin() + format::head_size);
  write_block(0, torn);
  write_block(2, torn);
  const std::vector<std::byte> before = read_file(spm->file.name);

  ASSERT_EQ(reopen(/*frozen=*/true), zem_ok);
  EXPECT_THAT(postings(), ElementsAre(log_posting{cat, 7}));
  EXPECT_TRUE(exists(bad_name()));
  faulty_files files;
  EXPECT_EQ(commit(), zem_ok);
  EXPECT_EQ(files.count(file_op::sync), 1U);
  EXPECT_FALSE(zem_spm_dirty(*spm));
  EXPECT_EQ(read_file(spm->file.name), before);
}

TEST_F(LogLoadTest, AReadThatFailsIsNoDamage) {
  write_three_blocks();
  write_block(5, std::vector<std::byte>(zem_block_size, std::byte{0}));
  for (std::uint64_t nth = 1; nth <= 5; ++nth) {
    faulty_files files;
    files.fail_once(nth, EIO, {file_op::read});
    EXPECT_EQ(reopen(), -EIO) << nth;
    EXPECT_FALSE(exists(bad_name()));
  }
}

TEST_F(LogLoadTest, NothingIsWrittenBeforeTheEarlierLifeIsSettled) {
  write_three_blocks();
  corrupt(1);
  ASSERT_EQ(reopen(), ZEM_SDB_E_CHECKSUM);
  faulty_files files;
  insert(cat, 7);
  EXPECT_EQ(spm->blk_no, 1U);
  EXPECT_EQ(files.count(file_op::write), 0U) << "the full block is in the file as it is";

  fill_until(8);
  const std::vector<log_posting> before = postings();
  for (const file_op op : {file_op::truncate, file_op::sync}) {
    files.fail_from(1, EIO, {op});
    EXPECT_EQ(try_insert(ant, 7), -EIO);
    EXPECT_EQ(files.count(file_op::write), 0U);
    EXPECT_EQ(postings(), before);
  }
  files.fail_none();
  EXPECT_EQ(commit(), -EIO) << "a sync that failed is remembered";

  ASSERT_EQ(reopen(), zem_ok);
  insert_falling(cat, 5000, 2);
  const std::uint64_t syncs = files.count(file_op::sync);
  ASSERT_EQ(commit(), zem_ok);
  EXPECT_EQ(files.count(file_op::write), 2U);
  EXPECT_EQ(files.count(file_op::sync), syncs + 2) << "before the first write, and after it";
}

// Bytes that no writer of ours leaves, under a right checksum.
struct nonsense {
  const char *what;
  std::size_t at;
  std::uint16_t word;
};

class LogNonsenseTest : public LogTest, public ::testing::WithParamInterface<nonsense> {};

TEST_P(LogNonsenseTest, ABlockThatContradictsItselfEndsTheLog) {
  insert_falling(cat, 5000, 3);
  insert_falling(dog, 5000, 2);
  ASSERT_EQ(commit(), zem_ok);
  forge(0, [](std::byte *block) { zem_stream_set_word(block + GetParam().at, GetParam().word); });
  EXPECT_EQ(reopen(), ZEM_SDB_E_CHECKSUM);
  EXPECT_THAT(postings(), IsEmpty());
  EXPECT_EQ(spm->blk_pos, 9U);
  EXPECT_EQ(zem_mkey_compare(mkey, {}, 0), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Words, LogNonsenseTest,
    ::testing::Values(nonsense{"empty group", 9 + 12, 0}, nonsense{"short group", 9 + 12, 2},
                      nonsense{"long group", 9 + 12, 4}, nonsense{"huge group", 9 + 12, 65535},
                      nonsense{"group beyond the block", 50 + 12, 7278},
                      nonsense{"too many postings", 5, 6}, nonsense{"all postings", 5, 65535},
                      nonsense{"too few postings", 5, 4}, nonsense{"no postings", 5, 0},
                      nonsense{"more terms than postings", 7, 6},
                      nonsense{"bytes behind the groups", 65534, 1}),
    [](const auto &word) {
      std::string name = word.param.what;
      std::replace(name.begin(), name.end(), ' ', '_');
      return name;
    });

}  // namespace
