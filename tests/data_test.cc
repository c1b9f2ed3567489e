// Settings, handle maps, key lists and composite keys.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "include/zem_sdb.h"
#include "src/data_config.h"
#include "src/data_handles.h"
#include "src/data_keys.h"
#include "src/shard_key.h"

namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

// ---- settings

class ConfigTest : public testing::Test {
 protected:
  ConfigTest() {
    std::string name = testing::TempDir() + "sdb_config_XXXXXX";
    directory = ::mkdtemp(name.data());
    path = directory / "sdb.xml";
  }
  ~ConfigTest() override { std::filesystem::remove_all(directory); }

  void write(std::string_view text) const { std::ofstream(path, std::ios::binary) << text; }
  std::string text() const {
    std::ostringstream held;
    held << std::ifstream(path, std::ios::binary).rdbuf();
    return held.str();
  }
  zem_status read() { return zem_cfg_read(cfg, path); }

  std::filesystem::path directory;
  std::string path;
  zem_cfg cfg{.thread_num = 77, .commit_num = 77, .merge_num = 77};  // none is a default
};

void expect_defaults(const zem_cfg &cfg) {
  EXPECT_EQ(cfg.thread_num, 2U);
  EXPECT_EQ(cfg.cache_log, 8U);
  EXPECT_EQ(cfg.cache_key, 16U);
  EXPECT_EQ(cfg.cache_val, 16U);
  EXPECT_EQ(cfg.commit_num, 8192U);
  EXPECT_EQ(cfg.merge_num, 8U);
  EXPECT_EQ(cfg.split_num, 512U);
  EXPECT_EQ(cfg.flush_time, 60U);
  EXPECT_EQ(cfg.commit_time, 50U);
  EXPECT_EQ(cfg.merge_time, 20U);
}

TEST_F(ConfigTest, FreshFileHoldsTenDefaultsInOrder) {
  write("what stood there before, and is longer than what comes");
  ASSERT_EQ(zem_cfg_write(path), zem_ok);

  EXPECT_EQ(text(),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<table>\n"
            "  <thread_num>2</thread_num>\n"
            "  <cache_log>8</cache_log>\n"
            "  <cache_key>16</cache_key>\n"
            "  <cache_val>16</cache_val>\n"
            "  <commit_num>8192</commit_num>\n"
            "  <merge_num>8</merge_num>\n"
            "  <split_num>512</split_num>\n"
            "  <flush_time>60</flush_time>\n"
            "  <commit_time>50</commit_time>\n"
            "  <merge_time>20</merge_time>\n"
            "</table>\n");
  EXPECT_EQ(read(), zem_ok);
  expect_defaults(cfg);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}), 1)
      << "no temporary file stays behind";
}

TEST_F(ConfigTest, ElementsComeInAnyOrderAmongOthers) {
  write(
      "<anything><merge_time>0</merge_time><colour>3</colour><thread_num>5</thread_num>"
      "<nested><split_num>9</split_num></nested><cache_val>4000000000</cache_val>"
      "<flush_time>7</flush_time><flush_time>8</flush_time><commit_time/></anything>");

  EXPECT_EQ(read(), zem_ok);

  EXPECT_EQ(cfg.merge_time, 0U);
  EXPECT_EQ(cfg.thread_num, 5U);
  EXPECT_EQ(cfg.split_num, 512U);  // only children of the root count
  EXPECT_EQ(cfg.cache_val, 4000000000U);
  EXPECT_EQ(cfg.flush_time, 7U);
  EXPECT_EQ(cfg.commit_time, 50U);
  EXPECT_EQ(cfg.commit_num, 8192U);
}

TEST_F(ConfigTest, MissingFileMeansDefaults) {
  EXPECT_EQ(read(), zem_ok);
  expect_defaults(cfg);
}

TEST_F(ConfigTest, UnusableFileMeansDefaultsAndSaysSo) {
  write("<table><thread_num>5</thread_num>");
  EXPECT_EQ(read(), -EINVAL);
  expect_defaults(cfg);

  write("<table><thread_num>5</thread_num></table>" + std::string(1 << 20, ' '));
  EXPECT_EQ(read(), -EFBIG);
  expect_defaults(cfg);

  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  EXPECT_EQ(read(), -EISDIR);
  expect_defaults(cfg);
}

