#include <atomic>
#include <cstdint>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "include/zem_sdb.h"
#include "src/data_config.h"
#include "src/data_handles.h"
#include "src/data_keys.h"
#include "tests/support/temp_dir.h"

namespace {

class ConfigTest : public testing::Test {
 protected:
  std::uint32_t read_as(std::uint32_t zem_cfg::*field, const std::string &key,
                        const std::string &number) {
    std::ofstream(dir.path("sdb.xml")) << "<t><" << key << '>' << number << "</" << key << "></t>";
    EXPECT_EQ(zem_cfg_read(cfg, dir.path("sdb.xml")), zem_ok);
    return cfg.*field;
  }

  temp_dir dir;
  zem_cfg cfg;
};

TEST_F(ConfigTest, NumbersAreReadUpToTheFirstOtherCharacterAndClamped) {
  constexpr std::uint32_t greatest = ~0U;
  const auto expect = [&](std::uint32_t value, std::initializer_list<const char *> numbers) {
    for (const char *number : numbers)
      EXPECT_EQ(read_as(&zem_cfg::flush_time, "flush_time", number), value) << number;
  };
  expect(7, {" \t\r\n7", "+7", "007", "7.9"});
  expect(60, {"  ", "-", "+-7", "- 7", "seven"});
  expect(greatest, {"-1", "4294967295", "9223372036854775807", "9223372036854775808"});
  expect(2, {"4294967298"});
  expect(1, {"-9223372036854775807"});
  expect(0, {"-9223372036854775808", "-99999999999999999999999999"});
  for (const auto &[key, field] : {std::pair{"thread_num", &zem_cfg::thread_num},
                                   {"merge_num", &zem_cfg::merge_num},
                                   {"split_num", &zem_cfg::split_num},
                                   {"cache_log", &zem_cfg::cache_log}}) {
    const std::uint32_t most = field == &zem_cfg::thread_num ? 256 : 4095;
    EXPECT_EQ(read_as(field, key, "0"), field == &zem_cfg::cache_log ? 0U : 1U) << key;
    EXPECT_EQ(read_as(field, key, std::to_string(most)), most) << key;
    EXPECT_EQ(read_as(field, key, std::to_string(most + 1)), most) << key;
  }
}

struct counter {
  std::atomic<bool> alive = true;
};

TEST(HandlesTest, NumbersWrapPastThoseStillLive) {
  counter object;
  zem_ref<counter> ref;
  zem_hmap<counter> map;
  ref.obj = &object;
  EXPECT_EQ(zem_hmap_add(map, ref), 1U);
  EXPECT_EQ(zem_hmap_add(map, ref), 2U);
  zem_ref<counter> *found = nullptr;
  EXPECT_EQ(zem_hmap_del(map, 1, found), &object);
  EXPECT_EQ(zem_hmap_del(map, 1, found), nullptr);
  {
    zem_write_guard held(map.lock);
    map.last = 0x4fffffff;
  }
  EXPECT_EQ(zem_hmap_add(map, ref), 0x50000000U);
  EXPECT_EQ(zem_hmap_add(map, ref), 1U);
  EXPECT_EQ(zem_hmap_add(map, ref), 3U);
  std::vector<std::uint64_t> handles;
  while (const std::uint64_t handle = zem_hmap_any(map)) {
    handles.push_back(handle);
    zem_hmap_del(map, handle, found);
  }
  EXPECT_THAT(handles, testing::UnorderedElementsAre(1, 2, 3, 0x50000000));
}

// Callers pin what they can while the last handle is taken out and the ref released; every round
// ends, so no wake-up is lost, and the sanitizers see any touch of what was released.
TEST(HandlesTest, NothingIsTouchedAfterItsRelease) {
  std::atomic<int> dead = 0;
  for (int round = 0; round < 300; ++round) {
    auto map = std::make_unique<zem_hmap<counter>>();
    auto object = std::make_unique<counter>();
    auto ref = std::make_unique<zem_ref<counter>>();
    ref->obj = object.get();
    const std::uint64_t handle = zem_hmap_add(*map, *ref);
    std::vector<std::thread> callers;
    for (int i = 0; i < 2; ++i) {
      callers.emplace_back([&, first = zem_hmap_get(*map, handle), &pins = *map]() mutable {
        for (int calls = 0; calls < round % 10; ++calls) {
          const zem_pin<counter> pin = zem_hmap_get(pins, handle);
          if (pin && !pin->alive) ++dead;
        }
        if (!first->alive) ++dead;
        first = {};
      });
    }
    if (round % 2 == 0) std::this_thread::yield();
    zem_ref<counter> *found = nullptr;
    ASSERT_EQ(zem_hmap_del(*map, handle, found), object.get());
    zem_hmap_unpinned(*map, *found);
    object->alive = false;
    ref.reset();  // the map, too, may go as soon as the wait for the pins is over
    map.reset();
    for (std::thread &caller : callers)
      caller.join();
  }
  EXPECT_EQ(dead, 0);
}

TEST(KeysTest, RowsThatAreNotThereWriteNothing) {
  zem_keys keys;
  zem_keys_add(keys, 42, {1, 2, 3}, 5);
  for (const std::int64_t index : {std::int64_t{-1}, std::int64_t{1}, INT64_MIN, INT64_MAX}) {
    EXPECT_EQ(zem_sdb_keys_fetch(&keys, index, nullptr, nullptr, nullptr), 0U);
    EXPECT_EQ(zem_sdb_keys_sid(&keys, index, 7), 0);
  }
}

}  // namespace
