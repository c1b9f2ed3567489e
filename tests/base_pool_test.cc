#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <new>
#include <set>

#include "base/pool.h"

namespace {

struct record {
  std::uint64_t words[6];
};

// Takes `count` records, each of which must be zero and at an address of its own, and fills them.
void take(zem_pool<record> &pool, std::size_t count) {
  std::set<record *> taken;
  for (std::size_t i = 0; i < count; ++i) {
    record *const one = zem_pool_new(pool);
    for (const std::uint64_t word : one->words)
      ASSERT_EQ(word, 0U);
    *one = {{1, 2, 3, 4, 5, 6}};
    ASSERT_TRUE(taken.insert(one).second);
  }
}

// Blocks on the heap and blocks mapped on their own.
class PoolTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(PoolTest, RecordsAreZeroHoweverOftenTheyWereUsed) {
  zem_pool<record> pool(GetParam());
  take(pool, 3 * GetParam() + 1);
  const std::uint64_t held_bytes = zem_pool_msize(pool);
  EXPECT_EQ(held_bytes, 4 * GetParam() * sizeof(record));

  zem_pool_empty(pool);
  take(pool, 4 * GetParam());
  EXPECT_EQ(zem_pool_msize(pool), held_bytes);

  zem_pool_term(pool);
  EXPECT_EQ(zem_pool_msize(pool), 0U);
  take(pool, 1);
}

TEST_P(PoolTest, ReservedRecordsTakeNoMoreMemory) {
  zem_pool<record> pool(GetParam());
  take(pool, 1);
  zem_pool_reserve(pool, 2 * GetParam());
  const std::uint64_t held_bytes = zem_pool_msize(pool);
  take(pool, 2 * GetParam());
  EXPECT_EQ(zem_pool_msize(pool), held_bytes);
}

INSTANTIATE_TEST_SUITE_P(Units, PoolTest, ::testing::Values(1, 10, 5000));

TEST(Pool, ABlockThatCannotBeHadChangesNothing) {
  zem_pool<record> pool(std::numeric_limits<std::size_t>::max() / 4 / sizeof(record));
  EXPECT_THROW(zem_pool_new(pool), std::bad_alloc);
  EXPECT_EQ(zem_pool_msize(pool), 0U);
}

}  // namespace
