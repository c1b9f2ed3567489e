#include "src/spx.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/clock.h"
#include "base/scope.h"

#include "src/spx_impl.h"
#include "tests/support/data_file.h"
#include "tests/support/faulty_files.h"

namespace format = zem_spx_format;

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

std::vector<unsigned> bytes_of(std::span<const std::byte> block, std::size_t count) {
  std::vector<unsigned> numbers;
  for (const std::byte byte : block.first(count))
    numbers.push_back(std::to_integer<unsigned>(byte));
  return numbers;
}

bool zero_from(std::span<const std::byte> block, std::size_t pos) {
  return std::all_of(block.begin() + static_cast<std::ptrdiff_t>(pos), block.end(),
                     [](std::byte byte) { return byte == std::byte{0}; });
}

// Index entries without the blocks they name; the file is a hole of the right size.
void add_entries(zem_spx &spx, std::uint32_t count, std::uint32_t entries_a_term) {
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t term = i / entries_a_term;
    const bool same_term = i % entries_a_term != 0;
    zem_spx_add_blk(spx, {term, 0, 0}, count - i,
                    {i + 1, 1, 1, static_cast<std::uint16_t>(same_term ? 1 : 0)});
  }
}

class SpxWriteTest : public DataFileTest {};

TEST_F(SpxWriteTest, BytesOfASmallFile) {
  start_file();
  insert(cat, 0x0807060504030201);
  insert(cat, 300);
  insert(dog, 9);
  finish();

  EXPECT_EQ(spx->file.size, 8U << 20);
  // clang-format off
  const std::vector<std::byte> data = read_block(1);
  EXPECT_THAT(bytes_of(data, 61), ElementsAreArray({
      0x43, 0x89, 0x79, 0x18, 2, 3, 0, 2, 0,             // checksum, kind, postings, groups
      1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0,          // term, 2 postings
      1, 2, 3, 4, 5, 6, 7, 8, 0x2c, 1, 0, 0, 0, 0, 0, 0,
      1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 1, 0,          // term, 1 posting
      9, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_TRUE(zero_from(data, 61));
  const std::vector<std::byte> head = read_block(0);
  EXPECT_THAT(bytes_of(head, 42), ElementsAreArray({
      0x22, 0xa9, 0x79, 0xef, 1, 1, 0, 0,                // checksum, kind, 1 entry
      1, 0, 0, 0, 0, 0, 0, 0,                            // 1 data block, no other index block
      1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 1, 0,          // term, 1 entry
      9, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 0}));             // id, block, groups, postings, cont
  EXPECT_TRUE(zero_from(head, 42));
  // clang-format on
  EXPECT_TRUE(zero_from(read_block(2), 0));
}

TEST_F(SpxWriteTest, WhatWasWrittenLoadsWithItsCountsAndItsKey) {
  start_file();
  insert_falling(cat, 20'000, 10'000);
  insert(dog, 5);
  insert(dog, 2);
  finish();
  EXPECT_EQ(spx->blk_num, 3U);  // the next free block

  ASSERT_EQ(reopen(), zem_ok);

  EXPECT_EQ(spx->blk_num, 2U);
  EXPECT_EQ(spx->key_num, 2U);
  EXPECT_EQ(spx->doc_num, 10'002U);
  EXPECT_EQ(mkey.term, dog);
  EXPECT_EQ(mkey.id, 2U);
  EXPECT_THAT(postings(), SizeIs(10'002));
  EXPECT_FALSE(spx->damaged);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(SpxWriteTest, FilesWithoutPostingsLoadEmpty) {
  start_file();  // no byte at all
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(spx->tree.count, 0);
  EXPECT_EQ(spx->blk_num, 0U);

  erase(0);  // a block that was never written
  ASSERT_EQ(reopen(), zem_ok);

  start_file();
  finish();
  EXPECT_EQ(spx->file.size, zem_block_size);  // an index head and nothing else
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(spx->blk_num, 0U);
  EXPECT_THAT(postings(), IsEmpty());
  EXPECT_EQ(walked, zem_ok);
  EXPECT_THAT(log, IsEmpty());
}

// Fills block 1 up to `left` bytes with `groups` groups, of which the last one takes up the slack.
struct fit_case {
  std::uint32_t groups;
  std::size_t left;
  bool same_term;  // whether the next posting continues the last group
  bool fits;
};

class SpxFitTest : public SpxWriteTest, public ::testing::WithParamInterface<fit_case> {};

TEST_P(SpxFitTest, BlockIsFullOnlyWhenAPostingHasNoRoom) {
  const auto [groups, left, same_term, fits] = GetParam();
  start_file();
  for (std::uint32_t i = 1; i < groups; ++i)
    insert({i, 0, 0}, 1);
  const std::size_t room = zem_block_size - format::groups_at - left -
                           groups * format::group_head_size - (groups - 1) * format::id_size;
  ASSERT_EQ(room % format::id_size, 0U);
  insert_falling({groups, 0, 0}, 100'000, room / format::id_size);
  ASSERT_EQ(xblk.blk_no, 1U);

  insert({same_term ? groups : groups + 1, 0, 0}, 1);

  EXPECT_EQ(xblk.blk_no, fits ? 1U : 2U);
  EXPECT_EQ(xblk.cont, !fits && same_term ? 1 : 0);
  finish();
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(spx->tree.count, fits ? 1 : 2);
  EXPECT_EQ(spx->key_num, groups + (same_term ? 0 : 1));
  EXPECT_THAT(postings(), SizeIs(groups - 1 + room / format::id_size + 1));
  EXPECT_EQ(walked, zem_ok);
}

INSTANTIATE_TEST_SUITE_P(Edges, SpxFitTest,
                         ::testing::Values(fit_case{2, 11, true, true}, fit_case{3, 5, true, false},
                                           fit_case{4, 7, true, false}, fit_case{3, 13, true, true},
                                           fit_case{4, 23, false, true},
                                           fit_case{3, 21, false, false}));

TEST_F(SpxWriteTest, TermOverSeveralBlocksIsOneKey) {
  start_file();
  insert(cat, 1);
  insert_falling(dog, 30'000, 20'000);
  insert(emu, 1);
  finish();

  std::vector<std::uint16_t> cont;
  for (const zem_spx_node *node = zem_xtree_node_first(spx->tree); node != nullptr;
       node = node->next)
    cont.push_back(node->value->cont);
  EXPECT_THAT(cont, ElementsAre(0, 1, 1));
  EXPECT_EQ(spx->key_num, 3U);
  EXPECT_EQ(spx->doc_num, 20'002U);
}

TEST_F(SpxWriteTest, FirstPostingOfAFileOpensAGroupEvenOfTheZeroTerm) {
  start_file();
  insert({0, 0, 0}, 7);
  finish();
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(), ElementsAre(data_posting{{0, 0, 0}, 7}));
  EXPECT_EQ(spx->key_num, 1U);

  zem_spx_shrink(*spx);  // the buffer still ends with this term when the next file begins
  start_file();
  insert({0, 0, 0}, 7);
  finish();
  EXPECT_EQ(spx->key_num, 1U);
  EXPECT_EQ(reopen(), zem_ok);
}

// A bulk load may finish a file, go on with it and finish it again.
TEST_F(SpxWriteTest, FinishedFileCanGrow) {
  start_file();
  insert(cat, 9);
  finish();
  insert(cat, 5);  // in a block of its own
  finish();
  finish();

  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(), ElementsAre(data_posting{cat, 9}, data_posting{cat, 5}));
  EXPECT_EQ(spx->key_num, 1U);
  EXPECT_EQ(spx->blk_num, 2U);
}

TEST_F(SpxWriteTest, RunIsTheSameAsItsPostingsOneByOne) {
  start_file();
  insert(cat, 1);
  insert_falling(dog, 60'000, 30'000);
  insert_falling(emu, 9, 9);
  finish();
  const std::vector<std::byte> second = read_block(2);
  const std::vector<data_posting> all = postings();

  zem_spx_shrink(*spx);
  write(all);

  EXPECT_EQ(read_block(2), second);
  EXPECT_EQ(postings(), all);
  EXPECT_EQ(zem_mkey_compare(mkey, emu, 1), 0);
}

TEST_F(SpxWriteTest, WriterSleepsEvery256Blocks) {
  static std::atomic<std::uint64_t> now_us;
  static std::atomic<int> looks;
  looks = 0;
  const zem_clock moving{.time = [] { return 0U; },
                         .stamp_us =
                             [] {
                               ++looks;
                               return now_us += 1'000'000;
                             }};
  start_file();
  std::vector<std::byte> ids(format::postings_max * 254 * format::id_size);
  for (std::size_t i = 0; i < ids.size(); i += format::id_size)
    zem_stream_set_lword(&ids[i], ids.size() - i);
  zem_clock_use(&moving);
  const zem_on_exit restore([] { zem_clock_use(nullptr); });
  ASSERT_EQ(zem_spx_insert_run(*spx, xblk, cat, ids, mkey, 20), zem_ok);
  insert_falling(dog, 100'000, format::postings_max);
  EXPECT_EQ(looks, 0);
  EXPECT_EQ(zem_spx_insert(*spx, xblk, 1, emu, mkey, 20), zem_ok);  // writes block 255
  EXPECT_EQ(xblk.blk_no, 256U);
  EXPECT_GT(looks, 0);
}

// Fails the 1st file operation of writing a file, then the 2nd, and so on until all run through. What
// failed is called again, and the file must come out the same.
TEST_F(SpxWriteTest, AnyFailedOperationCanBeRetried) {
  const auto write_all = [&](faulty_files &files) {
    int failures = 0;
    const auto again = [&](const auto &call) {
      zem_status st = call();
      if (st < 0) {
        EXPECT_EQ(st, zem_status{-ENOSPC});
        EXPECT_TRUE(files.has_failed());
        ++failures;
        st = call();
      }
      EXPECT_GE(st, zem_ok);
    };
    zem_spx_shrink(*spx);
    zem_xblk_shrink(xblk);
    mkey = {};
    again([&] { return zem_spx_open(*spx, zem_file_mode::fresh); });
    for (std::uint64_t id = 17'000; id > 0; --id) {
      again([&] {
        const zem_mkey before = mkey;
        const zem_status st = zem_spx_insert(*spx, xblk, id, cat, mkey, 0);
        EXPECT_TRUE(st >= 0 || zem_mkey_compare(before, mkey.term, mkey.id) == 0);
        return st;
      });
    }
    again([&] { return zem_spx_commit(*spx, xblk); });
    again([&] { return zem_spx_finish(*spx, xblk); });
    return failures;
  };
  std::vector<std::vector<std::byte>> good;
  for (std::uint64_t nth = 0;; ++nth) {
    SCOPED_TRACE(nth);
    int failures = 0;
    {
      faulty_files files;
      if (nth > 0) files.fail_once(nth, ENOSPC);
      failures = write_all(files);
    }
    ASSERT_EQ(spx->doc_num, 17'000U);
    for (std::uint32_t blk_no = 0; blk_no < 5; ++blk_no) {
      if (nth == 0)
        good.push_back(read_block(blk_no));
      else
        ASSERT_EQ(read_block(blk_no), good[blk_no]);
    }
    if (nth > 0 && failures == 0) {
      EXPECT_GT(nth, 8U);
      break;
    }
  }
}

// The index of 12,000 blocks needs a chain, whether each has a term of its own or all have the same.
class SpxChainTest : public SpxWriteTest, public ::testing::WithParamInterface<std::uint32_t> {};

TEST_P(SpxChainTest, LongIndexIsChainedAndLoads) {
  constexpr std::uint32_t blocks = 12'000;
  start_file();
  add_entries(*spx, blocks, GetParam());
  ASSERT_EQ(zem_file_truncate(spx->file, std::uint64_t{blocks + 1} * zem_block_size), zem_ok);
  ASSERT_EQ(zem_spx_merge(*spx, blocks + 1), zem_ok);
  const std::uint64_t keys = spx->key_num;

  EXPECT_EQ(zem_stream_get_dword(&read_block(0)[format::head_next_at]), blocks + 1);
  const std::vector<std::byte> second = read_block(blocks + 1);
  EXPECT_EQ(zem_stream_get_dword(&second[format::chain_next_at]), blocks + 2);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(spx->tree.count, blocks);
  EXPECT_EQ(spx->blk_num, blocks);
  EXPECT_EQ(spx->key_num, keys);
  EXPECT_EQ(spx->doc_num, blocks);
  EXPECT_EQ(zem_xtree_node_last(spx->tree)->id, 1U);
}

INSTANTIATE_TEST_SUITE_P(EntriesATerm, SpxChainTest, ::testing::Values(1U, 7U, 12'000U));

TEST_F(SpxWriteTest, IndexFillsItsHeadToTheLastByte) {
  // Blocks 1 to 127 take 12 bytes each in one group, the others 13.
  constexpr std::size_t room = zem_block_size - format::head_groups_at - format::group_head_size;
  constexpr std::uint32_t fit = 127 + (room - 127 * 12) / 13;
  for (const std::uint32_t blocks : {fit, fit + 1}) {
    zem_spx_shrink(*spx);
    start_file();
    add_entries(*spx, blocks, blocks);
    ASSERT_EQ(zem_file_truncate(spx->file, std::uint64_t{blocks + 1} * zem_block_size), zem_ok);
    ASSERT_EQ(zem_spx_merge(*spx, blocks + 1), zem_ok);
    EXPECT_EQ(zem_stream_get_dword(&read_block(0)[format::head_next_at]),
              blocks == fit ? 0 : blocks + 1);
    ASSERT_EQ(reopen(), zem_ok);
    EXPECT_EQ(spx->tree.count, blocks);
  }
}

TEST_F(SpxWriteTest, SwapLeavesNamesAndMovesTheOpenFile) {
  start_file();
  insert(cat, 3);
  finish();
  zem_spx other;
  other.file.name = directory.path("2.dat");
  other.cache.limit = 5;

  zem_spx_swap(*spx, other);
  std::filesystem::rename(directory.path("1.dat"), directory.path("2.dat"));

  EXPECT_EQ(other.file.name, directory.path("2.dat"));
  EXPECT_EQ(spx->tree.count, 0);
  EXPECT_FALSE(zem_file_is_open(spx->file));
  zem_xiter it;
  ASSERT_EQ(zem_spx_iter_first(other, it), zem_yes);
  EXPECT_EQ(it.doc, 3U);
}

}  // namespace
