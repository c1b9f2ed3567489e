// Tables whose shards divide, here and with a peer, as a host sees them.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/file_reader.h"
#include "tests/support/host.h"
#include "tests/support/manual_clock.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

constexpr std::uint32_t terms = 64;
constexpr std::size_t mib_of_postings = 120'000;  // more than a log of 1 MiB takes

host_term term_of(std::uint64_t id) { return {static_cast<std::uint32_t>(id * 7 % terms), 0, 0}; }

// Posting n of the table has id n, from 1 on.
class HostSplitTest : public HostTest {
 public:
  using HostTest::HasFailure;

  // With a peer, each posting goes to its owner and both stores are asked.
  virtual void insert_each(const std::vector<host_posting> &some) { insert_all(some); }
  virtual void remove_each(const std::vector<host_posting> &some) { remove_all(some); }
  virtual void sync_both() { sync(); }
  virtual std::vector<std::uint64_t> find_both(std::uint32_t word) { return find({word, 0, 0}); }
  // Nothing else runs and the live logs are empty, so nothing comes between the inserts and the deletes.
  virtual void remove_for_good(const std::vector<host_posting> &some) {
    insert_all(some);
    sync();
    remove_all(some);
  }
  // Every posting of a data file lies above the key of the shard before and not above its own, by the
  // reader that knows nothing of the library. Nothing may be running.
  void expect_ranges() const {
    const auto posting_of = [](const host_row &row) {
      return file_posting{row.key.term, row.key.id};
    };
    std::vector<host_row> rows = shards();
    std::sort(rows.begin(), rows.end(), [&](const host_row &a, const host_row &b) {
      return file_key_before(posting_of(a), posting_of(b));
    });
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const file_content data =
          read_data_file(path("sdb_" + std::to_string(rows[i].attribute) + ".dat"));
      EXPECT_THAT(data.faults, IsEmpty());
      ASSERT_FALSE(data.records.empty());
      EXPECT_TRUE(i == 0 || file_key_before(posting_of(rows[i - 1]), data.records.front().posting));
      EXPECT_FALSE(file_key_before(posting_of(rows[i]), data.records.back().posting));
    }
  }

  virtual void settle() {
    wait_idle();
    merge();
  }
  virtual void reopen_both() {
    reopen();
    wait_idle();
  }

 protected:
  HostSplitTest() {
    configure({{"merge_num", 1}, {"split_num", 1}, {"commit_time", 0}, {"merge_time", 0}});
  }

  void insert_ids(std::uint64_t first, std::uint64_t count) const {
    std::vector<host_posting> postings;
    for (std::uint64_t id = first; id < first + count; ++id)
      postings.push_back({term_of(id), id});
    insert_all(postings);
  }
  void insert_some() {
    insert_ids(held + 1, mib_of_postings);
    held += mib_of_postings;
    sync();
    wait_idle();
  }

  using id_lists = std::vector<std::vector<std::uint64_t>>;
  id_lists ids_held() const {
    id_lists ids;
    for (std::uint32_t term = 0; term < terms; ++term)
      ids.push_back(find({term, 0, 0}));
    return ids;
  }
  static id_lists ids_up_to(std::uint64_t count) {
    id_lists ids(terms);
    for (std::uint64_t id = 1; id <= count; ++id)
      ids[term_of(id)[0]].push_back(id);
    return ids;
  }
  // The shards' files are there, and no others.
  void expect_files() const {
    std::set<std::string> wanted{"sdb.xml", "sdb.lst"};
    for (const host_row &row : shards()) {
      wanted.insert("sdb_" + std::to_string(row.attribute) + ".log");
      wanted.insert("sdb_" + std::to_string(row.attribute) + ".dat");
    }
    EXPECT_EQ(files(), wanted);
  }

  std::uint64_t held = 0;
};

