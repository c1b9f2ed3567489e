#include "src/table.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/support/faulty_files.h"
#include "tests/support/table_life.h"
#include "tests/support/temp_dir.h"

namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

posting at(std::uint32_t word0, std::uint64_t id) { return {{word0, 0, 0}, id}; }

class TableTest : public ::testing::Test {
 protected:
  // A table whose shards end with these postings, the last one's end being no bound.
  void make(const std::vector<posting> &ends) {
    std::vector<postings> content;
    for (const posting &end : ends)
      content.push_back({end});
    make_table(directory.path(), content);
    open();
  }
  void open() {
    ASSERT_EQ(table.open(), zem_ok);
    ASSERT_EQ(table.wait(), zem_yes);
  }
  zem_status insert(const std::vector<posting> &some) { return table.insert(some); }
  zem_status apply(const std::vector<posting> &some) { return table.route(some, 1); }
  zem_status route() { return zem_table_update(*table, false); }
  void set_state(zem_shard &shard, zem_shard_state state) {
    const zem_lock_guard held(table->wait_mutex);
    zem_table_set_state(*table, shard, state);
  }
  postings in_shard(std::uint32_t number) { return shard_postings(table.shard(number)); }
  postings pending() {
    const zem_lock_guard held(table->batch_mutex);
    postings found;
    for (const auto *node = zem_xtree_node_first(table->doc.tree); node != nullptr;
         node = node->next)
      found.insert({node->term, node->id});
    return found;
  }
  // What the shard's log answers to further postings.
  void refuse(std::uint32_t number, zem_status why) {
    zem_shard &shard = table.shard(number);
    const zem_write_guard held(shard.lock);
    shard.log.refused = why;
  }
  void tick(std::uint64_t after_ms) {
    table.clock.advance_ms(after_ms);
    zem_table_timer(*table);
  }
  std::vector<zem_task_kind> queued() {
    const zem_lock_guard held(table->task.mutex);
    std::vector<zem_task_kind> kinds;
    for (const zem_task_item &item : table->task.queue)
      kinds.push_back(item.kind);
    return kinds;
  }
  // From here on what is asked for stays in the queue.
  void stop_workers() {
    zem_task_close(table->task);
    zem_task_resume(table->task);
  }
  // Runs `call` on a thread of its own while this one moves the clock by `step_ms` at a time. How far
  // the clock had moved when the call ended.
  std::uint64_t time_of(const std::function<void()> &call, std::uint64_t step_ms) {
    std::atomic<bool> done = false;
    std::thread caller([&] {
      call();
      done = true;
    });
    std::uint64_t moved_ms = 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (; !done; moved_ms += step_ms) {
      table.clock.advance_ms(step_ms);
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    caller.join();
    return moved_ms;
  }

  temp_dir directory;
  table_life table{directory.path()};
};

// ---- the gate

TEST_F(TableTest, WritersAreHeldBackBeforeReadersAre) {
  open();
  zem_shard &shard = table.shard(1);
  const auto enters = [&](zem_table_role role) {
    zem_status st = zem_ok;
    const std::uint64_t waited_ms =
        time_of([&] { st = zem_table_wait_lock(*table, role); }, 60'000);
    if (st >= 0) zem_table_wait_clear(*table, role);
    EXPECT_TRUE(st == zem_ok || (st == -EBUSY && waited_ms >= 300'000)) << st << ' ' << waited_ms;
    return st == zem_ok;
  };
  using enum zem_shard_state;
  for (const auto &[state, writers, readers] : {std::tuple{splitting, true, true},
                                                {holding_writers, false, true},
                                                {holding_readers, false, false}}) {
    set_state(shard, state);
    EXPECT_EQ(enters(zem_table_role::writer), writers);
    EXPECT_EQ(enters(zem_table_role::reader), readers);
  }
  set_state(shard, idle);
}

TEST_F(TableTest, ABarredBatchGoesBackAndACloseDoesNotWait) {
  open();
  zem_shard &shard = table.shard(1);
  set_state(shard, zem_shard_state::holding_writers);
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  zem_status st = zem_ok;
  std::thread writer([&] { st = route(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  zem_table_close_begin(*table);
  writer.join();
  EXPECT_EQ(st, -EBUSY);
  EXPECT_THAT(pending(), ElementsAre(at(1, 1)));
  set_state(shard, zem_shard_state::idle);
  ASSERT_EQ(table.close(), zem_ok);
  open();
  EXPECT_THAT(table.held(), ElementsAre(at(1, 1)));
}

TEST_F(TableTest, AWriterWaitsForRoomWhereASplitHasParkedTooMuch) {
  table.cfg.merge_num = 1;
  open();
  stop_workers();
  zem_shard &shard = table.shard(1);
  const auto park = [&](bool parked) {
    zem_write_guard held(shard.lock);
    shard.parked = parked;
    shard.full_since_us = 0;
  };
  set_state(shard, zem_shard_state::splitting);
  park(true);
  std::vector<posting> many;
  for (std::uint64_t id = 0; id < 120'000; ++id)
    many.push_back(at(1, id));
  ASSERT_EQ(apply(many), zem_ok);

  ASSERT_EQ(insert({at(2, 1)}), zem_ok);
  zem_status st = zem_ok;
  const auto call = [&] { st = zem_table_update(*table, true); };
  EXPECT_GE(time_of(call, 1000), 9'000U);
  EXPECT_EQ(st, -EBUSY);
  EXPECT_THAT(pending(), ElementsAre(at(2, 1)));
  call();  // one wait a split: the clock stands still
  EXPECT_EQ(st, -EBUSY);

  park(true);
  std::thread writer(call);
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  park(false);
  set_state(shard, zem_shard_state::idle);
  writer.join();
  EXPECT_EQ(st, zem_ok);
  EXPECT_THAT(table.held(), SizeIs(many.size() + 1));
}

// ---- the timer, commits and merges

TEST_F(TableTest, AQuietBatchIsRoutedAndAQuietShardCommittedAfterFlushTime) {
  make({at(10, 5), at(20, 5)});
  stop_workers();
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  table.clock.advance_ms(30'000);
  ASSERT_EQ(insert({at(1, 2)}), zem_ok);
  tick(60'000);
  EXPECT_THAT(pending(), SizeIs(2));
  tick(1000);
  EXPECT_THAT(pending(), IsEmpty());
  tick(60'000);
  EXPECT_THAT(queued(), IsEmpty());
  tick(1000);
  tick(0);
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::commit));
}

TEST_F(TableTest, RequestsCoverWrittenShardsOnceAndPassOverBusyOnes) {
  make({at(10, 5), at(20, 5), at(30, 5)});
  stop_workers();
  ASSERT_EQ(insert({at(1, 1), at(21, 1)}), zem_ok);
  table.shard(2).state = zem_shard_state::merging;
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(zem_table_commit(*table), zem_ok);
    EXPECT_THAT(queued(), Each(zem_task_kind::commit));
    EXPECT_THAT(queued(), SizeIs(2));
  }
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(zem_table_merge(*table), zem_ok);
    EXPECT_THAT(queued(), SizeIs(4));
  }
  table.shard(2).state = zem_shard_state::idle;
}

// The batch cannot be routed before the log has been merged, however often the timer tries.
TEST_F(TableTest, TheTimerAsksForMergesAlsoWhenABatchCannotBeRouted) {
  table.cfg.flush_time = 0;
  open();
  {
    zem_shard &shard = table.shard(1);
    const zem_write_guard held(shard.lock);
    zem_shard_merge_settle(shard, zem_status{-ENOSPC});
    shard.log.blk_no = 16 * 16 * table.cfg.merge_num;  // so far behind that updates are refused
  }
  stop_workers();
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  for (int i = 0; i < 3; ++i)
    tick(3000);
  EXPECT_THAT(pending(), SizeIs(1));
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::merge));
}

// ---- open, clear and close

TEST_F(TableTest, AListIsReadWithItsOddities) {
  make_table(directory.path(), std::vector<postings>(12));
  ASSERT_EQ(zem_file_set_string(directory.path("sdb.lst"),
                                "\n 12\r\n7\n\nseven\n0\n7\n-3\n3x\n99999999999\n2\t\n"),
            zem_ok);
  open();
  std::vector<std::uint32_t> numbers;
  for (const zem_shard *shard : table.shards())
    numbers.push_back(shard->id);
  EXPECT_THAT(numbers, ElementsAre(2, 7, 12));
  EXPECT_EQ(table->shard_seq, 12);
  EXPECT_THAT(table.lines.take(), AllOf(SizeIs(6), Each(HasSubstr("is skipped"))));
}

// A shard that does not open must not cost the others their place in the list, nor the batch. A
// frozen log of an earlier life is merged at once.
TEST_F(TableTest, ATableWithoutShardsKeepsListAndBatch) {
  make_table(directory.path(), {{at(9, 1)}, {at(19, 1)}});
  ASSERT_EQ(zem_file_rename(directory.path("sdb_1.log"), directory.path("sdb_1_m.log")), zem_ok);
  {
    faulty_files faults;
    faults.fail_once(1, EMFILE, {file_op::read});
    ASSERT_EQ(table.open(), -EMFILE);
  }
  EXPECT_THAT(table.shards(), IsEmpty());
  EXPECT_EQ(insert({at(5, 1)}), zem_ok);
  EXPECT_EQ(route(), ZEM_SDB_E_SHARD);
  EXPECT_THAT(pending(), ElementsAre(at(5, 1)));
  EXPECT_EQ(table.close(), ZEM_SDB_E_SHARD);
  open();
  EXPECT_THAT(table.held(), ElementsAre(at(9, 1), at(19, 1)));
  EXPECT_EQ(table.shard(1).dat.doc_num, 1);
}

// ---- routing

TEST_F(TableTest, RandomBatchesLieWhereTheirKeysBelong) {
  constexpr std::uint64_t seed = 3;
  std::mt19937_64 random(seed);
  const std::vector<posting> ends = {at(10, 5), at(10, 2), at(11, 7), at(40, 1)};
  make(ends);
  postings all(ends.begin(), ends.end());
  for (int batch = 0; batch < 40; ++batch) {
    std::vector<posting> some;
    for (std::size_t i = random() % 30; i > 0; --i)
      some.push_back(at(static_cast<std::uint32_t>(8 + random() % 6), random() % 10));
    ASSERT_EQ(batch % 2 == 0 ? insert(some) : table.route(some, 1), zem_ok);
    all.insert(some.begin(), some.end());
  }
  ASSERT_EQ(route(), zem_ok);
  EXPECT_EQ(table.held(), all) << seed;
  for (std::uint32_t number = 1; number <= ends.size(); ++number) {
    for (const posting &p : in_shard(number)) {
      EXPECT_TRUE(number == 1 || ends[number - 2] < p) << p;
      EXPECT_TRUE(number == ends.size() || !(ends[number - 1] < p)) << p;
    }
  }
}

TEST_F(TableTest, ATermIsFoundInItsShardAndAcrossABorder) {
  make({at(10, 5), at(20, 5), at(30, 5)});
  ASSERT_EQ(apply({at(10, 7), at(10, 2), at(15, 3), at(99, 4)}), zem_ok);
  // The term of the first shard's high key goes on in the second. Each item that finds an id counts.
  zem_var heads, thirds, ids;
  for (zem_var *list : {&heads, &thirds, &ids})
    list->tagged = true;
  for (const std::uint32_t word0 : {10U, 99U, 16U, 10U}) {
    zem_var_add_long(&heads, word0);
    zem_var_add_integer(&thirds, 0);
  }
  ASSERT_EQ(zem_table_query(*table, heads, thirds, ids), zem_ok);
  EXPECT_THAT(ids.values, UnorderedElementsAre(2, 4, 5, 7));
  EXPECT_THAT(ids.tags, UnorderedElementsAre(2, 1, 2, 2));
}

// ---- routings that fail

TEST_F(TableTest, WhatIsNotAppliedComesBackAndTheOtherRunsGoOn) {
  make({at(10, 5), at(20, 5), at(30, 5)});
  refuse(2, zem_status{-ENOSPC});
  ASSERT_EQ(insert({at(1, 1), at(11, 1), at(12, 1), at(21, 1)}), zem_ok);
  EXPECT_EQ(route(), -ENOSPC);
  EXPECT_TRUE(in_shard(1).contains(at(1, 1)));
  EXPECT_TRUE(in_shard(3).contains(at(21, 1)));
  EXPECT_THAT(pending(), ElementsAre(at(11, 1), at(12, 1)));
  refuse(2, zem_ok);
  EXPECT_EQ(route(), zem_ok);
  EXPECT_THAT(pending(), IsEmpty());
  EXPECT_TRUE(in_shard(2).contains(at(12, 1)));
}

TEST_F(TableTest, AStuckTableTakesNoMoreThanItCanApply) {
  table.cfg.commit_num = 2;
  make({at(10, 5), at(20, 5)});
  refuse(1, zem_status{-ENOSPC});
  for (std::uint64_t id = 1; id <= 32; ++id)
    EXPECT_EQ(insert({at(1, id)}), id % 2 == 0 ? zem_status{-ENOSPC} : zem_ok) << id;
  EXPECT_EQ(insert({at(1, 33), at(15, 1)}), -ENOSPC);
  EXPECT_THAT(pending(), SizeIs(32));
  EXPECT_FALSE(pending().contains(at(1, 33)));
  EXPECT_TRUE(in_shard(2).contains(at(15, 1)));
  EXPECT_EQ(insert({at(15, 2)}), zem_ok);
  refuse(1, zem_ok);
  EXPECT_EQ(insert({at(1, 34)}), zem_ok);
  EXPECT_EQ(route(), zem_ok);
  EXPECT_THAT(in_shard(1), SizeIs(1 + 32 + 1));
}

// A writer is held up by how far its log has grown, until the shard is idle or the table closes.
TEST_F(TableTest, AWriterIsHeldUpByHowFarItsLogHasGrown) {
  using enum zem_shard_state;
  constexpr std::uint32_t nap_ms = 1000;
  table.cfg.commit_time = nap_ms;
  table.cfg.merge_num = 8;
  open();
  zem_shard &shard = table.shard(1);
  const auto naps_of_insert = [&](zem_shard_state state, std::uint64_t log_mib) {
    shard.state = state;
    {
      const zem_write_guard held(shard.lock);
      shard.log.file.size = log_mib << 20;
    }
    const std::uint64_t moved_ms = time_of([&] { EXPECT_EQ(apply({at(1, 1)}), zem_ok); }, 100);
    return (moved_ms + nap_ms / 2) / nap_ms;
  };
  EXPECT_EQ(naps_of_insert(idle, 20), 0);
  EXPECT_EQ(naps_of_insert(queued, 1), 1);
  EXPECT_EQ(naps_of_insert(merging, 8), 1);
  EXPECT_EQ(naps_of_insert(merging, 16), 5);
  EXPECT_EQ(naps_of_insert(merging, 20), 10);
  EXPECT_EQ(naps_of_insert(splitting, 16), 9);
  for (const bool closes : {false, true}) {
    std::thread other([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      if (closes) zem_table_close_begin(*table);
      if (!closes) shard.state = idle;
    });
    EXPECT_LT(naps_of_insert(merging, 800), 60);  // of 10,001
    other.join();
  }
  shard.state = idle;
}

// A close that waits for a clear gets no new work from its end.
TEST_F(TableTest, AClearDuringACloseLeavesTheQueueShut) {
  open();
  ASSERT_EQ(zem_table_wait_lock(*table, zem_table_role::reader), zem_ok);
  std::thread clear([&] { EXPECT_EQ(zem_table_clear(*table), zem_ok); });
  while (table->open)
    std::this_thread::yield();
  zem_table_close_begin(*table);
  zem_table_wait_clear(*table, zem_table_role::reader);
  clear.join();
  EXPECT_EQ(table.wait(), ZEM_SDB_E_CLOSED);
}

// Shards that did not open are cleared like others.
TEST_F(TableTest, AClearRemovesTheFilesOfShardsThatDidNotOpen) {
  make_table(directory.path(), {{at(9, 1)}, {at(19, 1)}});
  {
    faulty_files faults;
    faults.fail_once(1, EMFILE, {file_op::read});
    ASSERT_EQ(table.open(), -EMFILE);
  }
  EXPECT_EQ(zem_table_clear(*table), zem_ok);
  EXPECT_EQ(table.shards().size(), 1);
  EXPECT_EQ(zem_file_exist(directory.path("sdb_2.log")), zem_ok);
}

TEST_F(TableTest, AQuietBatchThatMeetsAClearIsRoutedLater) {
  open();
  zem_timer_kill(table->timer);  // it would tick too when the clock is moved
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  table.clock.advance_ms(61'000);
  ASSERT_EQ(zem_table_wait_lock(*table, zem_table_role::reader), zem_ok);
  table->routing.lock();
  std::thread tick([&] { zem_table_timer(*table); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // until it waits to route
  std::thread clear([&] { EXPECT_EQ(zem_table_clear(*table), zem_ok); });
  while (table->open)
    std::this_thread::yield();
  table->routing.unlock();
  tick.join();
  zem_table_wait_clear(*table, zem_table_role::reader);
  clear.join();
  table.clock.advance_ms(61'000);
  zem_table_timer(*table);
  EXPECT_THAT(table.held(), ElementsAre(at(1, 1)));
}

// The part of a run that was applied before a failure has raised the key, in its first slice too.
TEST_F(TableTest, ARunThatFailsTellsOfTheHighKeyItReached) {
  open();
  faulty_files files;
  std::vector<posting> most;
  for (std::uint32_t word0 = 1; word0 <= 2840; ++word0)
    most.push_back(at(word0, 1));
  ASSERT_EQ(table.route(most, 1), zem_ok);
  files.fail_from(1, ENOSPC, {file_op::write, file_op::allocate});
  zem_doc rest;
  for (std::uint32_t word0 = 2841; word0 <= 2900; ++word0)
    zem_doc_load_term(rest, 1, {word0, 0, 0}, 1);
  zem_keys keys;
  ASSERT_EQ(zem_table_update_x(*table, rest, &keys), -ENOSPC);
  ASSERT_EQ(zem_keys_size(keys), 1);
  EXPECT_EQ(keys.term0[0], table.shard(1).mkey.term[0]);
}

// ---- splits

TEST_F(TableTest, ASplitSendsEveryChangeToItsHalf) {
  open();
  postings wanted;
  for (std::uint32_t word0 = 1; word0 <= 20; ++word0) {
    ASSERT_EQ(apply({at(word0, 1)}), zem_ok);
    wanted.insert(at(word0, 1));
  }
  ASSERT_EQ(table.merge(), zem_yes);
  // A frozen log and a live one, each with something deleted on either side of the middle.
  for (const std::uint32_t id : {2U, 3U}) {
    ASSERT_EQ(apply({at(5, id), at(15, id), at(6, id), at(16, id)}), zem_ok);
    ASSERT_EQ(table.route(std::vector{at(5, id), at(15, id)}, 0), zem_ok);
    wanted.insert({at(6, id), at(16, id)});
    zem_shard &shard = table.shard(1);
    const zem_write_guard held(shard.lock);
    if (id == 2) {
      ASSERT_EQ(zem_shard_merge_begin(shard), zem_ok);
      zem_shard_merge_cancel(shard);
    }
  }
  ASSERT_EQ(table.split(), zem_ok);
  EXPECT_THAT(table.shards(), SizeIs(2));
  EXPECT_THAT(table.held(), wanted);
  const zem_mkey &boundary = table.shard(2).mkey;
  for (const posting &low : in_shard(2))
    EXPECT_GE(zem_mkey_compare(boundary, low.term, low.id), 0);
  for (const posting &high : in_shard(3))
    EXPECT_LT(zem_mkey_compare(boundary, high.term, high.id), 0);
  // Half of 24 postings, less a deleted one, and one from the live log.
  EXPECT_EQ(in_shard(2).size(), 12U);
  EXPECT_THAT(table.lines.take(), IsEmpty());
  table.kill();
  open();
  EXPECT_THAT(table.held(), wanted);
}

TEST_F(TableTest, AShardThatCannotBeHalvedIsMerged) {
  open();
  ASSERT_EQ(apply({at(1, 1)}), zem_ok);
  ASSERT_EQ(table.split(), zem_ok);
  ASSERT_EQ(table.wait(), zem_yes);
  EXPECT_THAT(table.held(), ElementsAre(at(1, 1)));
  EXPECT_EQ(table.shard(1).dat.doc_num, 1U);
  EXPECT_THAT(table.lines.take(), IsEmpty());
}

}  // namespace
