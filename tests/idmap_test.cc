#include "base/idmap.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <random>
#include <vector>

namespace {

using counts = std::map<std::uint64_t, std::uint64_t>;

void add(zem_idmap &map, std::uint64_t id) {
  zem_idmap_reserve(map, 1);
  zem_idmap_add(map, id);
}

counts content(const zem_idmap &map) {
  counts found;
  for (const zem_idmap_slot &slot : map.slots) {
    if (slot.id == 0) continue;
    EXPECT_TRUE(found.emplace(slot.id, slot.count).second) << slot.id;
  }
  EXPECT_EQ(found.size(), map.used);
  return found;
}

TEST(IdMapTest, CountsAsAMapDoes) {
  constexpr std::uint64_t seed = 11;
  std::mt19937_64 random(seed);
  zem_idmap map;
  counts expected;
  for (int i = 0; i < 200'000; ++i) {
    // Neighbours and ids that differ in their high bits only, as hosts give them.
    std::uint64_t id = 1 + random() % 30'000;
    if (random() % 2 == 0) id <<= 44;
    add(map, id);
    ++expected[id];
  }
  EXPECT_EQ(content(map), expected) << "seed " << seed;
}

TEST(IdMapTest, TakesTheGreatestId) {
  zem_idmap map;
  add(map, std::numeric_limits<std::uint64_t>::max());
  add(map, 1);
  add(map, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(content(map), (counts{{1, 1}, {std::numeric_limits<std::uint64_t>::max(), 2}}));
}

// The last slots of the map run over into the first.
TEST(IdMapTest, IdsOfOneHomeAreAllFound) {
  zem_idmap map;
  zem_idmap_reserve(map, 32);
  const std::size_t last = map.slots.size() - 1;
  std::vector<std::uint64_t> ids;
  for (std::uint64_t id = 1; ids.size() < 32; ++id) {
    if (zem_idmap_home(map, id) == last) ids.push_back(id);
  }
  for (int round = 0; round < 2; ++round) {
    for (const std::uint64_t id : ids)
      zem_idmap_add(map, id);
  }
  ASSERT_EQ(map.slots.size(), last + 1);
  for (const std::uint64_t id : ids)
    EXPECT_EQ(zem_idmap_find(map, id).count, 2);
  EXPECT_EQ(map.used, ids.size());
}

TEST(IdMapTest, RoomThatWasMadeIsNotMadeAgain) {
  zem_idmap map;
  zem_idmap_reserve(map, 1000);
  const zem_idmap_slot *const place = map.slots.data();
  for (std::uint64_t id = 1; id <= 1000; ++id)
    add(map, id);
  EXPECT_EQ(map.slots.data(), place);
}

}  // namespace
