#include "src/cache.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::shared_ptr<const zem_block> make_block(unsigned char mark) {
  auto block = std::make_shared<zem_block>();
  block->bytes[0] = std::byte{mark};
  return block;
}

class CacheTest : public ::testing::Test {
 protected:
  void write(std::uint32_t blk_no) { zem_cache_write(cache, blk_no, make_block(1)); }
  void fill(std::uint32_t count) {
    for (std::uint32_t blk_no = 1; blk_no <= count; ++blk_no)
      write(blk_no);
  }
  bool holds(std::uint32_t blk_no) { return zem_cache_read(cache, blk_no) != nullptr; }
  // Blocks 1 to `count` that are still there; reading them also makes them the latest in this order.
  std::vector<std::uint32_t> held(std::uint32_t count) {
    std::vector<std::uint32_t> found;
    for (std::uint32_t blk_no = 1; blk_no <= count; ++blk_no)
      if (holds(blk_no)) found.push_back(blk_no);
    return found;
  }

  zem_cache cache;
};

TEST_F(CacheTest, FirstBlockOfANumberStays) {
  EXPECT_FALSE(holds(7));
  const auto first = make_block(1);
  zem_cache_write(cache, 7, first);
  zem_cache_write(cache, 7, make_block(2));
  EXPECT_EQ(zem_cache_read(cache, 7), first);
  EXPECT_FALSE(holds(8));
}

TEST_F(CacheTest, TrimStartsAtTheLimitAndEndsBelowThreeQuarters) {
  cache.limit = 1;  // 16 blocks
  fill(15);
  zem_cache_trim(cache);
  EXPECT_EQ(held(16).size(), 15U);

  write(16);
  zem_cache_trim(cache);
  EXPECT_THAT(held(16), ElementsAre(6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16));
  EXPECT_FALSE(holds(5));
}

TEST_F(CacheTest, TrimEvictsTheLeastRecentlyUsed) {
  cache.limit = 1;
  fill(16);
  for (const std::uint32_t blk_no : {2U, 1U, 16U, 16U, 3U})
    EXPECT_TRUE(holds(blk_no));
  zem_cache_trim(cache);
  EXPECT_THAT(held(16), ElementsAre(1, 2, 3, 9, 10, 11, 12, 13, 14, 15, 16));
}

TEST_F(CacheTest, WithoutALimitNothingIsEvicted) {
  fill(40);
  zem_cache_trim(cache);
  EXPECT_EQ(held(40).size(), 40U);
}

TEST_F(CacheTest, EvictionAndClearLeaveReadersTheirBlock) {
  zem_cache_write(cache, 1, make_block(9));
  const auto kept = zem_cache_read(cache, 1);
  zem_cache_clear(cache);
  EXPECT_FALSE(holds(1));
  EXPECT_EQ(kept->bytes[0], std::byte{9});
  write(1);
  EXPECT_TRUE(holds(1));
}

TEST_F(CacheTest, SwapExchangesBlocksAndLimits) {
  zem_cache other;
  other.limit = 1;
  fill(20);
  zem_cache_swap(cache, other);
  EXPECT_THAT(held(20), IsEmpty());
  zem_cache_trim(cache);
  zem_cache_trim(other);  // the limit stays with the record it was given to, now the other's
  zem_cache_swap(cache, other);
  EXPECT_EQ(held(20).size(), 20U);
}

TEST_F(CacheTest, ReadersWritersAndTrimsRunTogether) {
  cache.limit = 1;
  std::vector<std::shared_ptr<const zem_block>> blocks;
  for (unsigned char mark = 0; mark < 40; ++mark)
    blocks.push_back(make_block(mark));
  std::atomic<int> wrong = 0;
  const auto work = [&](std::uint32_t start) {
    for (std::uint32_t i = 0; i < 2000; ++i) {
      const std::uint32_t blk_no = (start + i * 7) % 40;
      const auto block = zem_cache_read(cache, blk_no);
      if (block == nullptr) {
        zem_cache_write(cache, blk_no, blocks[blk_no]);
      } else if (block != blocks[blk_no]) {
        ++wrong;
      }
      zem_cache_trim(cache);
      if (start == 0 && i % 500 == 499) zem_cache_clear(cache);
    }
  };
  std::vector<std::thread> threads;
  for (std::uint32_t start = 0; start < 4; ++start)
    threads.emplace_back(work, start * 10);
  for (std::thread &thread : threads)
    thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_LT(held(40).size(), 16U);
}

}  // namespace