// One text in the element of a setting that takes every 32-bit number, default 60.
TEST_F(ConfigTest, NumbersAreReadUpToTheFirstOtherCharacter) {
  const std::vector<std::pair<std::string, std::uint32_t>> cases = {
      {"7", 7},
      {" \t\r\n7", 7},
      {"+7", 7},
      {"007", 7},
      {"7 seconds", 7},
      {"7.9", 7},
      {"", 60},
      {"  ", 60},
      {"-", 60},
      {"+-7", 60},
      {"- 7", 60},
      {"seven", 60},
      {"-1", 4294967295},
      {"4294967295", 4294967295},
      {"4294967298", 2},
      {"9223372036854775807", 4294967295},
      {"9223372036854775808", 4294967295},
      {"99999999999999999999999999", 4294967295},
      {"-9223372036854775807", 1},
      {"-9223372036854775808", 0},
      {"-99999999999999999999999999", 0},
  };
  for (const auto &[number, value] : cases) {
    write("<table><flush_time>" + number + "</flush_time></table>");
    EXPECT_EQ(read(), zem_ok);
    EXPECT_EQ(cfg.flush_time, value) << '"' << number << '"';
  }
}

TEST_F(ConfigTest, ValuesOutOfRangeAreClamped) {
  struct range {
    const char *key;
    std::uint32_t zem_cfg::*field;
    std::uint32_t least;
    std::uint32_t most;
  };
  const std::vector<range> ranges = {
      {"thread_num", &zem_cfg::thread_num, 1, 256}, {"merge_num", &zem_cfg::merge_num, 1, 4095},
      {"split_num", &zem_cfg::split_num, 1, 4095},  {"cache_log", &zem_cfg::cache_log, 0, 4095},
      {"cache_key", &zem_cfg::cache_key, 0, 4095},  {"commit_num", &zem_cfg::commit_num, 1, ~0U}};
  for (const range &each : ranges) {
    const auto reads_as = [&](std::uint32_t number) {
      write("<table><" + std::string(each.key) + ">" + std::to_string(number) + "</" + each.key +
            "></table>");
      EXPECT_EQ(read(), zem_ok);
      return cfg.*each.field;
    };
    EXPECT_EQ(reads_as(0), each.least) << each.key;
    EXPECT_EQ(reads_as(each.most), each.most) << each.key;
    EXPECT_EQ(reads_as(each.most < ~0U ? each.most + 1 : each.most), each.most) << each.key;
  }
}

TEST(ConfigBytes, LargestSettingDoesNotWrap) {
  EXPECT_EQ(zem_cfg_bytes(4096), std::uint64_t{1} << 32);
}

// ---- handle maps

struct counter {
  std::atomic<bool> alive = true;
  std::atomic<int> calls = 0;
};

class HandlesTest : public testing::Test {
 protected:
  HandlesTest() { ref.obj = &object; }

  counter object;
  zem_ref<counter> ref;
  zem_hmap<counter> map;
};

TEST_F(HandlesTest, HandlesOfOneObjectGoOneByOne) {
  zem_ref<counter> closed;
  EXPECT_EQ(zem_hmap_add(map, closed), 0U);
  EXPECT_EQ(zem_hmap_add(map, ref), 1U);
  EXPECT_EQ(zem_hmap_add(map, ref), 2U);
  EXPECT_EQ(ref.refs, 2);

  zem_ref<counter> *found = &closed;
  EXPECT_EQ(zem_hmap_del(map, 1, found), &object);
  EXPECT_EQ(found, &ref);
  EXPECT_EQ(ref.refs, 1);
  EXPECT_EQ(zem_hmap_del(map, 1, found), nullptr);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(zem_hmap_del(map, 0, found), nullptr);

  EXPECT_FALSE(zem_hmap_get(map, 0));
  EXPECT_FALSE(zem_hmap_get(map, 1));
  const zem_pin<counter> pin = zem_hmap_get(map, 2);
  ASSERT_TRUE(pin);
  EXPECT_EQ(&*pin, &object);
}

TEST_F(HandlesTest, NumbersWrapPastThoseStillLive) {
  EXPECT_EQ(zem_hmap_add(map, ref), 1U);
  EXPECT_EQ(zem_hmap_add(map, ref), 2U);
  zem_ref<counter> *found = nullptr;
  zem_hmap_del(map, 1, found);
  {
    zem_write_guard held(map.lock);
    map.last = 0x4fffffff;
  }
  EXPECT_EQ(zem_hmap_add(map, ref), 0x50000000U);
  EXPECT_EQ(zem_hmap_add(map, ref), 1U);
  EXPECT_EQ(zem_hmap_add(map, ref), 3U);

  std::vector<std::uint64_t> handles;
  zem_hmap_list(map, handles);
  EXPECT_THAT(handles, UnorderedElementsAre(1, 2, 3, 0x50000000));
}

