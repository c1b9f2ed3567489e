#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <new>
#include <set>

#include "base/pool.h"

namespace {

using record = std::array<std::uint64_t, 6>;

// Takes `count` records, each of which must be zero and at an address of its own, and fills them.
void take(zem_pool<record> &pool, std::size_t count) {
  std::set<record *> taken;
  for (std::size_t i = 0; i < count; ++i) {
    record *const one = zem_pool_new(pool);
    ASSERT_EQ(*one, record{});
    one->fill(7);
    ASSERT_TRUE(taken.insert(one).second);
  }
}

TEST(Pool, RecordsAreZeroHoweverOftenTheyWereUsed) {
  // Blocks on the heap, mapped ones, and such as another pool gave back before.
  for (const std::size_t units : {1U, 10U, 5000U, 60'000U, 60'000U}) {
    zem_pool<record> pool(units);
    take(pool, 1);
    zem_pool_reserve(pool, 3 * units);
    const std::uint64_t held_bytes = zem_pool_msize(pool);
    take(pool, 3 * units);
    EXPECT_EQ(zem_pool_msize(pool), held_bytes) << "was reserved";
    zem_pool_empty(pool);
    take(pool, 3 * units + 1);
    EXPECT_EQ(zem_pool_msize(pool), held_bytes) << "was kept";
  }
  zem_pool<record> pool(std::numeric_limits<std::size_t>::max() / 4 / sizeof(record));
  EXPECT_THROW(zem_pool_new(pool), std::bad_alloc);
}

}  // namespace
