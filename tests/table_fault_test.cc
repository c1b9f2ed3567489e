// A table whose disk fails: every file operation of a script fails once, then every one from there
// on. Nothing accepted may be lost, and when the fault is lifted the table works on, without being
// opened again. A kill or a power cut may also come while the fault lasts.

#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>
#include <memory>
#include <semaphore>
#include <thread>
#include <unordered_set>

#include "src/exec_split.h"
#include "tests/support/crash_sweep.h"
#include "tests/support/disk.h"
#include "tests/support/faulty_files.h"
#include "tests/support/table_life.h"
#include "tests/support/temp_dir.h"

namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct fault {
  int error;
  bool lasts;
};

// The calls that a full disk can fail.
const file_ops full_disk{file_op::open, file_op::write, file_op::allocate, file_op::rename};

// What a crash may cost: what was accepted after the last commit.
struct bounds {
  std::size_t durable = 0;
  std::size_t accepted = 0;
};

// A life on a failing disk. Postings are inserted once each and in a fixed order.
class faulty_life {
 public:
  explicit faulty_life(const disk_state &start) : recorder(directory_.path(), start) {}

  void fail(std::uint64_t nth, const fault &what) {
    const file_ops ops = what.error == ENOSPC ? full_disk : file_ops::all();
    if (what.lasts) {
      files.fail_from(nth, what.error, ops);
    } else {
      files.fail_once(nth, what.error, ops);
    }
  }

  // An open that fails leaves the table without shards. Another one follows, as a host would try.
  void open() {
    note();
    opened = table.open() >= 0;
    if (!opened) {
      table.kill();
      opened = table.open() >= 0;
    }
    if (opened) std::ignore = table.wait();
  }
  // Inserting accepts in any case: what cannot be routed waits.
  void insert(const std::vector<posting> &some) {
    if (!opened) return;
    accepted.insert(accepted.end(), some.begin(), some.end());
    note();
    std::ignore = table.insert(some);
    std::ignore = zem_table_update(*table, false);
    std::ignore = table.wait();
  }
  // A merge that is given up leaves its frozen log.
  void freeze() {
    note();
    if (!opened) return;
    zem_shard &shard = table.shard(1);
    const zem_write_guard held(shard.lock);
    if (zem_shard_merge_begin(shard) >= 0) zem_shard_merge_cancel(shard);
    note();
  }
  void insert_parked(const std::vector<posting> &some) {
    accepted.insert(accepted.end(), some.begin(), some.end());
    note();
    std::ignore = table.insert(some);
    std::ignore = zem_table_update(*table, false);
  }
  void sync() {
    note();
    if (!opened) return;
    if (table.sync() >= 0) durable = accepted.size();
    note();
    std::ignore = table.wait();  // for the merge that a failed sync asks for
  }
  void merge() {
    note();
    if (opened) std::ignore = table.merge();
  }
  // Splits shard 1 with updates that are parked meanwhile.
  void split(const std::vector<posting> &parked) {
    note();
    if (!opened) return;
    std::binary_semaphore reached(0), go_on(0);
    table.lines.on_info = [&](const std::string &line) {
      if (line != "split notify (0) [1]!") return;
      reached.release();
      go_on.acquire();
    };
    zem_shard &shard = table.shard(1);
    shard.state = zem_shard_state::splitting;
    std::thread splitter([&] {
      std::ignore = zem_task_split(*table, shard);
      reached.release();
    });
    reached.acquire();
    if (shard.state == zem_shard_state::splitting) insert_parked(parked);
    go_on.release();
    splitter.join();
    table.lines.on_info = nullptr;
    note();
    std::ignore = table.wait();
  }
  void close() {
    note();
    if (!opened) return;
    opened = false;
    closed_badly = table.close() < 0;
    if (!closed_badly) durable = accepted.size();
    note();
  }

  // From here on this is promised.
  void note() {
    if (!files.has_failed()) unfailed = recorder.count();
    notes.insert_or_assign(recorder.count(), bounds{durable, accepted.size()});
  }

 private:
  temp_dir directory_;

 public:
  disk_recorder recorder;
  faulty_files files{disk_recorder::calls};
  table_life table{directory_.path()};
  bool opened = false;
  bool closed_badly = false;  // what it had accepted and not committed may be gone
  std::vector<posting> accepted;
  std::size_t durable = 0;
  std::map<std::size_t, bounds> notes;  // by the number of operations before
  std::size_t unfailed = 0;             // operations known to come before the failure
};

postings first_of(const std::vector<posting> &all, std::size_t count) {
  return {all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count)};
}

bool contains(const postings &all, const postings &some) {
  return std::includes(all.begin(), all.end(), some.begin(), some.end());
}