TEST_F(HandlesTest, MovedPinsCountOnce) {
  const std::uint64_t handle = zem_hmap_add(map, ref);
  {
    zem_pin<counter> first = zem_hmap_get(map, handle);
    zem_pin<counter> second(std::move(first));
    EXPECT_EQ(ref.pins, 1U);
    second = zem_hmap_get(map, handle);
    EXPECT_EQ(ref.pins, 1U);
    second = {};
    EXPECT_EQ(ref.pins, 0U);
  }
  EXPECT_EQ(ref.pins, 0U);
}

TEST_F(HandlesTest, CloseWaitsForTheLastPin) {
  const std::uint64_t handle = zem_hmap_add(map, ref);
  zem_pin<counter> first = zem_hmap_get(map, handle);
  zem_pin<counter> second = zem_hmap_get(map, handle);

  std::atomic<bool> closed = false;
  std::thread closer([&] {
    zem_ref<counter> *found = nullptr;
    zem_hmap_del(map, handle, found);
    zem_hmap_unpinned(map, *found);
    closed = true;
  });
  while (ref.pins != (zem_ref_awaited | 2))
    std::this_thread::yield();
  first = {};
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(closed);
  second = {};
  closer.join();

  EXPECT_TRUE(closed);
  EXPECT_EQ(zem_hmap_add(map, ref), handle + 1) << "the ref serves the next open";
  EXPECT_TRUE(zem_hmap_get(map, handle + 1));
}

// Callers pin what they can while the last handle is taken out and the ref released; every round
// ends, so no wake-up is lost, and the sanitizers see any touch of what was released.
TEST(HandlesRaceTest, NothingIsTouchedAfterItsRelease) {
  constexpr int rounds = 300;
  constexpr int callers = 2;
  auto map = std::make_unique<zem_hmap<counter>>();
  std::atomic<std::uint64_t> handle = 0;
  std::atomic<bool> over = false;
  std::atomic<int> dead = 0;

  std::vector<std::thread> threads;
  for (int i = 0; i < callers; ++i) {
    threads.emplace_back([&] {
      while (!over) {
        const zem_pin<counter> pin = zem_hmap_get(*map, handle);
        if (!pin) continue;
        ++pin->calls;
        if (!pin->alive) ++dead;
      }
    });
  }
  for (int round = 0; round < rounds; ++round) {
    auto object = std::make_unique<counter>();
    auto ref = std::make_unique<zem_ref<counter>>();
    ref->obj = object.get();
    handle = zem_hmap_add(*map, *ref);
    if (round % 2 == 0) std::this_thread::yield();

    zem_ref<counter> *found = nullptr;
    ASSERT_EQ(zem_hmap_del(*map, handle, found), object.get());
    zem_hmap_unpinned(*map, *found);
    object->alive = false;
  }
  over = true;
  for (std::thread &thread : threads)
    thread.join();

  EXPECT_EQ(dead, 0);
}

// The map itself may go as soon as the wait is over.
TEST(HandlesRaceTest, MapGoesRightAfterTheLastPin) {
  for (int round = 0; round < 500; ++round) {
    counter object;
    auto ref = std::make_unique<zem_ref<counter>>();
    auto map = std::make_unique<zem_hmap<counter>>();
    ref->obj = &object;
    const std::uint64_t handle = zem_hmap_add(*map, *ref);
    zem_pin<counter> pin = zem_hmap_get(*map, handle);
    std::thread caller([held = std::move(pin)]() mutable { held = {}; });

    zem_ref<counter> *found = nullptr;
    zem_hmap_del(*map, handle, found);
    zem_hmap_unpinned(*map, *found);
    ref.reset();
    map.reset();
    caller.join();
  }
}

// ---- key lists