TEST_F(HostSplitTest, AGrowingTableSplitsAndKeepsEverything) {
  for (int round = 0; round < 8; ++round) {
    insert_some();
    expect_files();
    expect_ranges();
    EXPECT_TRUE(ids_held() == ids_up_to(held));
  }
  EXPECT_THAT(shards().size(), Ge(3));
  EXPECT_THAT(log.infos(), IsSupersetOf({"split begin [1]!", "split rest [1]!",
                                         "split notify (0) [1]!", "split notify (1) [1]!"}));
  reopen();
  wait_idle();
  expect_files();
  EXPECT_TRUE(ids_held() == ids_up_to(held));
  EXPECT_THAT(log.errors(), IsEmpty());
}

// Threads that insert, delete and look up while ranges divide again and again, and a model of what is
// certain. Each posting is inserted once. Lasting ones stay. Fleeting ones are deleted right after,
// which reaches what the live log still holds; what is left of them goes when nothing else runs.
class split_model {
 public:
  using postings = std::vector<host_posting>;
  static constexpr std::uint64_t step = 10'000;
  static constexpr std::uint64_t fleeting_each = 64;
  static constexpr unsigned hot_terms = 4;  // most of a round goes there

  // The next postings of a thread, whose ids are its own.
  postings draw(std::mt19937 &random, std::uint64_t &next_id, std::uint64_t count) const {
    postings some;
    for (; count > 0; --count, next_id += 2) {
      const std::uint32_t word = random() % 8 == 0 ? random() % terms : hot + random() % hot_terms;
      some.push_back({{word % terms, 0, 0}, next_id});
    }
    return some;
  }
  std::uint32_t hot = 0;

  void begin(const postings &some) { add(begun_, some); }
  void sync(const postings &some) { add(synced_, some); }
  void end_round() { begun_ = synced_; }
  // What is found under a term is no less than what was synced before, and no more than was begun.
  std::vector<std::uint64_t> synced(std::uint32_t word) const { return copy(synced_, word); }
  void expect_between(std::uint32_t word, const std::vector<std::uint64_t> &at_least,
                      const std::vector<std::uint64_t> &found) const {
    const std::vector<std::uint64_t> at_most = copy(begun_, word);
    EXPECT_TRUE(std::includes(found.begin(), found.end(), at_least.begin(), at_least.end()));
    EXPECT_TRUE(std::includes(at_most.begin(), at_most.end(), found.begin(), found.end()));
  }

 private:
  using id_sets = std::array<std::set<std::uint64_t>, terms>;
  void add(id_sets &into, const postings &some) {
    const std::lock_guard held(mutex_);
    for (const host_posting &each : some)
      into[each.term[0]].insert(each.id);
  }
  std::vector<std::uint64_t> copy(const id_sets &from, std::uint32_t word) const {
    const std::lock_guard held(mutex_);
    return {from[word].begin(), from[word].end()};
  }
  mutable std::mutex mutex_;
  id_sets begun_, synced_;
};