class TableFaultTest : public ::testing::Test {
 protected:
  using script = std::function<void(faulty_life &)>;

  // Runs `script` with its first operation failing, then with the second, until it runs through.
  void sweep(const char *what, const disk_state &start, const script &run) {
    for (const fault &kind :
         {fault{EIO, false}, fault{ENOSPC, false}, fault{EIO, true}, fault{ENOSPC, true}}) {
      std::size_t faults = 0;
      std::size_t crashes = 0;
      std::unordered_set<std::uint64_t> seen;
      for (bool failed = true; failed && !HasFailure(); ++faults) {
        auto life = std::make_unique<faulty_life>(start);
        life->fail(faults + 1, kind);
        run(*life);
        failed = life->files.has_failed();
        const std::size_t ended = life->recorder.count();
        go_on(*life, kind.lasts);
        crashes += crash_everywhere(std::move(life), ended, seen);
        if (HasFailure())
          std::cout << "operation " << faults + 1 << " failed with " << kind.error
                    << (kind.lasts ? " and all later ones" : "") << '\n';
      }
      std::cout << "[   SWEPT  ] " << what << ", error " << kind.error
                << (kind.lasts ? " from there on: " : " once: ") << faults - 1 << " faults, "
                << crashes << " crashes after them" << std::endl;
    }
  }

  // The fault is lifted.
  static void go_on(faulty_life &life, bool lasted) {
    constexpr std::uint64_t long_ms = 11 * 60 * 1000;  // the longest pause after a failed merge
    life.files.fail_none();
    if (!life.opened) {
      life.table.kill();
      ASSERT_EQ(life.table.open(), zem_ok);
      ASSERT_EQ(life.table.wait(), zem_yes);
    }
    std::vector<posting> expected = life.accepted;
    std::size_t durable = life.durable;
    if (life.closed_badly) {
      const postings held = life.table.held();
      EXPECT_TRUE(contains(held, first_of(expected, durable)));
      EXPECT_TRUE(contains(first_of(expected, expected.size()), held));
      expected.assign(held.begin(), held.end());
      durable = expected.size();
    }
    life.table.clock.advance_ms(long_ms);
    zem_table_timer(*life.table);
    ASSERT_EQ(life.table.wait(), zem_yes);
    const posting extra{{1, 9999, 0}, 1};
    expected.push_back(extra);
    ASSERT_EQ(life.table.insert({&extra, 1}), zem_ok);
    ASSERT_EQ(zem_table_update(*life.table, false), zem_ok);
    const postings all = first_of(expected, expected.size());
    ASSERT_EQ(life.table.held(), all);

    // Where undoing a rename failed as well, merges wait for the next open.
    const bool refused = refuses_merges(life.table);
    EXPECT_TRUE(lasted || !refused);
    if (!refused) {
      EXPECT_EQ(life.table.sync(), zem_ok);
      EXPECT_EQ(life.table.merge(), zem_yes);
      ASSERT_EQ(life.table.held(), all);
    }
    const bool closed = life.table.close() >= 0;
    EXPECT_TRUE(closed || refused);
    ASSERT_EQ(life.table.open(), zem_ok);
    ASSERT_EQ(life.table.wait(), zem_yes);
    if (closed) {
      EXPECT_EQ(life.table.held(), all);
    }
    EXPECT_TRUE(contains(life.table.held(), first_of(expected, durable)));
    EXPECT_FALSE(refuses_merges(life.table));
    life.table.kill();
  }

  static bool refuses_merges(table_life &table) {
    bool refuses = false;
    for (const zem_shard *shard : table.shards()) {
      const zem_read_guard held(shard->lock);
      refuses |= shard->refused < 0;
    }
    return refuses;
  }

  // Every crash that can follow the failure while it lasted.
  std::size_t crash_everywhere(std::unique_ptr<faulty_life> life, std::size_t ended,
                               std::unordered_set<std::uint64_t> &seen) {
    disk_story story = life->recorder.story();
    story.ops.resize(ended);
    const std::map<std::size_t, bounds> notes = life->notes;
    const std::vector<posting> accepted = life->accepted;
    const std::size_t unfailed = life->unfailed;
    life.reset();
    std::size_t crashes = 0;
    every_crash(story, unfailed, [&](std::size_t done, const crash &end) {
      if (HasFailure()) return;
      const bounds &promised = std::prev(notes.upper_bound(done))->second;
      if (!seen.insert(end.left.hash() ^ promised.durable << 20 ^ promised.accepted).second) return;
      ++crashes;
      judge(end.left, first_of(accepted, promised.durable), first_of(accepted, promised.accepted));
      if (HasFailure())
        std::cout << end.how << " after " << done << " operations\n" << tell(story, done);
    });
    return crashes;
  }

