#include "src/spx.h"

#include <functional>
#include <gmock/gmock.h>
#include <map>

#include "tests/support/data_file.h"

namespace format = zem_spx_format;

namespace {

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
    for (std::uint32_t blk_no = 0; blk_no < 4; ++blk_no)
      good.push_back(read_block(blk_no));
  }
  void restore() {
    for (std::uint32_t blk_no = 0; blk_no < good.size(); ++blk_no)
      write_block(blk_no, good[blk_no]);
  }
  std::vector<data_posting> all;
  std::vector<std::vector<std::byte>> good;  // blocks
};

TEST_F(SpxLoadTest, RebuildKeepsEveryGoodBlockAndTellsOfLosses) {
  const zem_term none{};
  const std::vector<std::pair<zem_term, std::function<void()>>> damages{
      {none, [&] { corrupt(0); }},
      {none, [&] { erase(0); }},
      {none, [&] { forge(0, [](std::byte *head) { head[format::kind_at] = std::byte{2}; }); }},
      {dog, [&] { corrupt(0), corrupt(2); }},
      {dog, [&] { corrupt(0), erase(2); }},
      {cat, [&] { corrupt(0), write_block(2, good[1]), write_block(1, good[2]); }},
      {emu, [&] { EXPECT_EQ(zem_file_truncate(spx->file, 3 * zem_block_size + 500), zem_ok); }}};
  for (const auto &[lost, damage] : damages) {
    SCOPED_TRACE(lost[0]);
    restore();
    damage();
    EXPECT_LT(reopen(), zem_ok);
    std::vector<data_posting> kept = all;
    std::erase_if(kept, [&, term = lost](const data_posting &p) { return p.term == term; });
    EXPECT_EQ(postings(), kept);
    EXPECT_EQ(spx->doc_num, kept.size());
    EXPECT_EQ(spx->damaged, lost != none);
    EXPECT_EQ(mkey.term, lost == emu ? dog : emu);
    EXPECT_THAT(log[0], testing::HasSubstr(spx->file.name + ", block 0"));
  }
}

// Right checksums, wrong content: the three entries lie at 16, 42 and 68, each with a group head.
TEST_F(SpxLoadTest, NonsenseInTheHeadIsRebuilt) {
  constexpr std::size_t groups_at = format::head_groups_at;
  constexpr std::size_t blk_no_at = groups_at + format::group_head_size + format::id_size;
  const std::map<std::size_t, std::vector<unsigned>> bytes{
      {format::head_data_blocks_at, {2, 4}},
      {format::head_data_blocks_at + 2, {1}},  // beyond the file
      {format::entry_count_at, {2, 4}},
      {format::entry_count_at + 2, {255}},      // beyond the block
      {format::head_next_at, {2, 4}},           // a data block, a zero block
      {format::head_next_at + 3, {128}},        // beyond the file
      {groups_at, {3}},                         // out of order
      {groups_at + format::term_size, {0, 9}},  // entries of the group
      {blk_no_at, {0, 2, 255}},
      {blk_no_at + 1, {0}},      // groups
      {blk_no_at + 2, {0}},      // postings
      {blk_no_at + 4, {1, 2}}};  // continues
  for (const auto &[at, values] : bytes) {
    for (const unsigned value : values) {
      SCOPED_TRACE(std::to_string(value) + " at " + std::to_string(at));
      write_block(0, good[0]);
      forge(0, [&, where = at](std::byte *head) { head[where] = static_cast<std::byte>(value); });
      ASSERT_NE(read_block(0), good[0]);
      EXPECT_LT(reopen(), zem_ok);
      EXPECT_EQ(postings(), all);
    }
  }
}

TEST_F(SpxLoadTest, DamagedChainLosesNothing) {
  start_file();
  for (std::uint32_t i = 1; i <= 2800; ++i) {
    insert({i, 0, 0}, i);
    EXPECT_EQ(zem_spx_commit(*spx, xblk), zem_ok);
  }
  finish();
  constexpr std::uint32_t chain = 2801;
  const auto chain_to_itself = [&] {  // and without an entry
    forge(chain, [&](std::byte *block) {
      block[format::kind_at] = format::kind_index;
      zem_stream_set_dword(block + format::chain_next_at, chain);
    });
  };
  const std::vector<std::function<void()>> damages{[&] { corrupt(chain); }, [&] { erase(chain); },
                                                   chain_to_itself, [&] { corrupt(0); }};
  for (const auto &damage : damages) {
    damage();
    EXPECT_EQ(reopen(), ZEM_SDB_E_CHECKSUM);
    EXPECT_EQ(spx->doc_num, 2800U);
    EXPECT_EQ(spx->blk_num, 2800U);
    EXPECT_FALSE(spx->damaged);
  }
}

// Blocks that pass their checksum and are nonsense, or are not what the index says.
TEST_F(SpxLoadTest, WalkStopsAtADataBlockOfNonsenseAndQueriesElsewhereGoOn) {
  constexpr std::size_t ids_at = format::groups_at + format::group_head_size;
  constexpr std::uint16_t most = format::postings_max;
  const std::map<std::size_t, std::vector<std::uint16_t>> words{
      {format::posting_count_at, {most - 1, most + 1}},
      {format::group_count_at, {0, 2, 65535}},
      {format::groups_at, {0}},  // another term
      {format::groups_at + format::term_size, {0, most + 1}},
      {ids_at, {1, 49'999}},            // out of order, twice
      {ids_at + (most - 1) * 8, {1}}};  // another last posting
  zem_xiter it;
  for (const auto &[at, values] : words) {
    for (const std::uint16_t word : values) {
      SCOPED_TRACE(std::to_string(word) + " at " + std::to_string(at));
      write_block(2, good[2]);
      forge(2, [&, where = at](std::byte *block) { zem_stream_set_word(block + where, word); });
      ASSERT_EQ(reopen(), zem_ok);
      EXPECT_EQ(postings().size(), most);
      EXPECT_EQ(walked, ZEM_SDB_E_CHECKSUM);
      EXPECT_EQ(zem_spx_iter_find_x(*spx, it, dog, zem_id_first), ZEM_SDB_E_CHECKSUM);
      EXPECT_FALSE(zem_xiter_stands(it));
      EXPECT_EQ(zem_spx_iter_find_x(*spx, it, emu, zem_id_first), zem_yes);
    }
  }
  forge(2, [](std::byte *block) { block[format::kind_at] = format::kind_index; });
  EXPECT_EQ(zem_spx_iter_find_x(*spx, it, dog, zem_id_first), ZEM_SDB_E_KIND);
  erase(2);
  EXPECT_EQ(zem_spx_iter_find_x(*spx, it, dog, zem_id_first), ZEM_SDB_E_CHECKSUM);
}

}  // namespace