// One table, or with a peer the union of both.
void live_through_splits(HostSplitTest &host, int rounds, std::uint64_t steps) {
  constexpr unsigned writers = 2;
  split_model model;
  std::array<std::uint64_t, writers> next_id{2, 3};
  std::mt19937 seeds(7);
  for (int round = 0; round < rounds && !host.HasFailure(); ++round) {
    model.hot = seeds() % terms;
    std::mutex doomed_mutex;
    split_model::postings doomed;
    std::atomic<unsigned> writing = writers;
    std::vector<std::thread> threads;
    for (unsigned n = 0; n < writers; ++n) {
      threads.emplace_back([&, n, random = std::mt19937(seeds())]() mutable {
        for (std::uint64_t i = 0; i < steps; ++i) {
          const auto lasting = model.draw(random, next_id[n], split_model::step);
          const auto fleeting = model.draw(random, next_id[n], split_model::fleeting_each);
          model.begin(lasting);
          model.begin(fleeting);
          host.insert_each(lasting);
          host.insert_each(fleeting);
          host.sync_both();
          model.sync(lasting);
          host.remove_each(fleeting);
          const std::lock_guard held(doomed_mutex);
          doomed.insert(doomed.end(), fleeting.begin(), fleeting.end());
        }
        --writing;
      });
    }
    threads.emplace_back([&, random = std::mt19937(seeds())]() mutable {
      while (writing > 0) {
        const std::uint32_t word = random() % terms;
        const auto at_least = model.synced(word);
        model.expect_between(word, at_least, host.find_both(word));
      }
    });
    for (std::thread &thread : threads)
      thread.join();
    host.settle();
    const auto check = [&] {
      for (std::uint32_t word = 0; word < terms; ++word)
        model.expect_between(word, model.synced(word), host.find_both(word));
      host.expect_ranges();
    };
    check();
    host.remove_for_good(doomed);
    host.settle();
    model.end_round();
    check();
    if (round % 2 == 0) host.reopen_both();
    check();
  }
}

TEST_F(HostSplitTest, ThreadsGoOnThroughSplits) {
  live_through_splits(*this, 3, 12);
  EXPECT_THAT(shards().size(), Ge(4));
  expect_files();
  EXPECT_THAT(log.errors(), IsEmpty());
}

// A host that takes the upper half of the first shard that is split, into table "u".
class HostPeerTest : public HostSplitTest {
 protected:
  HostPeerTest() {
    host = this;
    EXPECT_EQ(zem_sdb_table_create(sdb.get(), "u"), 0);
    taken = zem_sdb_table_open(sdb.get(), "u");
    fill_slot<zem_sdb_split_open>(
        ZEM_SDB_SPLIT_OPEN,
        [](const char *name, std::uint32_t shard, std::uint64_t *peer, std::uint64_t *target) {
          EXPECT_STREQ(name, "t");
          host->splits.push_back(shard);
          *peer = host->takes ? 7 : 0;
          *target = 8;
        });
    fill_slot<zem_sdb_peer_load>(ZEM_SDB_PEER_LOAD, [](std::uint64_t peer, std::uint64_t target,
                                                       std::uint64_t *load, std::uint32_t *shard) {
      EXPECT_EQ(peer, 7U);
      EXPECT_EQ(target, 8U);
      *load = 9;
      *shard = 77;
      return host->call(ZEM_SDB_PEER_LOAD);
    });
    fill_slot<zem_sdb_peer_batch>(
        ZEM_SDB_PEER_BATCH, [](std::uint64_t, std::uint64_t load, zem_doc *batch, int destination) {
          EXPECT_EQ(load, 9U);
          host->batches.push_back(destination);
          const host_keys keys(zem_sdb_keys_new());  // routes each batch by itself
          EXPECT_EQ(zem_sdb_update(host->sdb.get(), host->taken, batch, keys.get()), 0);
          return host->failing == ZEM_SDB_PEER_BATCH ? -5 : 0;
        });
    fill_slot<zem_sdb_peer_commit>(ZEM_SDB_PEER_COMMIT, [](std::uint64_t, std::uint64_t, int) {
      EXPECT_EQ(zem_sdb_sync(host->sdb.get(), host->taken), 0);
      return host->call(ZEM_SDB_PEER_COMMIT);
    });
    fill_slot<zem_sdb_peer_close>(ZEM_SDB_PEER_CLOSE, [](std::uint64_t, std::uint64_t,
                                                         std::uint64_t *id, std::uint32_t *term) {
      *id = 1;
      term[0] = terms;
      return host->call(ZEM_SDB_PEER_CLOSE);
    });
    fill_slot<zem_sdb_peer_cancel>(
        ZEM_SDB_PEER_CANCEL,
        [](const char *, std::uint64_t, std::uint64_t, std::uint64_t, std::uint32_t shard) {
          EXPECT_EQ(shard, host->splits.back());
          return host->call(ZEM_SDB_PEER_CANCEL);
        });
    fill_slot<zem_sdb_split_notify>(ZEM_SDB_SPLIT_NOTIFY,
                                    [](const char *, std::uint32_t, std::uint32_t) {
                                      host->call(ZEM_SDB_SPLIT_NOTIFY);
                                      host->asked = true;
                                    });
    fill_slot<zem_sdb_split_wait>(ZEM_SDB_SPLIT_WAIT,
                                  [](const char *, std::uint32_t, std::uint32_t *done) {
                                    host->call(ZEM_SDB_SPLIT_WAIT);
                                    host->asked = false;
                                    *done = 1;
                                  });
    fill_slot<zem_sdb_split_done>(ZEM_SDB_SPLIT_DONE, [](const char *, std::uint64_t, std::uint64_t,
                                                         const zem_var *ids, const zem_var *keys) {
      EXPECT_EQ(zem_var_size(ids), 3);
      EXPECT_EQ(zem_var_size(keys), 3);
      for (std::int64_t i = 0; i < 3; ++i)
        host->ranges.push_back(zem_var_get_buf(ids, i));
      const std::uint64_t head = zem_var_get_long(keys, 1);
      const std::lock_guard locked(host->boundary_mutex);
      host->boundary =
          file_posting{{static_cast<std::uint32_t>(head), static_cast<std::uint32_t>(head >> 32),
                        zem_var_get_buf(keys, 1)},
                       zem_var_get_long(ids, 1)};
      host->call(ZEM_SDB_SPLIT_DONE);
    });
  }

