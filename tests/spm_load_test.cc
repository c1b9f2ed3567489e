#include <filesystem>
#include <gmock/gmock.h>
#include <map>

#include "tests/support/log_file.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace format = zem_spm_format;

class LogLoadTest : public LogTest {
 protected:
  // Two full blocks and a third one that a commit wrote.
  void write_three_blocks() {
    start();
    fill_until(8);
    first_block = postings();
    insert_falling(ant, 5000, 3);
    fill_until(8);
    insert_falling(cat, 5000, 3);
    ASSERT_EQ(commit(), zem_ok);
    ASSERT_EQ(spm->blk_no, 2U);
  }
  bool kept_aside() const { return std::filesystem::exists(bad_name()); }

  std::vector<log_posting> first_block;
};

TEST_F(LogLoadTest, FilesWithoutAWrittenBlockAreEmptyLogs) {
  for (const std::uintmax_t size : {0U, 100U, 65535U, 65536U, 8U << 20}) {
    std::filesystem::resize_file(spm->file.name, size);
    ASSERT_EQ(reopen(), zem_ok);
    EXPECT_THAT(postings(), IsEmpty());
    EXPECT_THAT(lines, IsEmpty());
  }
}

// A block was committed, grew and was being written again when the power went: its head is old or
// was never written, and each 512 bytes of its body are old or new.
TEST_F(LogLoadTest, ATornRewriteIsCutBackToTheLastCommit) {
  for (const bool across : {false, true}) {
    start();
    if (across) {  // a count lies across two pieces of 512 bytes
      insert_falling(ant, 5000, 508);
      ASSERT_EQ((spm->blk_pos + format::group_count_at + 1) % format::head_size, 0U);
    }
    insert_falling(cat, 5000, across ? 255 : 100);
    ASSERT_EQ(commit(), zem_ok);
    const std::vector<log_posting> committed = postings();
    const std::vector<std::byte> old_block = read_block(0);
    insert_falling(cat, 4000, 900);
    insert_falling(dog, 5000, 900);
    remove(cat, 4000);
    fill_until(30);
    ASSERT_EQ(commit(), zem_ok);
    const std::vector<std::byte> new_block = read_block(0);
    for (std::size_t at = format::head_size; at <= zem_block_size; at += format::head_size) {
      for (const bool new_first : {true, false}) {
        std::vector<std::byte> torn = new_first ? old_block : new_block;
        std::copy_n((new_first ? new_block : old_block).begin(), at, torn.begin());
        std::copy_n(old_block.begin(), format::head_size, torn.begin());
        write_block(0, torn);
        ASSERT_EQ(reopen(), zem_ok) << at;
        ASSERT_EQ(postings(), committed) << at;
        ASSERT_EQ(torn != old_block, spm->blk_dirty);
      }
    }
    expect_to_stay();
    EXPECT_FALSE(kept_aside());
  }
  std::vector<std::byte> headless = read_block(0);
  std::fill_n(headless.begin(), format::head_size, std::byte{0});
  write_block(0, headless);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(), IsEmpty());
  expect_to_stay();
}

TEST_F(LogLoadTest, ABadBlockEndsTheLogAndTheFileIsKeptAside) {
  for (const bool kind : {false, true}) {
    write_three_blocks();
    corrupt(1);
    if (kind) forge(1, [](std::byte *block) { block[format::kind_at] = std::byte{2}; });
    const std::vector<std::byte> damaged = read_file(spm->file.name);
    const std::string copy = bad_name() + (kind ? ".1" : "");
    ASSERT_EQ(reopen(), kind ? ZEM_SDB_E_KIND : ZEM_SDB_E_CHECKSUM);
    EXPECT_EQ(postings(), first_block);
    EXPECT_THAT(lines, ElementsAre(HasSubstr("block 1")));
    EXPECT_EQ(read_file(copy), damaged);
    expect_to_stay();
  }
}

TEST_F(LogLoadTest, WrittenBlocksBehindTheEndAreKeptAside) {
  write_three_blocks();
  write_block(1, std::vector<std::byte>(zem_block_size));
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(postings(), first_block);
  EXPECT_THAT(lines, ElementsAre(HasSubstr("block 2")));
  EXPECT_TRUE(kept_aside());
  expect_to_stay();
  write_three_blocks();
  std::filesystem::resize_file(spm->file.name, 3 * zem_block_size - 1);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(spm->blk_no, 1U);
  EXPECT_THAT(lines, ElementsAre(HasSubstr("block 2")));
}

// Words that no writer of ours leaves, under a right checksum.
TEST_F(LogLoadTest, ABlockThatContradictsItselfEndsTheLog) {
  insert_falling(cat, 5000, 3);
  insert_falling(dog, 5000, 2);
  ASSERT_EQ(commit(), zem_ok);
  const std::vector<std::byte> good = read_block(0);
  constexpr std::size_t count_at = format::groups_at + format::group_count_at;
  const std::map<std::size_t, std::vector<std::uint16_t>> words{
      {format::posting_count_at, {0, 4, 6, 65535}},
      {format::term_count_at, {6}},
      {count_at, {0, 2, 4, 65535}},
      {count_at + 41, {7278}},  // the second group, beyond the block
      {zem_block_size - 2, {1}}};
  for (const auto &[at, values] : words) {
    for (const std::uint16_t word : values) {
      SCOPED_TRACE(std::to_string(word) + " at " + std::to_string(at));
      write_block(0, good);
      forge(0, [&, where = at](std::byte *block) { zem_stream_set_word(block + where, word); });
      EXPECT_EQ(reopen(), ZEM_SDB_E_CHECKSUM);
      EXPECT_THAT(postings(), IsEmpty());
      EXPECT_EQ(zem_mkey_compare(mkey, {}, 0), 0);
    }
  }
}

}  // namespace
