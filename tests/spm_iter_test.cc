#include "src/spm_iter.h"

#include <gtest/gtest.h>
#include <map>
#include <random>

#include "tests/support/log_file.h"

namespace {

class LogIterTest : public LogTest {
 protected:
  // The ids that a walk through one term finds, from its first id not above `from` on.
  std::vector<std::uint64_t> ids(const zem_term &term, std::uint64_t from = zem_id_first) {
    std::vector<std::uint64_t> found;
    bool stands = zem_spm_iter_find_x(*spm, iter, term, from);
    for (; stands; stands = zem_spm_iter_next(iter)) {
      EXPECT_EQ(iter.term, term);
      EXPECT_EQ(iter.val, iter.node->value);
      found.push_back(iter.doc);
    }
    EXPECT_EQ(iter.node, nullptr);
    EXPECT_EQ(iter.val, nullptr);
    return found;
  }

  zem_iter iter;
};

TEST_F(LogIterTest, AnEmptyMapHasNothingToStandOn) {
  EXPECT_FALSE(zem_spm_iter_first(*spm, iter));
  EXPECT_FALSE(zem_spm_iter_find_x(*spm, iter, cat, zem_id_first));
  EXPECT_FALSE(zem_spm_iter_next(iter));
  zem_spm_iterd_first(*spm, iter);
  EXPECT_EQ(iter.node, nullptr);
  zem_spm_iterd_next(iter);
  EXPECT_EQ(iter.node, nullptr);
}

TEST_F(LogIterTest, AWalkOfATermEndsWhereTheNextTermBegins) {
  using list = std::vector<std::uint64_t>;
  for (const std::uint64_t id : {4U, 9U, 6U})
    insert(cat, id);
  insert(dog, 5);
  remove(cat, 6);

  EXPECT_EQ(ids(cat), (list{9, 6, 4}));
  EXPECT_EQ(ids(cat, 9), (list{9, 6, 4}));
  EXPECT_EQ(ids(cat, 8), (list{6, 4}));
  EXPECT_EQ(ids(cat, 3), list{});
  EXPECT_EQ(ids(ant), list{});
  EXPECT_EQ(ids({9, 9, 9}), list{});
  EXPECT_EQ(ids(dog, 4), list{}) << "behind the last posting of the map";

  ASSERT_TRUE(zem_spm_iter_find_x(*spm, iter, cat, 6));
  EXPECT_LT(iter.val->flag, 0);
  ASSERT_TRUE(zem_spm_iter_first(*spm, iter));
  EXPECT_EQ(iter.doc, 9U);
  EXPECT_EQ(postings().size(), 4U) << "the other walk goes on over terms";
}

TEST_F(LogIterTest, AnIdOfAllOnesIsTheFirstOfItsTerm) {
  insert(cat, 7);
  insert(cat, zem_id_first);
  insert(cat, 5);
  EXPECT_EQ(ids(cat), (std::vector<std::uint64_t>{zem_id_first, 7, 5}));
  ASSERT_EQ(commit(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(ids(cat).size(), 3U);
}

// Random inserts, deletes, commits and kills against a map.
TEST_F(LogIterTest, LongRandomRunsAgreeWithAModel) {
  constexpr std::uint32_t seed = 7;
  SCOPED_TRACE(seed);
  std::mt19937 engine(seed);
  const auto random = [&](std::uint32_t below) {
    return static_cast<std::uint32_t>(engine() % below);
  };
  using key = std::pair<zem_term, std::uint64_t>;  // the id negated: falling within a term
  std::map<key, bool> model;
  std::map<key, bool> committed;
  for (int step = 0; step < 60000; ++step) {
    const zem_term term{0, random(300), 0};
    const std::uint64_t id = random(100);
    const std::uint32_t what = random(5000);
    if (what == 0) {
      ASSERT_EQ(commit(), zem_ok);
      committed = model;
    } else if (what == 1 && committed == model) {
      ASSERT_EQ(reopen(), zem_ok);
    } else if (what % 3 == 0) {
      remove(term, id);
      if (auto at = model.find({term, ~id}); at != model.end()) at->second = true;
    } else {
      insert(term, id);
      model.try_emplace({term, ~id}, false);
    }
  }
  ASSERT_EQ(commit(), zem_ok);
  std::vector<log_posting> expected;
  for (const auto &[posting, deleted] : model)
    expected.push_back({posting.first, ~posting.second, deleted});
  EXPECT_EQ(postings(), expected);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(postings(), expected);
}

}  // namespace