  template <class Function>
  void fill_slot(std::uint32_t slot, Function function) {
    zem_sdb_callback(sdb.get(), slot, reinterpret_cast<zem_sdb_function>(function));
  }
  std::int32_t call(std::uint32_t slot) {
    calls.push_back(slot);
    return slot == failing ? -5 : 0;
  }
  id_lists ids_of_both() {
    id_lists all;
    for (std::uint32_t word = 0; word < terms; ++word)
      all.push_back(find_both(word));
    return all;
  }

  using some_postings = std::vector<host_posting>;
  void change(decltype(zem_sdb_inserts) *verb, const some_postings &here,
              const some_postings &there) const {
    for (const auto &[store, some] : {std::pair(table, &here), std::pair(taken, &there)})
      change_all(verb, *some, store);
  }
  // By the ranges that the last split told.
  void insert_each(const some_postings &some) override {
    some_postings here, there;
    {
      const std::lock_guard locked(boundary_mutex);
      for (const host_posting &each : some) {
        const bool upper = boundary && file_key_before(*boundary, {each.term, each.id});
        (upper ? there : here).push_back(each);
      }
    }
    change(zem_sdb_inserts, here, there);
  }
  // What was not routed when its half moved has stayed here.
  void remove_each(const some_postings &some) override { change(zem_sdb_deletes, some, some); }
  void remove_for_good(const some_postings &some) override {
    change(zem_sdb_inserts, some, some);
    sync_both();
    remove_each(some);
  }
  void sync_both() override {
    sync();
    EXPECT_EQ(zem_sdb_sync(sdb.get(), taken), 0);
  }
  // First where postings come from, then where they go.
  std::vector<std::uint64_t> find_both(std::uint32_t word) override {
    std::set<std::uint64_t> all;
    for (const std::uint64_t store : {table, taken}) {
      for (const auto &[id, tag] : query({{.term = {word, 0, 0}}}, store).ids)
        all.insert(id);
    }
    return {all.begin(), all.end()};
  }
  void settle() override {
    for (int i = 0; i < 2; ++i) {
      HostSplitTest::settle();
      std::swap(table, taken);
    }
  }
  void reopen_both() override {
    reopen();
    EXPECT_EQ(zem_sdb_table_close(sdb.get(), taken), 0);
    taken = zem_sdb_table_open(sdb.get(), "u");
    wait_idle();
  }

