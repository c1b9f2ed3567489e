#include "src/cache.h"

#include <atomic>
#include <gmock/gmock.h>
#include <memory>
#include <thread>
#include <vector>

namespace {

class CacheTest : public ::testing::Test {
 protected:
  CacheTest() {
    cache.limit = 1;  // 16 blocks
    for (int i = 0; i <= 40; ++i)
      blocks.push_back(std::make_shared<zem_block>());
  }
  void write(std::uint32_t blk_no) { zem_cache_write(cache, blk_no, blocks[blk_no]); }
  // The numbers of the blocks that are still there; reading them also makes them the latest.
  std::vector<std::uint32_t> held() {
    std::vector<std::uint32_t> found;
    for (std::uint32_t blk_no = 1; blk_no <= 40; ++blk_no)
      if (zem_cache_read(cache, blk_no) == blocks[blk_no]) found.push_back(blk_no);
    return found;
  }

  zem_cache cache;
  std::vector<std::shared_ptr<const zem_block>> blocks;
};

TEST_F(CacheTest, TrimEvictsTheLeastRecentlyUsedFromTheLimitToBelowThreeQuarters) {
  for (std::uint32_t blk_no = 1; blk_no <= 15; ++blk_no)
    write(blk_no);
  zem_cache_trim(cache);
  zem_cache_write(cache, 15, std::make_shared<zem_block>());  // the first of a number stays
  write(16);
  for (const std::uint32_t blk_no : {2U, 1U, 16U, 16U, 3U})
    zem_cache_read(cache, blk_no);
  zem_cache_trim(cache);
  EXPECT_THAT(held(), testing::ElementsAre(1, 2, 3, 9, 10, 11, 12, 13, 14, 15, 16));
}

TEST_F(CacheTest, ReadersWritersAndTrimsRunTogether) {
  std::atomic<int> wrong = 0;
  const auto work = [&](std::uint32_t start) {
    for (std::uint32_t i = 0; i < 2000; ++i) {
      const std::uint32_t blk_no = (start + i * 7) % 40;
      const auto block = zem_cache_read(cache, blk_no);
      if (block == nullptr) write(blk_no);
      if (block != nullptr && block != blocks[blk_no]) ++wrong;
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
  EXPECT_LT(held().size(), 16U);
}

}  // namespace