TEST(KeysTest, HostReadsWhatWasAdded) {
  const std::unique_ptr<zem_keys, decltype(&zem_sdb_keys_free)> keys(zem_sdb_keys_new(),
                                                                     zem_sdb_keys_free);
  const zem_term cat{1, 2, 3};
  std::uint64_t id = 0;
  zem_term term{};
  std::uint32_t attribute = 0;

  EXPECT_EQ(zem_sdb_keys_add(keys.get(), 42, cat.data(), 5), 1);
  zem_mkey_add({.term = {7, 8, 9}, .id = 6}, 70000, *keys);
  ASSERT_EQ(zem_sdb_keys_size(keys.get()), 2);

  EXPECT_EQ(zem_sdb_keys_fetch(keys.get(), 0, &id, term.data(), &attribute), 5U);
  EXPECT_EQ(id, 42U);
  EXPECT_EQ(term, cat);
  EXPECT_EQ(attribute, 5U);
  EXPECT_EQ(zem_sdb_keys_fetch(keys.get(), 1, nullptr, term.data(), nullptr), 70000U);
  EXPECT_EQ(term, (zem_term{7, 8, 9}));

  EXPECT_EQ(zem_sdb_keys_sid(keys.get(), 0, 7), 1);
  EXPECT_EQ(zem_sdb_keys_fetch(keys.get(), 0, &id, nullptr, nullptr), 458757U);
  EXPECT_EQ(id, 42U);
  EXPECT_EQ(zem_sdb_keys_sid(keys.get(), 1, 0xffff), 1);
  EXPECT_EQ(zem_sdb_keys_fetch(keys.get(), 1, nullptr, nullptr, nullptr), 0xffff0000U | 4464U);

  zem_sdb_keys_clear(keys.get());
  EXPECT_EQ(zem_sdb_keys_size(keys.get()), 0);
  EXPECT_EQ(zem_sdb_keys_add(keys.get(), 1, cat.data(), 1), 1);
  EXPECT_EQ(zem_sdb_keys_size(keys.get()), 1);
}

TEST(KeysTest, RowsThatAreNotThereWriteNothing) {
  zem_keys keys;
  zem_keys_add(keys, 42, {1, 2, 3}, 5);
  std::uint64_t id = 99;
  zem_term term{99, 99, 99};
  std::uint32_t attribute = 99;

  for (const std::int64_t index : {std::int64_t{-1}, std::int64_t{1}, INT64_MIN, INT64_MAX}) {
    EXPECT_EQ(zem_sdb_keys_fetch(&keys, index, &id, term.data(), &attribute), 0U);
    EXPECT_EQ(zem_sdb_keys_sid(&keys, index, 7), 0);
  }
  EXPECT_EQ(zem_sdb_keys_fetch(nullptr, 0, &id, term.data(), &attribute), 0U);
  EXPECT_EQ(zem_sdb_keys_sid(nullptr, 0, 7), 0);
  EXPECT_EQ(zem_sdb_keys_add(nullptr, 1, term.data(), 1), 0);
  EXPECT_EQ(zem_sdb_keys_add(&keys, 1, nullptr, 1), 0);
  EXPECT_EQ(zem_sdb_keys_size(nullptr), 0);
  zem_sdb_keys_clear(nullptr);
  zem_sdb_keys_free(nullptr);

  EXPECT_EQ(id, 99U);
  EXPECT_EQ(term, (zem_term{99, 99, 99}));
  EXPECT_EQ(attribute, 99U);
  EXPECT_THAT(keys.attrs, ElementsAre(5U));
}

// ---- composite keys

TEST(MkeyTest, KeyRisesToTheLatestPosting) {
  zem_mkey mkey;
  EXPECT_FALSE(zem_mkey_copy(mkey, {0, 0, 0}, 5));
  EXPECT_TRUE(zem_mkey_copy(mkey, {0, 0, 1}, 7));
  EXPECT_FALSE(zem_mkey_copy(mkey, {0, 0, 1}, 9));
  EXPECT_FALSE(zem_mkey_copy(mkey, {0, 0, 1}, 7));
  EXPECT_TRUE(zem_mkey_copy(mkey, {0, 0, 1}, 3));
  EXPECT_FALSE(zem_mkey_copy(mkey, {0, 0, 0}, 1));
  EXPECT_EQ(mkey.term, (zem_term{0, 0, 1}));
  EXPECT_EQ(mkey.id, 3U);

  EXPECT_TRUE(zem_mkey_copy(mkey, {0, 0, 2}, 50));
  EXPECT_EQ(mkey.id, 50U);
}

TEST(MkeyTest, AllOnesIsAnIdLikeAnyOther) {
  const zem_mkey mkey{.term = {1, 2, 3}, .id = 10};
  EXPECT_GT(zem_mkey_compare(mkey, {1, 2, 3}, 12), 0);
  EXPECT_LT(zem_mkey_compare(mkey, {1, 2, 3}, 8), 0);
  EXPECT_EQ(zem_mkey_compare(mkey, {1, 2, 3}, 10), 0);
  EXPECT_EQ(zem_mkey_compare({.term = {1, 2, 3}, .id = zem_id_first}, {1, 2, 3}, zem_id_first), 0);
}

TEST(MkeyTest, TermsCrossTheInterfaceAsHeadAndThird) {
  const zem_term term = zem_term_join(0x1122334455667788, 9);
  EXPECT_EQ(term, (zem_term{0x55667788, 0x11223344, 9}));
  EXPECT_EQ(zem_term_head(term), 0x1122334455667788U);
}

}  // namespace
