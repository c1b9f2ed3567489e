#include "src/spx.h"

#include <gmock/gmock.h>
#include <tuple>

#include "src/spx_impl.h"
#include "tests/support/data_file.h"
#include "tests/support/faulty_files.h"

namespace format = zem_spx_format;

namespace {

class SpxWriteTest : public DataFileTest {
 protected:
  // Writes and loads a file whose index names blocks that are a hole.
  void write_index(std::uint32_t blocks, std::uint32_t blocks_a_term) {
    start_file();
    for (std::uint32_t i = 0; i < blocks; ++i) {
      const bool same_term = i % blocks_a_term != 0;
      zem_spx_add_blk(*spx, {i / blocks_a_term, 0, 0}, blocks - i,
                      {i + 1, 1, 1, static_cast<std::uint16_t>(same_term ? 1 : 0)});
    }
    ASSERT_EQ(zem_file_truncate(spx->file, std::uint64_t{blocks + 1} * zem_block_size), zem_ok);
    ASSERT_EQ(zem_spx_merge(*spx, blocks + 1), zem_ok);
    const std::uint64_t keys = spx->key_num;
    ASSERT_EQ(reopen(), zem_ok);
    EXPECT_EQ(spx->tree.count, blocks);
    EXPECT_EQ(spx->key_num, keys);
    EXPECT_EQ(spx->doc_num, blocks);
  }
  std::uint32_t next_of(std::uint32_t blk_no, std::size_t at) {
    return zem_stream_get_dword(&read_block(blk_no)[at]);
  }
};

TEST_F(SpxWriteTest, BytesOfASmallFile) {
  start_file();
  insert(cat, 0x0807060504030201);
  insert(cat, 300);
  insert(dog, 9);
  finish();
  EXPECT_EQ(spx->file.size, 8U << 20);
  const auto block_of = [](std::initializer_list<int> bytes) {
    std::vector<std::byte> block(zem_block_size);
    for (std::size_t i = 0; i < bytes.size(); ++i)
      block[i] = static_cast<std::byte>(bytes.begin()[i]);
    return block;
  };
  // clang-format off
  EXPECT_EQ(read_block(1), block_of({
      0x43, 0x89, 0x79, 0x18, 2, 3, 0, 2, 0,             // checksum, kind, postings, groups
      1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0,          // term, 2 postings
      1, 2, 3, 4, 5, 6, 7, 8, 0x2c, 1, 0, 0, 0, 0, 0, 0,
      1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 1, 0,          // term, 1 posting
      9, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(read_block(0), block_of({
      0x22, 0xa9, 0x79, 0xef, 1, 1, 0, 0,                // checksum, kind, 1 entry
      1, 0, 0, 0, 0, 0, 0, 0,                            // 1 data block, no other index block
      1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 1, 0,          // term, 1 entry
      9, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 0}));             // id, block, groups, postings, cont
  // clang-format on
}

// Fills block 1 but for `left` bytes with groups of which the last takes up the slack.
TEST_F(SpxWriteTest, BlockIsFullOnlyWhenAPostingHasNoRoom) {
  for (const auto &[left, groups, continues] : {std::tuple{11U, 2U, true},
                                                {13U, 3U, true},
                                                {5U, 3U, true},
                                                {7U, 4U, true},
                                                {23U, 4U, false},
                                                {27U, 2U, false}}) {
    SCOPED_TRACE(left);
    const bool fits = left >= format::posting_room + (continues ? 0 : format::group_head_size);
    start_file();
    for (std::uint32_t i = 1; i < groups; ++i)
      insert({i, 0, 0}, 1);
    const std::size_t room = zem_block_size - format::groups_at - left -
                             groups * format::group_head_size - (groups - 1) * format::id_size;
    ASSERT_EQ(room % format::id_size, 0U);
    insert_falling({groups, 0, 0}, 100'000, room / format::id_size);
    insert({continues ? groups : groups + 1, 0, 0}, 1);
    EXPECT_EQ(xblk.blk_no, fits ? 1U : 2U);
    EXPECT_EQ(xblk.cont, !fits && continues ? 1 : 0);
    finish();
    ASSERT_EQ(reopen(), zem_ok);
    EXPECT_EQ(spx->key_num, groups + (continues ? 0 : 1));
    EXPECT_EQ(postings().size(), groups + room / format::id_size);
  }
}

// A bulk load may finish a file, go on with it and finish it again; a first term of zeros is one.
TEST_F(SpxWriteTest, FinishedFileCanGrow) {
  start_file();
  insert({0, 0, 0}, 9);
  finish();
  insert({0, 0, 0}, 5);  // in a block of its own
  finish();
  finish();
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(),
              testing::ElementsAre(data_posting{{0, 0, 0}, 9}, data_posting{{0, 0, 0}, 5}));
  EXPECT_EQ(spx->key_num, 1U);
}

// Fails the 1st file operation of writing a file, then the 2nd, and so on until all run through. What
// failed is called again, and the file must come out the same.
TEST_F(SpxWriteTest, AnyFailedOperationCanBeRetried) {
  std::vector<std::vector<std::byte>> good;
  for (std::uint64_t nth = 0, failures = 1; failures > 0; ++nth) {
    SCOPED_TRACE(nth);
    faulty_files files;
    if (nth > 0) files.fail_once(nth, ENOSPC);
    failures = nth == 0 ? 1 : 0;
    const auto again = [&](const auto &call) {
      const zem_mkey before = mkey;
      if (call() >= zem_ok) return;
      EXPECT_EQ(zem_mkey_compare(before, mkey.term, mkey.id), 0);
      ++failures;
      EXPECT_EQ(call(), zem_ok);
    };
    zem_spx_shrink(*spx);
    zem_xblk_shrink(xblk);
    mkey = {};
    again([&] { return zem_spx_open(*spx, zem_file_mode::fresh); });
    for (std::uint64_t id = 17'000; id > 0; --id)
      again([&] { return zem_spx_insert(*spx, xblk, id, cat, mkey, 0); });
    again([&] { return zem_spx_finish(*spx, xblk); });
    files.fail_none();
    for (std::uint32_t blk_no = 0; blk_no < 5; ++blk_no) {
      if (nth == 0) good.push_back(read_block(blk_no));
      ASSERT_EQ(read_block(blk_no), good[blk_no]);
    }
    EXPECT_TRUE(failures > 0 || nth > 8);
  }
}

TEST_F(SpxWriteTest, LongIndexIsChainedAndLoads) {
  constexpr std::uint32_t blocks = 12'000;
  for (const std::uint32_t blocks_a_term : {1U, 7U, blocks}) {
    write_index(blocks, blocks_a_term);
    EXPECT_EQ(next_of(0, format::head_next_at), blocks + 1);
    EXPECT_EQ(next_of(blocks + 1, format::chain_next_at), blocks + 2);
  }
  // Blocks 1 to 127 take 12 bytes each in one group, the others 13.
  constexpr std::size_t room = zem_block_size - format::head_groups_at - format::group_head_size;
  constexpr std::uint32_t fit = 127 + (room - 127 * 12) / 13;
  write_index(fit, fit);
  EXPECT_EQ(next_of(0, format::head_next_at), 0U);
  write_index(fit + 1, fit + 1);
  EXPECT_EQ(next_of(0, format::head_next_at), fit + 2);
}

}  // namespace