  // Whatever fails, the table is found as by an undisturbed open, then or the next time.
  void open_with_faults(const disk_state &state) {
    const temp_dir directory;
    postings undisturbed;
    {
      const disk_recorder recorder(directory.path(), state);
      table_life table(directory.path());
      ASSERT_EQ(table.open(), zem_ok);
      ASSERT_EQ(table.wait(), zem_yes);
      undisturbed = table.held();
    }
    for (const bool lasts : {false, true}) {
      bool failed = true;
      for (std::uint64_t nth = 1; failed && !HasFailure(); ++nth) {
        faulty_life life(state);
        life.fail(nth, {EIO, lasts});
        life.opened = life.table.open() >= 0;
        if (life.opened) std::ignore = life.table.wait();
        failed = life.files.has_failed();
        life.files.fail_none();
        if (!life.opened) {
          if (life.table.served()) {
            EXPECT_EQ(life.table.insert(keys(1, 1, 1)), zem_ok);
            EXPECT_EQ(life.table.sync(), ZEM_SDB_E_SHARD);
          }
          life.table.kill();
          ASSERT_EQ(life.table.open(), zem_ok);
          ASSERT_EQ(life.table.wait(), zem_yes);
        }
        EXPECT_EQ(life.table.held(), undisturbed) << nth << ". operation";
      }
    }
  }

  // Tries a clear whose nth operation fails, and goes on as a host would. `left` becomes what crashes
  // may leave after a commit that follows a clear which changed nothing, and `uncleared` what they
  // must leave of it.
  static bool clear_with_fault(std::uint64_t nth, const fault &kind, std::vector<disk_state> &left,
                               postings &uncleared) {
    faulty_life life(shards_state(2));
    const std::vector<posting> more = {key(1, 2), key(101, 2)};
    life.open();
    life.insert({key(1, 1), key(101, 1)});
    life.sync();
    const postings all = life.table.held();
    life.fail(nth, kind);
    const zem_status cleared = zem_table_clear(*life.table);
    const bool failed = life.files.has_failed();
    life.files.fail_none();

    if (cleared >= 0) {
      EXPECT_THAT(life.table.held(), IsEmpty());
    } else if (!life.table.held().empty()) {
      EXPECT_EQ(life.table.held(), all);
      EXPECT_EQ(life.table.insert(more), zem_ok);
      EXPECT_EQ(life.table.sync(), zem_ok);
      uncleared = life.table.held();
      const disk_story story = life.recorder.story();
      every_crash(story, story.ops.size(),
                  [&](std::size_t, const crash &end) { left.push_back(end.left); });
    }
    EXPECT_EQ(zem_table_clear(*life.table), zem_ok);
    EXPECT_THAT(life.table.held(), IsEmpty());
    EXPECT_EQ(life.table.insert(more), zem_ok);
    EXPECT_EQ(life.table.sync(), zem_ok);
    EXPECT_EQ(life.table.close(), zem_ok);
    EXPECT_EQ(life.table.open(), zem_ok);
    EXPECT_THAT(life.table.held(), ElementsAre(more[0], more[1]));
    return failed;
  }

  static void judge(const disk_state &left, const postings &durable, const postings &accepted) {
    const temp_dir directory;
    const disk_recorder recorder(directory.path(), left);
    table_life table(directory.path());
    ASSERT_EQ(table.open(), zem_ok);
    ASSERT_EQ(table.wait(), zem_yes);
    const postings held = table.held();
    EXPECT_TRUE(contains(held, durable));
    EXPECT_TRUE(contains(accepted, held));
  }
};

TEST_F(TableFaultTest, CommitsLoseNothing) {
  sweep("commits", shards_state(1), [](faulty_life &life) {
    life.open();
    life.insert(keys(1, 1, 5));
    life.sync();
    life.insert(keys(1, 11, 100));
    life.sync();
    life.insert(keys(2, 11, 5));
    life.sync();
  });
}

TEST_F(TableFaultTest, AFirstOpenAndACloseLoseNothing) {
  sweep("first open and close", disk_state{}, [](faulty_life &life) {
    life.open();
    life.insert(keys(1, 1, 5));
    life.sync();
    life.insert(keys(1, 11, 5));
    life.close();
  });
}

