#include "src/spx_iter.h"

#include <cerrno>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>

#include "src/spx_impl.h"
#include "tests/support/data_file.h"
#include "tests/support/faulty_files.h"

namespace format = zem_spx_format;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SpxIterTest : public DataFileTest {
 protected:
  // Three blocks of cat with ant before and dog behind it: ids 30000 to 10001.
  void write_three_blocks_of_cat() {
    start_file();
    insert(ant, 4);
    insert_falling(cat, 30'000, 20'000);
    insert(dog, 6);
    insert(dog, 5);
    finish();
    ASSERT_EQ(spx->tree.count, 3);
  }

  zem_status find(const zem_term &term, std::uint64_t id = zem_id_first) {
    return zem_spx_iter_find_x(*spx, it, term, id);
  }
  // What a query sees from where the cursor stands.
  std::vector<std::uint64_t> rest_of_term() {
    std::vector<std::uint64_t> ids;
    zem_status st = zem_yes;
    while (st == zem_yes && zem_xiter_stands(it)) {
      ids.push_back(it.doc);
      st = zem_spx_iter_next(*spx, it);
    }
    EXPECT_EQ(st, zem_ok);
    EXPECT_FALSE(zem_xiter_stands(it));
    return ids;
  }
  std::vector<std::uint64_t> rest_of_term_by_runs() {
    std::vector<std::uint64_t> ids;
    while (zem_xiter_stands(it)) {
      const std::span<const std::byte> run = zem_xiter_run(it);
      for (std::size_t i = 0; i < run.size(); i += format::id_size)
        ids.push_back(zem_stream_get_lword(&run[i]));
      EXPECT_GE(zem_spx_iter_skip(*spx, it, run.size() / format::id_size), zem_ok);
    }
    return ids;
  }

  zem_xiter it;
};

TEST_F(SpxIterTest, EmptyIndexGivesNothingAndReadsNothing) {
  start_file();
  finish();
  const faulty_files files;
  EXPECT_EQ(zem_spx_iter_first(*spx, it), zem_ok);
  EXPECT_EQ(find(cat), zem_ok);
  EXPECT_EQ(zem_spx_iterd_first(*spx, it), zem_ok);
  EXPECT_FALSE(zem_xiter_stands(it));
  EXPECT_THAT(zem_xiter_run(it), IsEmpty());
  EXPECT_EQ(files.count(file_op::read), 0);
}