  static inline HostPeerTest *host = nullptr;
  std::mutex boundary_mutex;
  std::optional<file_posting> boundary;  // the greatest key of the last lower half
  std::uint64_t taken = 0;
  bool takes = true;
  std::uint32_t failing = 0;          // the slot that returns a failure
  std::vector<std::uint32_t> calls;   // slots but the one of batches
  std::vector<std::uint32_t> splits;  // shards
  std::vector<std::uint32_t> ranges;  // shards of the ranges that were told
  std::vector<int> batches;           // their destinations

 private:
  // Seconds between questions for consent pass in a moment.
  manual_clock clock;
  std::atomic<bool> asked = false;
  std::jthread seconds{[this](const std::stop_token &stop) {
    for (; !stop.stop_requested(); std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
      if (asked) clock.advance_ms(1000);
    }
  }};
};

TEST_F(HostPeerTest, ThreadsGoOnThroughSplits) {
  live_through_splits(*this, 2, 12);
  EXPECT_THAT(splits.size(), Ge(3));
  EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HostPeerTest, AnUpperHalfMovesToThePeer) {
  insert_some();
  insert_some();
  ASSERT_THAT(splits, ElementsAre(1));
  EXPECT_THAT(calls, ElementsAre(ZEM_SDB_PEER_LOAD, ZEM_SDB_PEER_COMMIT, ZEM_SDB_SPLIT_NOTIFY,
                                 ZEM_SDB_SPLIT_WAIT, ZEM_SDB_PEER_COMMIT, ZEM_SDB_SPLIT_NOTIFY,
                                 ZEM_SDB_SPLIT_WAIT, ZEM_SDB_PEER_CLOSE, ZEM_SDB_SPLIT_DONE));
  EXPECT_THAT(ranges, ElementsAre(1, 2, 77));
  EXPECT_TRUE(ids_of_both() == ids_up_to(held));
  EXPECT_LT(totals().xcount, held);
  EXPECT_EQ(shards().size(), 1U);
  expect_files();
  reopen();
  EXPECT_TRUE(ids_of_both() == ids_up_to(held));
  EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HostPeerTest, ASplitWhoseCallbackFailsCostsNothing) {
  insert_some();
  for (const std::uint32_t slot :
       {ZEM_SDB_PEER_LOAD, ZEM_SDB_PEER_BATCH, ZEM_SDB_PEER_COMMIT, ZEM_SDB_PEER_CLOSE}) {
    failing = slot;
    calls.clear();
    splits.clear();
    for (int i = 0; i < 4 && splits.empty(); ++i)
      insert_some();
    ASSERT_THAT(splits, ElementsAre(1));
    EXPECT_EQ(calls.back(), ZEM_SDB_PEER_CANCEL);
    EXPECT_THAT(log.errors(), Contains("split error [1]: -5"));
    log.forget();
    EXPECT_TRUE(ids_held() == ids_up_to(held));
    merge();  // ends the pause
    expect_files();
  }
}

TEST_F(HostPeerTest, APeerWithoutCallbacksIsRefusedAndALocalSplitNeedsNone) {
  insert_some();
  zem_sdb_callback(sdb.get(), ZEM_SDB_PEER_CLOSE, nullptr);
  insert_some();
  EXPECT_THAT(log.errors(), ElementsAre("split error [1]: -22"));
  EXPECT_THAT(calls, ElementsAre(ZEM_SDB_PEER_CANCEL));
  merge();
  takes = false;
  insert_some();
  EXPECT_THAT(calls, ElementsAre(ZEM_SDB_PEER_CANCEL, ZEM_SDB_SPLIT_DONE));
  EXPECT_THAT(ranges, ElementsAre(1, 3, 4));  // number 2 was the cancelled split's
  EXPECT_TRUE(ids_held() == ids_up_to(held));
}

}  // namespace
