#include "base/idmap.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <random>

namespace {

TEST(IdMapTest, CountsAsAMapDoes) {
  std::mt19937_64 random(11);
  zem_idmap map;
  std::map<std::uint64_t, std::uint64_t> expected;
  for (int i = 0; i < 200'000; ++i) {
    // Neighbours and ids that differ in their high bits only, as hosts give them; the greatest too.
    std::uint64_t id = 1 + random() % 30'000;
    if (random() % 2 == 0) id = id == 1 ? ~std::uint64_t{0} : id << 44;
    zem_idmap_reserve(map, 1);
    zem_idmap_add(map, id);
    ++expected[id];
  }
  std::map<std::uint64_t, std::uint64_t> found;
  for (const zem_idmap_slot &slot : map.slots)
    if (slot.id != 0) found[slot.id] += slot.count;
  EXPECT_EQ(found, expected);
  EXPECT_EQ(found.size(), map.used);
}

}  // namespace