TEST_F(SpxIterTest, QueryWalksOneTermAcrossItsBlocks) {
  write_three_blocks_of_cat();
  ASSERT_EQ(find(cat), zem_yes);
  EXPECT_EQ(it.doc, 30'000U);
  EXPECT_EQ(it.term, cat);
  EXPECT_TRUE(it.first);
  const std::vector<std::uint64_t> ids = rest_of_term();
  EXPECT_EQ(ids.size(), 20'000U);
  EXPECT_EQ(ids.back(), 10'001U);
  ASSERT_EQ(find(cat), zem_yes);
  EXPECT_EQ(rest_of_term_by_runs(), ids);

  ASSERT_EQ(zem_spx_iter_first(*spx, it), zem_yes);
  EXPECT_EQ(it.term, ant);
  EXPECT_THAT(rest_of_term(), ElementsAre(4));
  ASSERT_EQ(find(dog), zem_yes);
  EXPECT_THAT(rest_of_term(), ElementsAre(6, 5));
}

TEST_F(SpxIterTest, QueryStartsAtTheFirstIdNotAbove) {
  write_three_blocks_of_cat();
  for (const std::uint64_t id : {30'000U, 29'999U, 21'820U, 21'813U, 15'000U, 10'001U}) {
    ASSERT_EQ(find(cat, id), zem_yes) << id;
    EXPECT_EQ(it.doc, id);
    EXPECT_EQ(it.first, id == 30'000);
  }
  EXPECT_EQ(find(cat, 40'000), zem_yes);
  EXPECT_EQ(it.doc, 30'000U);
  EXPECT_EQ(find(cat, 10'000), zem_ok);
  EXPECT_FALSE(zem_xiter_stands(it));
  EXPECT_EQ(find(emu), zem_ok);
  EXPECT_EQ(find({0, 0, 0}), zem_ok);
  EXPECT_EQ(find({1, 0, 2}), zem_ok);
  EXPECT_EQ(find(dog, 4), zem_ok);
}

TEST_F(SpxIterTest, FirstMarksTheFirstPostingOfATermInTheFile) {
  write_three_blocks_of_cat();
  std::vector<data_posting> firsts;
  ASSERT_EQ(zem_spx_iterd_first(*spx, it), zem_ok);
  while (zem_xiter_stands(it)) {
    if (it.first) firsts.push_back({it.term, it.doc});
    ASSERT_EQ(zem_spx_iterd_next(*spx, it), zem_ok);
  }
  EXPECT_THAT(firsts,
              ElementsAre(data_posting{ant, 4}, data_posting{cat, 30'000}, data_posting{dog, 6}));
}

TEST_F(SpxIterTest, QueryReadsOnlyBlocksOfItsTermAndEachOnce) {
  start_file();
  insert(ant, 4);
  insert_falling(cat, 30'000, format::postings_max * 2);
  ASSERT_EQ(zem_spx_commit(*spx, xblk), zem_ok);
  insert(dog, 5);  // at the head of a block: cat ends with the block before
  finish();
  ASSERT_EQ(spx->tree.count, 4);

  const faulty_files files;
  ASSERT_EQ(find(ant), zem_yes);
  EXPECT_THAT(rest_of_term(), ElementsAre(4));
  EXPECT_EQ(files.count(file_op::read), 1);
  ASSERT_EQ(find(cat), zem_yes);
  EXPECT_EQ(rest_of_term().size(), format::postings_max * 2);
  EXPECT_EQ(files.count(file_op::read), 3);
  ASSERT_EQ(find(cat), zem_yes);
  EXPECT_EQ(rest_of_term().size(), format::postings_max * 2);
  EXPECT_EQ(files.count(file_op::read), 3);
  ASSERT_EQ(find(dog), zem_yes);
  EXPECT_EQ(files.count(file_op::read), 4);
}

TEST_F(SpxIterTest, ScanLeavesTheCacheAlone) {
  write_three_blocks_of_cat();
  {
    const faulty_files files;
    EXPECT_EQ(postings().size(), 20'003U);
    EXPECT_EQ(files.count(file_op::read), 3);
  }
  for (std::uint32_t blk_no = 1; blk_no <= 3; ++blk_no)
    EXPECT_EQ(zem_cache_read(spx->cache, blk_no), nullptr);
}

TEST_F(SpxIterTest, CursorOutlivesAnEvictionOfItsBlock) {
  write_three_blocks_of_cat();
  ASSERT_EQ(find(cat), zem_yes);
  zem_cache_clear(spx->cache);
  EXPECT_EQ(rest_of_term().size(), 20'000U);
}

TEST_F(SpxIterTest, FailedReadLeavesTheCursorOnNothing) {
  write_three_blocks_of_cat();
  faulty_files files;
  ASSERT_EQ(find(cat), zem_yes);
  files.fail_from(1, EIO, {file_op::read});
  EXPECT_EQ(find(dog), zem_status{-EIO});
  EXPECT_FALSE(zem_xiter_stands(it));
  EXPECT_EQ(zem_spx_iterd_first(*spx, it), zem_status{-EIO});
  ASSERT_EQ(find(cat), zem_yes);  // its first block is in the cache
  EXPECT_EQ(zem_spx_iter_skip(*spx, it, zem_xiter_run(it).size() / format::id_size),
            zem_status{-EIO});
  EXPECT_FALSE(zem_xiter_stands(it));
  files.fail_none();
  EXPECT_EQ(find(dog), zem_yes);
}

// A merge moves what one file holds to another in runs. Nothing may tell it from a file that was
// written posting by posting.
TEST_F(SpxIterTest, CopyByRunsEqualsTheOriginalByteForByte) {
  start_file();
  std::mt19937 random(7);
  for (std::uint32_t i = 1; i < 3000; ++i)
    insert_falling({i, i % 3, 0}, 1'000'000, random() % 40 + 1);
  insert_falling({5000, 0, 0}, 1'000'000, 30'000);
  finish();

  zem_spx copy;
  copy.file.name = directory.path("copy.dat");
  ASSERT_EQ(zem_spx_open(copy, zem_file_mode::fresh), zem_ok);
  zem_xblk out;
  zem_mkey key;
  ASSERT_EQ(zem_spx_iterd_first(*spx, it), zem_ok);
  while (zem_xiter_stands(it)) {
    const std::size_t left = zem_xiter_run(it).size() / format::id_size;
    const std::size_t count = random() % left + 1;
    ASSERT_EQ(zem_spx_insert_run(copy, out, it.term,
                                 zem_xiter_run(it).first(count * format::id_size), key, 0),
              zem_ok);
    ASSERT_EQ(zem_spx_iterd_skip(*spx, it, count), zem_ok);
  }
  ASSERT_EQ(zem_spx_finish(copy, out), zem_ok);

  EXPECT_EQ(copy.file.size, spx->file.size);
  EXPECT_EQ(copy.blk_num, spx->blk_num);
  EXPECT_EQ(zem_mkey_compare(key, mkey.term, mkey.id), 0);
  std::vector<std::byte> block(zem_block_size);
  for (std::uint32_t blk_no = 0; blk_no <= spx->blk_num; ++blk_no) {
    ASSERT_EQ(zem_file_read(copy.file, std::uint64_t{blk_no} * zem_block_size, block), zem_ok);
    EXPECT_EQ(block, read_block(blk_no)) << blk_no;
  }
}

struct model_case {
  std::uint32_t terms;
  std::uint32_t ids;
  std::size_t postings;
  int searches;
};
class SpxModelTest : public SpxIterTest, public ::testing::WithParamInterface<model_case> {};

// Random postings, random commits in between (they end blocks early) and random searches.
TEST_P(SpxModelTest, SearchesAndWalksAgreeWithAMap) {
  const model_case shape = GetParam();
  const unsigned seed = 1000 + shape.terms;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  const auto random_term = [&] {
    const auto number = static_cast<std::uint32_t>(random() % shape.terms);
    return zem_term{number / 16, number / 4 % 4, number % 4};
  };
  const auto random_id = [&] { return random() % 50 == 0 ? zem_id_first : random() % shape.ids; };
  std::map<zem_term, std::set<std::uint64_t, std::greater<>>> model;
  for (std::size_t i = 0; i < shape.postings; ++i)
    model[random_term()].insert(random_id());

  start_file();
  std::vector<data_posting> all;
  for (const auto &[term, term_ids] : model) {
    for (const std::uint64_t id : term_ids) {
      insert(term, id);
      all.push_back({term, id});
      if (random() % 500 == 0) {
        ASSERT_EQ(zem_spx_commit(*spx, xblk), zem_ok);
      }
    }
  }
  finish();
  ASSERT_EQ(reopen(), zem_ok);

  EXPECT_EQ(postings(), all);
  EXPECT_EQ(spx->key_num, model.size());
  EXPECT_EQ(spx->doc_num, all.size());
  for (int i = 0; i < shape.searches; ++i) {
    const zem_term term = random_term();
    const std::uint64_t id = random() % 3 == 0 ? zem_id_first : random() % shape.ids;
    std::vector<std::uint64_t> expected;
    if (const auto found = model.find(term); found != model.end())
      expected.assign(found->second.lower_bound(id), found->second.end());
    ASSERT_EQ(find(term, id), expected.empty() ? zem_ok : zem_yes);
    if (expected.empty()) continue;
    EXPECT_EQ(it.first, expected.size() == model[term].size());
    const std::vector<std::uint64_t> found = i % 2 == 0 ? rest_of_term() : rest_of_term_by_runs();
    ASSERT_EQ(found, expected);
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, SpxModelTest,
                         ::testing::Values(model_case{3, 40'000, 60'000, 60},
                                           model_case{400, 500, 40'000, 2000},
                                           model_case{40'000, 20, 30'000, 2000}));

}  // namespace
