// Reads across the shards of a table.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <utility>
#include <vector>

#include "tests/support/table_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr zem_status no_shard{ZEM_SDB_E_SHARD};

class TableQueryTest : public TableTest {
 protected:
  struct item {
    zem_term low;
    std::uint32_t span01 = 0;
    std::uint32_t span2 = 0;
  };
  std::map<std::uint64_t, std::uint32_t> query(const std::vector<item> &items) {
    zem_var heads;
    zem_var thirds;
    zem_var ids;
    for (zem_var *list : {&heads, &thirds, &ids})
      list->tagged = true;
    for (const item &each : items) {
      zem_var_add_long(&heads, zem_term_head(each.low));
      zem_var_set_buf(&heads, -1, each.span01);
      zem_var_add_integer(&thirds, each.low[2]);
      zem_var_set_buf(&thirds, -1, each.span2);
    }
    EXPECT_EQ(zem_table_query(*table, heads, thirds, ids), zem_ok);
    std::map<std::uint64_t, std::uint32_t> counts;
    for (std::size_t i = 0; i < ids.values.size(); ++i)
      EXPECT_TRUE(counts.emplace(ids.values[i], ids.tags[i]).second);
    return counts;
  }
};

TEST_F(TableQueryTest, ATermIsFoundInItsShardAndAcrossABorder) {
  make({at(10, 5), at(20, 5), at(30, 5)});
  ASSERT_EQ(insert({at(10, 7), at(10, 2), at(15, 3), at(99, 4)}), zem_ok);
  ASSERT_EQ(route(), zem_ok);
  // The term of the first shard's high key goes on in the second.
  EXPECT_THAT(query({{{10, 0, 0}}}),
              ElementsAre(std::pair{2, 1}, std::pair{5, 1}, std::pair{7, 1}));
  EXPECT_THAT(query({{{15, 0, 0}}}), ElementsAre(std::pair{3, 1}));
  EXPECT_THAT(query({{{99, 0, 0}}}), ElementsAre(std::pair{4, 1}));
  EXPECT_THAT(query({{{16, 0, 0}}}), IsEmpty());
  EXPECT_THAT(query({}), IsEmpty());
}

TEST_F(TableQueryTest, EachItemThatFindsAnIdCounts) {
  make({at(10, 5), at(20, 5)});
  ASSERT_EQ(insert({at(1, 5), at(11, 5), at(11, 6)}), zem_ok);
  ASSERT_EQ(route(), zem_ok);
  EXPECT_THAT(query({{{1, 0, 0}}, {{11, 0, 0}}, {{11, 0, 0}}, {{10, 0, 0}}}),
              ElementsAre(std::pair{5, 4}, std::pair{6, 2}));
}

TEST_F(TableQueryTest, SpansThatWrapFindNothing) {
  make({at(10, 5), at(20, 5)});
  EXPECT_THAT(query({{{10, 0, 0}, 5, 5}}), ElementsAre(std::pair{5, 1}));
  EXPECT_THAT(query({{{10, 0, 0}, 0xFFFFFFFF, 0}}), IsEmpty());
}

TEST_F(TableTest, TheShardMapHasARowForEachShardByNumber) {
  make({at(10, 5), at(20, 5)});
  ASSERT_EQ(insert({at(77, 3)}), zem_ok);
  ASSERT_EQ(route(), zem_ok);
  zem_keys keys;
  ASSERT_EQ(zem_table_shards(*table, keys), zem_ok);
  EXPECT_THAT(keys.attrs, ElementsAre(1, 2));
  EXPECT_THAT(keys.term0, ElementsAre(10, 77));
  EXPECT_THAT(keys.ids, ElementsAre(5, 3));
}

TEST_F(TableTest, KeyCountsTellLogFromData) {
  make({at(10, 5), at(20, 5)});
  ASSERT_EQ(table.merge(), zem_yes);
  ASSERT_EQ(insert({at(1, 1), at(2, 1), at(2, 2)}), zem_ok);
  ASSERT_EQ(route(), zem_ok);
  std::uint64_t log_count = 9;
  std::uint64_t dat_count = 9;
  EXPECT_EQ(zem_table_key_count(*table, 1, log_count, dat_count), zem_ok);
  EXPECT_EQ(log_count, 2);
  EXPECT_EQ(dat_count, 1);
  EXPECT_EQ(zem_table_key_count(*table, 3, log_count, dat_count), no_shard);
  EXPECT_EQ(log_count, 0);
  EXPECT_EQ(dat_count, 0);
  zem_table_totals totals;
  EXPECT_EQ(zem_table_count(*table, totals), zem_ok);
  EXPECT_EQ(totals.xcount, 5);
}

}  // namespace
