#include <array>
#include <chrono>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <new>
#include <set>
#include <sys/mman.h>
#include <thread>
#include <vector>

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

bool is_mapped(void *block) {
  unsigned char resident = 0;
  return mincore(block, 1, &resident) == 0;
}

TEST(Pool, SpareBlocksGoToWhoComesNextAndAreNotKeptWhenNobodyDoes) {
  constexpr std::size_t bytes = std::size_t{2} << 20;
  constexpr auto huge = zem_pool_pages::huge;
  constexpr std::uint64_t micros = 1000;
  zem_pool_trim(0);
  void *const used = zem_pool_map(bytes, huge);
  void *const idle = zem_pool_map(bytes, huge);
  zem_pool_unmap(idle, bytes, huge);
  zem_pool_unmap(used, bytes, huge);
  EXPECT_EQ(zem_pool_map(bytes, huge), used);
  zem_pool_unmap(used, bytes, huge);
  std::this_thread::sleep_for(std::chrono::microseconds(2 * micros));
  zem_pool_trim(micros);
  EXPECT_TRUE(is_mapped(idle)) << "came since";

  EXPECT_EQ(zem_pool_map(bytes, huge), used);
  zem_pool_unmap(used, bytes, huge);
  std::this_thread::sleep_for(std::chrono::microseconds(2 * micros));
  zem_pool_trim(micros);
  EXPECT_TRUE(is_mapped(used) && !is_mapped(idle)) << "one of two was needed";
  zem_pool_trim(0);
  EXPECT_FALSE(is_mapped(idle) || is_mapped(used));

  std::vector<void *> blocks(zem_pool_spare_bytes / bytes + 1);
  for (void *&block : blocks)
    block = zem_pool_map(bytes, huge);
  for (void *block : blocks)
    zem_pool_unmap(block, bytes, huge);
  EXPECT_TRUE(is_mapped(blocks.front()));
  EXPECT_FALSE(is_mapped(blocks.back())) << "more than may be kept";
  zem_pool_trim(0);
}

}  // namespace
