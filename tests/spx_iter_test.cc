#include "src/spx_iter.h"

#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <tuple>

#include "src/spx_impl.h"
#include "tests/support/data_file.h"
#include "tests/support/faulty_files.h"

namespace format = zem_spx_format;

namespace {

class SpxIterTest : public DataFileTest {
 protected:
  zem_status find(const zem_term &term, std::uint64_t id = zem_id_first) {
    return zem_spx_iter_find_x(*spx, it, term, id);
  }
  // What a query sees from where the cursor stands, one by one or by runs.
  std::vector<std::uint64_t> rest_of_term(bool by_runs = false) {
    std::vector<std::uint64_t> ids;
    while (zem_xiter_stands(it)) {
      const std::span<const std::byte> run = zem_xiter_run(it);
      for (std::size_t i = 0; by_runs && i < run.size(); i += format::id_size)
        ids.push_back(zem_stream_get_lword(&run[i]));
      if (!by_runs) ids.push_back(it.doc);
      EXPECT_GE(by_runs ? zem_spx_iter_skip(*spx, it, run.size() / format::id_size)
                        : zem_spx_iter_next(*spx, it),
                zem_ok);
    }
    return ids;
  }

  zem_xiter it;
};

TEST_F(SpxIterTest, QueryReadsOnlyBlocksOfItsTermAndEachOnceAndScansUseNoCache) {
  start_file();
  insert(ant, 4);
  insert_falling(cat, 30'000, format::postings_max * 2);
  ASSERT_EQ(zem_spx_commit(*spx, xblk), zem_ok);
  insert(dog, 5);  // at the head of a block: cat ends with the block before
  finish();
  const faulty_files files;
  const auto expect = [&](const zem_term &term, std::size_t ids, std::uint64_t reads) {
    ASSERT_EQ(find(term), zem_yes);
    EXPECT_EQ(rest_of_term().size(), ids);
    EXPECT_EQ(files.count(file_op::read), reads);
  };
  postings();
  expect(ant, 1, 5);
  expect(cat, format::postings_max * 2, 7);
  expect(cat, format::postings_max * 2, 7);
  expect(dog, 1, 8);
}

// A block that was read once and has left the cache is read in parts, each proved by a checksum of its
// own, until it is asked for often enough to be cached again.
TEST_F(SpxIterTest, PartsOfABlockStandInForItAndBadOnesAreFound) {
  start_file();
  for (std::uint32_t word = 0; word < 700; ++word)
    insert_falling({word, 0, 0}, 100, 5);
  finish();
  ASSERT_EQ(find({1, 0, 0}), zem_yes);
  zem_cache_clear(spx->cache);
  corrupt(1, 36'000);  // a posting of a term near 666
  EXPECT_EQ(find({1, 0, 1}), zem_ok);
  ASSERT_EQ(find({2, 0, 0}), zem_yes);
  EXPECT_EQ(rest_of_term().size(), 5U);
  std::vector<std::uint32_t> bad;
  for (std::uint32_t word = 550; word < 700; ++word) {
    const zem_status st = find({word, 0, 0});
    if (st < 0) bad.push_back(word);
  }
  ASSERT_FALSE(bad.empty());
  EXPECT_TRUE(bad.front() > 600 && bad.back() < 699 && bad.size() < 25) << bad.size();
  zem_status st = zem_yes;
  for (int i = 0; i < 10'000 && st > 0; ++i)
    st = find({1, 0, 0});
  EXPECT_EQ(st, zem_status{ZEM_SDB_E_CHECKSUM});  // the whole block again
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
  EXPECT_EQ(zem_mkey_compare(key, mkey.term, mkey.id), 0);
  std::vector<std::byte> block(zem_block_size);
  for (std::uint32_t blk_no = 0; blk_no <= spx->blk_num; ++blk_no) {
    ASSERT_EQ(zem_file_read(copy.file, std::uint64_t{blk_no} * zem_block_size, block), zem_ok);
    EXPECT_EQ(block, read_block(blk_no)) << blk_no;
  }
}

// Random postings, random commits in between (they end blocks early) and random searches.
TEST_F(SpxIterTest, SearchesAndWalksAgreeWithAMap) {
  for (const auto &[terms, most, count] :
       {std::tuple{3U, 40'000U, 60'000}, {400U, 500U, 40'000}, {40'000U, 20U, 30'000}}) {
    SCOPED_TRACE(terms);
    std::mt19937_64 random(1000 + terms);
    const auto draw = [&, term_count = terms, id_count = most] {
      const auto number = static_cast<std::uint32_t>(random() % term_count);
      return data_posting{{number / 16, number / 4 % 4, number % 4},
                          random() % 50 == 0 ? zem_id_first : random() % id_count};
    };
    std::map<zem_term, std::set<std::uint64_t, std::greater<>>> model;
    for (int i = 0; i < count; ++i) {
      const data_posting drawn = draw();
      model[drawn.term].insert(drawn.id);
    }
    start_file();
    std::vector<data_posting> all;
    for (const auto &[term, term_ids] : model) {
      for (const std::uint64_t id : term_ids) {
        insert(term, id);
        all.push_back({term, id});
        const bool ends = random() % 500 == 0;
        EXPECT_EQ(ends ? zem_spx_commit(*spx, xblk) : zem_ok, zem_ok);
      }
    }
    finish();
    ASSERT_EQ(reopen(), zem_ok);
    EXPECT_EQ(postings(), all);
    EXPECT_EQ(spx->doc_num, all.size());
    for (int i = 0; i < (terms == 3 ? 60 : 2000); ++i) {
      const auto [term, id] = draw();
      if (random() % 4 != 0) zem_cache_clear(spx->cache);  // parts of blocks known by now are read
      std::vector<std::uint64_t> expected;
      if (const auto found = model.find(term); found != model.end())
        expected.assign(found->second.lower_bound(id), found->second.end());
      ASSERT_EQ(find(term, id), expected.empty() ? zem_ok : zem_yes);
      if (expected.empty()) continue;
      EXPECT_EQ(it.first, expected.size() == model[term].size());
      ASSERT_EQ(rest_of_term(i % 2 == 0), expected);
    }
  }
}

}  // namespace
