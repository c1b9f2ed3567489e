// Kills and power cuts after every file operation of a table's life.

#include <algorithm>
#include <gmock/gmock.h>
#include <span>

#include "base/file.h"

#include "src/data_config.h"
#include "tests/support/crash_sweep.h"

namespace {

// The state after all operations.
disk_state end_of(const disk_story &story) {
  disk_state state = story.start;
  for (const auto &op : story.ops)
    state.apply(op);
  return state;
}

// Whether some file of the directory has exactly this content.
bool keeps(const disk_state &state, const disk_content &content) {
  const std::vector<std::string> names = state.names();
  return std::any_of(names.begin(), names.end(), [&](const std::string &name) {
    return state.find(name)->hash() == content.hash();
  });
}

TEST_F(CrashTest, CommitsOfOneBlockLoseNothing) {
  scripted_life life(shards_state(1));
  life.expect_shards(1);
  life.open();
  life.insert(keys(1, 1, 3));
  life.sync();
  life.insert(keys(1, 4, 150));
  life.insert(terms(2, 1, 60));
  life.sync();
  life.remove(keys(1, 2, 3));
  life.sync();
  life.insert(terms(3, 1, 200));
  life.sync();
  life.close();
  sweep("commits of one block", life);
}

TEST_F(CrashTest, FullBlocksLoseNothing) {
  scripted_life life(shards_state(1));
  life.expect_shards(1);
  life.open();
  life.insert(terms(1, 1, 2900));
  life.insert(terms(2, 1, 1500));
  life.sync();
  life.insert(terms(3, 1, 1600));
  life.close();
  life.open();
  life.insert(keys(4, 1, 10));
  life.sync();
  sweep("full blocks", life, nullptr);
}

TEST_F(CrashTest, TheFirstOpenLosesNothing) {
  scripted_life life(disk_state{});
  life.expect_shards(1);
  life.open();
  life.insert(keys(1, 1, 3));
  life.sync();
  life.close();
  sweep("first open", life);
}

TEST_F(CrashTest, AMergeLosesNothing) {
  scripted_life life(shards_state(1));
  life.expect_shards(1);
  life.open();
  life.insert(keys(1, 1, 20));
  life.sync();
  life.insert(keys(1, 21, 5));
  life.remove({key(1, 3), key(1, 22)});
  life.begin();
  life.insert(keys(1, 30, 5));
  life.remove({key(1, 31), key(1, 4)});
  life.insert({key(1, 3)});
  life.sync();
  life.pass();
  life.insert(keys(1, 40, 2));
  life.end();
  life.insert(keys(1, 50, 2));
  life.release();
  life.insert(keys(1, 60, 2));
  life.sync();
  life.merge();
  life.remove(keys(1, 1, 99));  // of nothing that the live log holds
  life.close();
  sweep("merge", life);
}

TEST_F(CrashTest, AMergeOfSeveralBlocksLosesNothing) {
  scripted_life life(shards_state(1));
  life.expect_shards(1);
  life.open();
  life.insert(terms(1, 1, 3000));
  life.begin();
  life.insert(keys(2, 1, 4));
  life.sync();
  life.pass();
  life.end();
  life.release();
  life.merge();
  sweep("merge of several blocks", life, nullptr);
}

TEST_F(CrashTest, ACancelledMergeLosesNothing) {
  scripted_life life(shards_state(1));
  life.expect_shards(1);
  life.open();
  life.insert(keys(1, 1, 20));
  life.begin();
  life.insert(keys(1, 30, 5));
  life.pass();
  life.cancel();
  life.insert(keys(1, 40, 5));
  life.sync();
  life.insert(keys(1, 50, 5));
  life.begin();
  life.insert(keys(1, 60, 5));
  life.pass();
  life.sync();
  life.end();
  life.release();
  life.merge();
  sweep("cancelled merge", life);
}

TEST_F(CrashTest, AMergeOverLeftoversLosesNothing) {
  scripted_life life(shards_state(1));
  life.expect_shards(1);
  life.open();
  life.insert(keys(1, 1, 20));
  life.begin();
  life.pass();
  life.end();  // and nothing is removed
  life.insert(keys(1, 30, 5));
  life.sync();
  life.begin();
  life.insert(keys(1, 40, 5));
  life.pass();
  life.end();
  life.release();
  life.close();
  sweep("merge over leftovers", life);
}

TEST_F(CrashTest, AMergeThatLeavesNothingLosesNothing) {
  scripted_life life(shards_state(1));
  life.expect_shards(1);
  life.open();
  life.insert(keys(1, 1, 5));
  life.remove(keys(1, 1, 5));
  life.merge();
  life.insert(keys(1, 1, 5));
  life.sync();
  life.merge();
  sweep("merge that leaves nothing", life, nullptr);
}

TEST_F(CrashTest, SeveralShardsLoseNothing) {
  scripted_life life(shards_state(2));
  life.expect_shards(2);
  life.open();
  life.insert({key(1, 1), key(101, 1)});
  life.sync();
  life.insert({key(2, 1), key(102, 1)});
  life.merge();
  life.insert({key(3, 1), key(103, 1)});
  life.close();
  sweep("several shards", life);
}

// Splits shard 1 while its data file, a frozen log, the live log and, in the end, `doc` hold postings of
// both halves and deletes of some.
void split(scripted_life &life) {
  life.insert({key(1, 11), key(2, 11), key(1, 12), key(2, 12), key(1, 1), key(2, 1)});
  life.remove({key(1, 12), key(2, 12), key(1, 1), key(2, 1)});
  life.sync();
  life.begin();
  life.cancel();
  life.insert({key(1, 21), key(2, 21), key(1, 22), key(2, 22), key(1, 2), key(2, 2)});
  life.remove({key(1, 22), key(2, 22)});
  life.sync();
  life.split(
      [&] {
        life.insert({key(1, 31), key(2, 31)});
        life.remove({key(1, 2), key(2, 2), key(1, 31)});
        life.sync();
      },
      [&] {
        life.insert({key(1, 41), key(2, 41), key(1, 22)});
        life.remove({key(1, 21), key(2, 21)});
      });
}

TEST_F(CrashTest, ASplitLosesNothing) {
  tried_each = 16;  // a second life is a split again
  for (const bool at_peer : {false, true}) {
    scripted_life life(at_peer ? peer_state() : shards_state(1));
    life.expect_shards(1);
    life.open();
    life.insert(keys(1, 1, 5));
    life.insert(keys(2, 1, 5));
    life.sync();
    life.merge();
    split(life);
    life.insert({key(1, 51), key(2, 51)});
    life.sync();
    life.remove({key(1, 51), key(2, 51), key(1, 41)});
    life.close();
    sweep(at_peer ? "split with a peer" : "split", life, [](scripted_life &second) {
      second.merge();
      second.insert(keys(1, 61, 4));
      second.insert(keys(2, 61, 4));
      second.sync();
      second.table.unsplit() ? split(second) : second.merge();
      second.insert({key(1, 71), key(2, 71)});
    });
  }
}

TEST_F(CrashTest, AClearIsDoneWhollyOrNotAtAll) {
  scripted_life life(shards_state(2));
  life.expect_shards(2);
  life.open();
  life.insert({key(1, 1), key(101, 1)});
  life.sync();
  life.begin();
  life.pass();
  life.cancel();
  life.insert({key(2, 1), key(102, 1)});
  life.clear();
  life.insert({key(1, 7), key(101, 7)});
  life.sync();
  life.insert({key(2, 7)});
  life.clear();
  life.insert({key(1, 9)});
  life.close();
  sweep("clear", life);
}

// What a table's list says of its shards.
std::vector<std::uint32_t> read_list(const std::string &directory) {
  zem_table table;
  table.path = directory;
  std::vector<std::uint32_t> numbers;
  const zem_lock_guard held(table.list_mutex);
  EXPECT_EQ(zem_table_read(table, numbers), zem_yes);
  return numbers;
}

TEST_F(CrashTest, AListIsRewrittenWhollyOrNotAtAll) {
  using numbers = std::vector<std::uint32_t>;
  const temp_dir directory;
  auto recorder = std::make_unique<disk_recorder>(directory.path(), shards_state(2));
  zem_table table;
  table.path = directory.path();
  {
    const zem_lock_guard held(table.list_mutex);
    ASSERT_EQ(zem_table_write(table, {1, 2, 3, 10}), zem_ok);
  }
  const disk_story story = recorder->story();
  recorder.reset();

  sweep("list rewrite", story, story.ops.size(), [&](const crash &end, bool written) {
    const disk_recorder left(directory.path(), end.left);
    const numbers found = read_list(directory.path());
    const bool old_list = !written && found == numbers{1, 2};
    EXPECT_TRUE(old_list || found == (numbers{1, 2, 3, 10})) << found.size();
  });
}

TEST_F(CrashTest, AnOddListIsCopiedAsideBeforeItIsLost) {
  const temp_dir directory;
  disk_state start = shards_state(2);
  const std::string odd = "1\nsix\n2";
  start.damage("sdb.lst", 0, std::as_bytes(std::span(odd)));
  const disk_content former = *start.find("sdb.lst");
  auto recorder = std::make_unique<disk_recorder>(directory.path(), start);
  zem_table table;
  table.path = directory.path();
  {
    const zem_lock_guard held(table.list_mutex);
    std::vector<std::uint32_t> found;
    ASSERT_EQ(zem_table_read(table, found), zem_yes);
    ASSERT_EQ(zem_table_write(table, {1, 2, 3}), zem_ok);
  }
  const disk_story story = recorder->story();
  recorder.reset();

  sweep("odd list", story, story.ops.size(),
        [&](const crash &end, bool) { EXPECT_TRUE(keeps(end.left, former)); });
}

// Whatever became of the list, the files of the shards that it named are somewhere, now and after
// another open.
TEST_F(CrashTest, AListThatIsGoneCostsNoFile) {
  for (const char *text : {"", "not a number"}) {
    const temp_dir directory;
    disk_state start = shards_state(2);
    const disk_content first = *start.find("sdb_1.log");
    const disk_content second = *start.find("sdb_2.log");
    auto recorder = std::make_unique<disk_recorder>(directory.path(), start);
    if (*text == '\0') {
      ASSERT_EQ(zem_file_remove(directory.path("sdb.lst")), zem_ok);
    } else {
      ASSERT_EQ(zem_file_set_string(directory.path("sdb.lst"), text), zem_ok);
    }
    ASSERT_EQ(zem_dir_sync(directory.path()), zem_ok);
    const std::size_t lost = recorder->count();
    table_life table(directory.path());
    ASSERT_EQ(table.open(), zem_ok);
    table.kill();
    const disk_story story = recorder->story();
    recorder.reset();

    sweep("list that is gone", story, lost, [&](const crash &end, bool) {
      const disk_recorder left(directory.path(), end.left);
      ASSERT_EQ(table.open(), zem_ok);
      table.kill();
      EXPECT_TRUE(keeps(left.state(), first));
      EXPECT_TRUE(keeps(left.state(), second));
    });
  }
}

// A log with a damaged block is cut there, but not before a whole copy of it is durable.
TEST_F(CrashTest, ADamagedLogIsKeptAside) {
  const std::vector<posting> kept = terms(1, 1, 2848);
  const std::vector<posting> damaged = terms(2, 1, 100);
  const std::vector<posting> later = keys(3, 1, 3);
  scripted_life former(shards_state(1));
  former.expect_shards(1);
  former.open();
  former.insert(kept);
  former.insert(damaged);
  former.close();
  disk_state start = end_of(former.stop().story);
  constexpr std::array wrong{std::byte{0x55}};
  start.damage("sdb_1.log", 65536 + 100, wrong);
  const disk_content whole = *start.find("sdb_1.log");

  const temp_dir directory;
  auto recorder = std::make_unique<disk_recorder>(directory.path(), start);
  table_life table(directory.path());
  ASSERT_EQ(table.open(), zem_ok);
  ASSERT_EQ(table.route(later, 1), zem_ok);
  ASSERT_EQ(table.sync(), zem_ok);
  const std::size_t synced = recorder->count();
  ASSERT_EQ(table.merge(), zem_yes);
  table.kill();
  const disk_story story = recorder->story();
  recorder.reset();

  sweep("damaged log", story, synced, [&](const crash &end, bool committed) {
    const disk_recorder left(directory.path(), end.left);
    EXPECT_TRUE(keeps(left.state(), whole));
    ASSERT_EQ(table.open(), zem_ok);
    ASSERT_EQ(table.wait(), zem_yes);
    const postings held = table.held();
    EXPECT_TRUE(std::includes(held.begin(), held.end(), kept.begin(), kept.end()));
    EXPECT_TRUE(!committed ||
                std::includes(held.begin(), held.end(), later.rbegin(), later.rend()));
    table.kill();
    EXPECT_TRUE(keeps(left.state(), whole));
  });
}

// Once create has returned, the table is there with its settings, and before that it does no harm.
TEST_F(CrashTest, ACreatedTableStays) {
  const temp_dir directory;
  auto recorder = std::make_unique<disk_recorder>(directory.path(), disk_state{});
  zem_sdb *sdb = zem_sdb_new(directory.path().c_str(), nullptr);
  ASSERT_EQ(zem_sdb_table_create(sdb, "t"), zem_ok);
  const disk_story story = recorder->story();
  zem_sdb_free(sdb);
  recorder.reset();

  sweep("create", story, story.ops.size(), [&](const crash &end, bool created) {
    const disk_recorder left(directory.path(), end.left);
    if (created) {
      ASSERT_NE(left.state().find("t/sdb.xml"), nullptr);
    }
    zem_cfg cfg;
    EXPECT_EQ(zem_cfg_read(cfg, directory.path("t/sdb.xml")), zem_ok);
    zem_sdb *again = zem_sdb_new(directory.path().c_str(), nullptr);
    const int result = zem_sdb_table_create(again, "t");
    EXPECT_TRUE(result == ZEM_SDB_E_NAME || (!created && result == 0)) << result;
    const std::uint64_t table = zem_sdb_table_open(again, "t");
    EXPECT_NE(table, 0);
    EXPECT_EQ(zem_sdb_insert(again, table, 1, 1, 1), 0);
    EXPECT_EQ(zem_sdb_table_close(again, table), 0);
    zem_sdb_free(again);
  });
}

}  // namespace
