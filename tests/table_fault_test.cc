// A table whose disk fails: every file operation of a script fails once, then every one from there
// on. Nothing accepted may be lost, and when the fault is lifted the table works on, without being
// opened again. A kill or a power cut may also come while the fault lasts.

#include <algorithm>
#include <atomic>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <unordered_set>

#include "tests/support/crash_sweep.h"
#include "tests/support/disk.h"
#include "tests/support/faulty_files.h"
#include "tests/support/table_life.h"
#include "tests/support/temp_dir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct fault {
  int error;  // of a file operation; 0: a call of the peer's fails
  bool lasts;
};

// The calls that a full disk can fail.
const file_ops full_disk{file_op::open, file_op::write, file_op::allocate, file_op::rename};

// What a crash may cost: the changes that were accepted after the last commit.
struct bounds {
  std::size_t durable = 0;
  std::size_t accepted = 0;
  std::optional<posting> moved_after = {};
};

enum class change_kind : std::uint8_t { inserted, removed, ignored };
struct change {
  posting p;
  change_kind kind;
};
using changes = std::vector<change>;

// The first `inserts` changes as far as they insert, less what is removed by the first `removals`.
postings content(const changes &all, std::size_t inserts, std::size_t removals) {
  postings held;
  for (std::size_t i = 0; i < inserts; ++i) {
    if (all[i].kind == change_kind::inserted) held.insert(all[i].p);
  }
  for (std::size_t i = 0; i < removals; ++i) {
    if (all[i].kind == change_kind::removed) held.erase(all[i].p);
  }
  return held;
}

// A life on a failing disk. Postings are inserted once each, in a fixed order, and some then removed.
class faulty_life {
 public:
  explicit faulty_life(const disk_state &start) : recorder(directory_.path(), start) {
    // Each change is a batch of its own to the peer: in one batch an insert hides a later delete.
    if (start.find(table_life::peer_name) != nullptr) table.cfg.commit_num = 1;
  }

  void fail(std::uint64_t nth, const fault &what) {
    if (what.error == 0) {
      table.on_call = [=, this, seen = std::uint64_t{0}](std::uint32_t) mutable {
        const bool fails = ++seen == nth || (what.lasts && seen > nth);
        if (fails) call_failed_ = true;
        return fails ? -EPIPE : 0;
      };
      return;
    }
    const file_ops ops = what.error == ENOSPC ? full_disk : file_ops::all();
    if (what.lasts) {
      files.fail_from(nth, what.error, ops);
    } else {
      files.fail_once(nth, what.error, ops);
    }
  }