// A create that fails can be repeated. Where the disk did not let it take its directory back either,
// the next database finds that as a table.
TEST_F(TableFaultTest, ACreateThatFailsIsNotInTheWay) {
  for (const fault &kind :
       {fault{EIO, false}, fault{ENOSPC, false}, fault{EIO, true}, fault{ENOSPC, true}}) {
    bool failed = true;
    for (std::uint64_t nth = 1; failed && !HasFailure(); ++nth) {
      const temp_dir directory;
      zem_sdb *sdb = zem_sdb_new(directory.path().c_str(), nullptr);
      faulty_files files;
      kind.lasts ? files.fail_from(nth, kind.error) : files.fail_once(nth, kind.error);
      const std::int32_t created = zem_sdb_table_create(sdb, "t");
      failed = files.has_failed();
      files.fail_none();
      EXPECT_TRUE(failed || created == zem_ok);
      const std::int32_t again = zem_sdb_table_create(sdb, "t");
      if (created >= 0) {
        EXPECT_EQ(again, ZEM_SDB_E_NAME);
      } else {
        EXPECT_TRUE(again == zem_ok || (kind.lasts && again == -EEXIST)) << nth;
      }
      zem_sdb_free(sdb);
      sdb = zem_sdb_new(directory.path().c_str(), nullptr);
      EXPECT_NE(zem_sdb_table_open(sdb, "t"), 0);
      zem_sdb_free(sdb);
    }
  }
}

TEST_F(TableFaultTest, FullBlocksLoseNothing) {
  sweep("full blocks", shards_state(1), [](faulty_life &life) {
    life.open();
    life.insert(terms(1, 1, 1500));
    life.sync();
    life.insert(terms(1, 2001, 4500));
    life.sync();
  });
}

TEST_F(TableFaultTest, MergesLoseNothing) {
  sweep("merges", shards_state(1), [](faulty_life &life) {
    life.open();
    life.insert(keys(1, 1, 5));
    life.sync();
    life.insert(keys(1, 11, 5));
    life.merge();
    life.insert(keys(1, 21, 5));
    life.sync();
    life.merge();
    life.insert(keys(1, 31, 5));
    life.sync();
  });
}

// A split that finds postings in data file, frozen log, live log and, in the end, `doc`.
void split_story(faulty_life &life) {
  life.open();
  life.insert(keys(1, 1, 5));
  life.insert(keys(2, 1, 5));
  life.sync();
  life.merge();
  life.insert({{{1, 0, 0}, 11}, {{2, 0, 0}, 11}});
  life.sync();
  life.freeze();
  life.insert({{{1, 0, 0}, 21}, {{2, 0, 0}, 21}});
  life.sync();
  life.split({{{1, 0, 0}, 31}, {{2, 0, 0}, 31}});
  life.sync();
  life.insert({{{1, 0, 0}, 41}, {{2, 0, 0}, 41}});
  life.sync();
}

TEST_F(TableFaultTest, SplitsLoseNothing) { sweep("splits", shards_state(1), split_story); }

TEST_F(TableFaultTest, ACrashInASplitLosesNothing) {
  auto life = std::make_unique<faulty_life>(shards_state(1));
  split_story(*life);
  EXPECT_EQ(life->table.shards().size(), 2U);
  life->unfailed = 0;
  const std::size_t ended = life->recorder.count();
  std::unordered_set<std::uint64_t> seen;
  const std::size_t crashes = crash_everywhere(std::move(life), ended, seen);
  std::cout << "[   SWEPT  ] split: " << ended << " operations, " << crashes << " crashes"
            << std::endl;
}

// Opens what the kills of a merge leave, with each operation of the open failing.
TEST_F(TableFaultTest, AnOpenThatFailsCostsNothing) {
  scripted_life merged(shards_state(1));
  merged.expect_shards(1);
  merged.open();
  merged.insert(keys(1, 1, 20));
  merged.begin();
  merged.insert(keys(1, 30, 5));
  merged.sync();
  merged.pass();
  merged.end();
  merged.release();
  const recording life = merged.stop();

  std::set<std::vector<std::string>> tried;
  disk_state state = life.story.start;
  for (const auto &op : life.story.ops) {
    state.apply(op);
    if (tried.insert(state.names()).second) open_with_faults(state);
  }
  std::cout << "[   SWEPT  ] open: " << tried.size() << " sets of files" << std::endl;
}

// A clear that fails has emptied the table or left it as it was; it can be repeated.
TEST_F(TableFaultTest, AClearThatFailsLeavesAllOrNothing) {
  for (const fault &kind : {fault{EIO, false}, fault{EIO, true}}) {
    std::size_t nth = 0;
    for (bool failed = true; failed && !HasFailure();) {
      std::vector<disk_state> left;
      postings uncleared;
      failed = clear_with_fault(++nth, kind, left, uncleared);
      for (const disk_state &state : left)
        judge(state, uncleared, uncleared);
    }
    if (HasFailure()) std::cout << "operation " << nth << " failed\n";
    std::cout << "[   SWEPT  ] clear: " << nth - 1 << " faults" << std::endl;
  }
}

}  // namespace