  void fail_none() {
    files.fail_none();
    table.on_call = nullptr;
  }
  bool has_failed() const { return files.has_failed() || call_failed_; }

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
    insert_meanwhile(some);
    std::ignore = table.wait();
  }
  // Wherever each of them is by now: a delete reaches what the live log holds. Not all disks let it.
  void remove(const std::vector<posting> &some) {
    if (!opened || table.update() < 0) return;
    for (const posting &p : some) {
      accepted.push_back({p, change_kind::removed});
      note();
      if (table.route({&p, 1}, 1) >= 0 && table.wait() > 0) std::ignore = table.route({&p, 1}, 0);
      if (!table.deleted(p)) accepted.back().kind = change_kind::ignored;
    }
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
  void insert_meanwhile(const std::vector<posting> &some) {
    for (const posting &p : some)
      accepted.push_back({p, change_kind::inserted});
    note();
    std::ignore = table.insert(some);
    std::ignore = table.update();
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
  // With updates that come while it runs, first to the live log.
  void split(const std::vector<posting> &live, const std::vector<posting> &parked) {
    note();
    if (!opened) return;
    std::ignore = table.split([&](const std::string &line) {
      if (line.starts_with("split rest")) insert_meanwhile(live);
      if (line.starts_with("split notify (0)")) insert_meanwhile(parked);
    });
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
    if (!has_failed()) unfailed = recorder.count();
    notes.insert_or_assign(recorder.count(), bounds{durable, accepted.size(), table.moved_after});
  }

 private:
  temp_dir directory_;
  std::atomic<bool> call_failed_ = false;

 public:
  disk_recorder recorder;
  faulty_files files{disk_recorder::calls};
  table_life table{directory_.path()};
  bool opened = false;
  bool closed_badly = false;  // what it had accepted and not committed may be gone
  changes accepted;
  std::size_t durable = 0;
  std::map<std::size_t, bounds> notes;  // by the number of operations before
  std::size_t unfailed = 0;             // operations known to come before the failure
};

bool contains(const postings &all, const postings &some) {
  return std::includes(all.begin(), all.end(), some.begin(), some.end());
}

class TableFaultTest : public ::testing::Test {
 protected:
  using script = std::function<void(faulty_life &)>;

  // Runs `script` with its first operation failing, then with the second, until it runs through.
  void sweep(const char *what, const disk_state &start, const script &run) {
    std::vector<fault> kinds{{EIO, false}, {ENOSPC, false}, {EIO, true}, {ENOSPC, true}};
    if (start.find(table_life::peer_name) != nullptr) kinds.push_back({0, false});
    for (const fault &kind : kinds) {
      std::size_t faults = 0;
      std::size_t crashes = 0;
      std::unordered_set<std::uint64_t> seen;
      const std::size_t stride = kind.error == 0 ? 1 : sweep_stride;
      for (bool failed = true; failed && !HasFailure(); faults += stride) {
        auto life = std::make_unique<faulty_life>(start);
        life->fail(faults + 1, kind);
        run(*life);
        failed = life->has_failed();
        const std::size_t ended = life->recorder.count();
        go_on(*life, kind.lasts);
        crashes += crash_everywhere(std::move(life), ended, seen);
        if (HasFailure())
          std::cout << "operation " << faults + 1 << " failed with " << kind.error
                    << (kind.lasts ? " and all later ones" : "") << '\n';
      }
      std::cout << "[   SWEPT  ] " << what << ", error " << kind.error
                << (kind.lasts ? " from there on: " : " once: ") << faults - stride << " faults, "
                << crashes << " crashes after them" << std::endl;
    }
  }

  // The fault is lifted.
  static void go_on(faulty_life &life, bool lasted) {
    life.fail_none();
    if (!life.opened) {
      life.table.kill();
      ASSERT_EQ(life.table.open(), zem_ok);
      ASSERT_EQ(life.table.wait(), zem_yes);
    }
    const std::size_t accepted = life.accepted.size();
    postings durable = content(life.accepted, life.durable, accepted);
    postings all = content(life.accepted, accepted, accepted);
    if (life.closed_badly) {
      const postings held = life.table.held();
      EXPECT_TRUE(contains(held, durable));
      EXPECT_TRUE(contains(content(life.accepted, accepted, life.durable), held));
      durable = all = held;
    }
    life.table.timer();
    ASSERT_EQ(life.table.wait(), zem_yes);
    const std::vector<posting> extra{key(1, 9999), key(3, 9999)};
    all.insert(extra.begin(), extra.end());
    ASSERT_EQ(life.table.insert(extra), zem_ok);
    ASSERT_EQ(life.table.update(), zem_ok);
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
    EXPECT_TRUE(contains(life.table.held(), durable));
    EXPECT_FALSE(refuses_merges(life.table));
    life.table.kill();
  }

  static bool refuses_merges(table_life &table) {
    bool refuses = false;
    std::vector<zem_shard *> all = table.shards();
    for (zem_shard *shard : table.shards_there())
      all.push_back(shard);
    for (const zem_shard *shard : all) {
      const zem_read_guard held(shard->lock);
      refuses |= shard->refused < 0;
    }
    return refuses;
  }

  std::uint64_t tried_each = 1;  // of what crashes leave, one of so many directories is opened
  std::mt19937_64 random{1};

  // Every crash that can follow the failure while it lasted.
  std::size_t crash_everywhere(std::unique_ptr<faulty_life> life, std::size_t ended,
                               std::unordered_set<std::uint64_t> &seen) {
    disk_story story = life->recorder.story();
    story.ops.resize(ended);
    const std::map<std::size_t, bounds> notes = life->notes;
    const changes accepted = life->accepted;
    const std::size_t unfailed = life->unfailed;
    life.reset();
    std::size_t crashes = 0;
    every_crash(story, unfailed, [&](std::size_t done, const crash &end) {
      if (HasFailure()) return;
      const bounds &promised = std::prev(notes.upper_bound(done))->second;
      if (!seen.insert(end.left.hash() ^ promised.durable << 20 ^ promised.accepted).second) return;
      if (random() % tried_each != 0) return;
      ++crashes;
      judge(end.left, content(accepted, promised.durable, promised.accepted),
            content(accepted, promised.accepted, promised.durable), promised.moved_after);
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

  static void judge(const disk_state &left, const postings &durable, const postings &accepted,
                    const std::optional<posting> &moved_after = {}) {
    const temp_dir directory;
    const disk_recorder recorder(directory.path(), left);
    table_life table(directory.path());
    table.moved_after = moved_after;
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

// A split that finds postings in data file, frozen log, live log and, in the end, `doc`. A table that
// cannot route takes no more than 16 batches, so all inserts together are no more.
TEST_F(TableFaultTest, SplitsLoseNothing) {
  for (const bool at_peer : {false, true}) {
    tried_each = at_peer ? 4 : 1;
    sweep(at_peer ? "splits with a peer" : "splits", at_peer ? peer_state() : shards_state(1),
          [](faulty_life &life) {
            life.open();
            life.insert(keys(1, 1, 3));
            life.insert(keys(2, 1, 3));
            life.sync();
            life.merge();
            life.insert({key(1, 11), key(2, 11)});
            life.remove({key(1, 1), key(2, 1)});
            life.sync();
            life.freeze();
            life.insert({key(1, 21), key(2, 21)});
            life.sync();
            life.split({key(1, 31), key(2, 31)}, {key(1, 41), key(2, 41)});
            life.sync();
            life.insert({key(1, 51), key(2, 51)});
            life.remove({key(1, 2), key(2, 2)});
            life.sync();
          });
  }
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
