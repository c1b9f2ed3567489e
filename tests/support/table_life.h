// A table's record on a directory, without a database around it, so that a test can open, kill and
// close it at will and look into its shards. The clock stands still.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <semaphore>
#include <set>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "base/err.h"

#include "src/exec_split.h"
#include "src/shard_files.h"
#include "src/spm_iter.h"
#include "src/spx_iter.h"
#include "src/table.h"
#include "tests/support/manual_clock.h"

struct posting {
  zem_term term{};
  std::uint64_t id = 0;
  friend bool operator==(const posting &, const posting &) = default;
};

inline bool operator<(const posting &a, const posting &b) {
  return zem_xtree_key_compare(a.term, a.id, b.term, b.id) < 0;
}

inline std::ostream &operator<<(std::ostream &out, const posting &p) {
  return out << p.term[0] << '.' << p.term[1] << '.' << p.term[2] << ':' << p.id;
}

using postings = std::set<posting>;

// What merges of both logs would leave in the data file. Nobody else works on the shard meanwhile.
inline postings shard_postings(const zem_shard &shard) ZEM_UNCHECKED_LOCKS {
  postings held;
  zem_xiter at;
  zem_status st = zem_spx_iterd_first(shard.dat, at);
  for (; st >= 0 && zem_xiter_stands(at); st = zem_spx_iterd_next(shard.dat, at))
    held.insert({at.term, at.doc});
  EXPECT_EQ(st, zem_ok);
  for (const zem_spm *log : {&shard.mlog, &shard.log}) {
    zem_iter iter;
    for (zem_spm_iterd_first(*log, iter); zem_iter_stands(iter); zem_spm_iterd_next(iter)) {
      if (iter.val->flag < 0) held.erase({iter.term, iter.doc});
      if (iter.val->flag >= 0) held.insert({iter.term, iter.doc});
    }
  }
  return held;
}

// The failures that a library's error log got. Any thread writes them.
class error_lines {
 public:
  error_lines() = default;
  ~error_lines() { zem_err_free(err); }
  error_lines(const error_lines &) = delete;
  error_lines &operator=(const error_lines &) = delete;

  std::vector<std::string> take() {
    const std::lock_guard held(mutex_);
    return std::exchange(lines_, {});
  }
  zem_err *const err = zem_err_new(
      [](void *into, int level, const char *line) {
        auto *self = static_cast<error_lines *>(into);
        std::unique_lock held(self->mutex_);
        if (level >= 0) return void(self->lines_.emplace_back(line));
        const auto told = self->on_info_;
        held.unlock();
        if (told) told(line);
      },
      this);
  // From now on called with each line that tells of no failure.
  void tell(std::function<void(const std::string &)> on_info) {
    const std::lock_guard held(mutex_);
    on_info_ = std::move(on_info);
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::function<void(const std::string &)> on_info_;
};

// One batch of changes, all with this flag. `applied` is how many of them were.
inline zem_status update_shard(zem_shard &shard, std::span<const posting> some, std::uint32_t flag,
                               std::size_t &applied) {
  std::vector<zem_doc_val> values;
  for (const posting &each : some)
    values.push_back({.term = each.term, .flag = flag, .id = each.id});
  std::vector<const zem_doc_val *> changes;
  for (const zem_doc_val &value : values)
    changes.push_back(&value);
  zem_proc proc;
  const zem_write_guard held(shard.lock);
  return zem_shard_update(shard, proc, changes, applied);
}

// Where its directory holds another one named "peer", the table there is opened and closed along with
// it and takes the upper half of the first shard over when that is split, as a second host would. What
// says "both" below is done to both tables then.
class table_life {
 public:
  explicit table_life(std::string directory) : directory_(std::move(directory)) { fill_all(); }

  zem_status open() {  // both
    const std::string beside = zem_dir_merge(directory_, peer_name);
    const bool has_peer = std::filesystem::exists(beside);
    const zem_status st = open(record_, directory_, has_peer ? &callbacks_ : nullptr);
    if (!has_peer) return st;
    const zem_status peer_st = open(peer_, beside, nullptr);
    if (st < 0 || peer_st < 0) return zem_status_first(st, peer_st);
    return recover_half();
  }
  // Forgets all that is in memory of both. Work in progress ends first.
  void kill() {
    record_.reset();
    peer_.reset();
  }
  zem_status close() {  // both
    zem_status st = zem_ok;
    for (auto *record : {&record_, &peer_}) {
      if (*record == nullptr) continue;
      zem_table_close_begin(**record);
      st = zem_status_first(st, zem_table_close(**record));
      record->reset();
    }
    return st;
  }

  bool served() const { return record_ != nullptr; }
  zem_table &operator*() { return *record_; }
  zem_table *operator->() { return record_.get(); }

  std::vector<zem_shard *> shards() { return shards_of(*record_); }
  // Of the peer, once a half is its own.
  std::vector<zem_shard *> shards_there() {
    return moved_after && peer_ != nullptr ? shards_of(*peer_) : std::vector<zem_shard *>();
  }
  zem_shard &shard(std::uint32_t number) {
    const zem_read_guard held(record_->lock);
    zem_shard *const found = zem_table_find_id(*record_, number);
    EXPECT_NE(found, nullptr);
    return *found;
  }
  // What a host finds that asks each table for its range.
  postings held() {
    postings all;
    for (const zem_shard *one : shards())
      all.merge(shard_postings(*one));
    if (moved_after && unsplit()) all.erase(all.upper_bound(*moved_after), all.end());
    for (const zem_shard *one : shards_there())
      all.merge(shard_postings(*one));
    return all;
  }
  static posting last_of(const zem_shard &shard) {
    const zem_read_guard held(shard.lock);
    return {shard.mkey.term, shard.mkey.id};
  }
  // Whether a live log says that this one is deleted.
  bool deleted(const posting &p) {
    std::vector<zem_shard *> all = shards();
    for (zem_shard *one : shards_there())
      all.push_back(one);
    return std::any_of(all.begin(), all.end(), [&](const zem_shard *one) {
      const zem_read_guard held(one->lock);
      const auto *node = zem_xtree_node_get(one->log.tree, p.term, p.id);
      return node != nullptr && node->value->flag < 0;
    });
  }
  bool unsplit() { return shards().front()->id == 1; }

  zem_status insert(std::span<const posting> some) {
    return each_owner(some, [](zem_table &owner, std::span<const posting> its) {
      return zem_table_add(owner, [&](zem_doc &doc) {
        for (const posting &each : its)
          zem_doc_load(doc, each.id, zem_term_head(each.term), each.term[2], 1);
      });
    });
  }
  // Past the pending batch.
  zem_status route(std::span<const posting> some, std::uint32_t flag) {
    return each_owner(some, [&](zem_table &owner, std::span<const posting> its) {
      zem_doc doc;
      for (const posting &each : its)
        zem_doc_load_term(doc, each.id, each.term, flag);
      return zem_table_update_x(owner, doc, nullptr);
    });
  }
  zem_status update() {  // both
    return each_table([](zem_table &table) { return zem_table_update(table, false); });
  }
  zem_status sync() { return each_table(zem_table_sync); }  // both
  // Merges what can be merged, and waits for it.
  zem_status merge() {  // both
    const zem_status st = each_table(zem_table_merge);
    return st < 0 ? st : wait();
  }
  // The clock stands still, so this waits until all work is done.
  zem_status wait() {  // both
    zem_status st = zem_yes;
    std::ignore =
        each_table([&](zem_table &table) { return st = std::min(st, zem_table_wait(table, 1)); });
    return st;
  }
  // What the timer does, so long after what came before that any pause is over.
  void timer() {  // both
    constexpr std::uint64_t long_ms = 11 * 60 * 1000;
    clock.advance_ms(long_ms);
    std::ignore = each_table([](zem_table &table) {
      zem_table_timer(table);
      return zem_ok;
    });
  }

  // Splits the first shard. `at` is called on this thread with each line that the split logs, and the
  // split goes on when it returns. The error log is busy meanwhile: what fails hangs if it logs that.
  zem_status split(const std::function<void(const std::string &line)> &at =
                       [](const std::string &) {}) {
    std::binary_semaphore reached(0), go_on(0);
    std::string told;
    lines.tell([&](const std::string &line) {
      if (!line.starts_with("split ")) return;
      told = line;
      reached.release();
      go_on.acquire();
    });
    zem_shard &one = *shards().front();
    one.state = zem_shard_state::splitting;
    splitting_ = this;
    zem_status st = zem_ok;
    std::thread splitter([&] {
      st = zem_task_split(*record_, one);
      told.clear();
      reached.release();
    });
    for (;;) {
      while (!reached.try_acquire_for(std::chrono::milliseconds(1))) {
        if (asked_) clock.advance_ms(1000);  // till the next question for consent
      }
      if (told.empty()) break;
      at(told);
      go_on.release();
    }
    splitter.join();
    lines.tell(nullptr);
    return st;
  }

  static constexpr const char *peer_name = "peer";
  manual_clock clock;
  zem_cfg cfg{.thread_num = 1, .commit_num = 1 << 20, .commit_time = 0, .merge_time = 0};
  error_lines lines;
  // The host's note, made when a split is done: the peer has what lies behind this.
  std::optional<posting> moved_after;
  // Called with the slot of each of the peer's calls, but those that cannot fail; negative fails it.
  std::function<std::int32_t(std::uint32_t slot)> on_call;

 private:
  zem_status open(std::unique_ptr<zem_table> &record, const std::string &directory,
                  const zem_sdb_slots *callbacks) {
    record = std::make_unique<zem_table>();
    record->path = directory;
    record->name = "table";
    record->cfg = cfg;
    record->err_log = lines.err;
    record->callbacks = callbacks;
    bool served = false;
    const zem_status st = zem_table_open(*record, served);
    if (!served) record.reset();
    return st;
  }
  // While the shard that was split is listed, its half is here, and what the peer got is worth nothing.
  zem_status recover_half() {
    if (!moved_after && !unsplit()) moved_after = last_of(*shards().front());
    if (moved_after) return zem_ok;
    zem_table_totals totals;
    const zem_status st = zem_table_count(*peer_, totals);
    return st >= 0 && totals.xcount > 0 ? zem_table_clear(*peer_) : st;
  }
  static std::vector<zem_shard *> shards_of(zem_table &table) {
    const zem_read_guard held(table.lock);
    return table.shard_ids;
  }

  // Does `verb` with each table in spite of failures, and returns the first.
  template <class Verb>
  zem_status each_table(const Verb &verb) {
    zem_status st = verb(*record_);
    if (peer_ != nullptr) st = zem_status_first(st, verb(*peer_));
    return st;
  }
  template <class Verb>
  zem_status each_owner(std::span<const posting> some, const Verb &verb) {
    std::vector<posting> here, there;
    for (const posting &each : some)
      (moved_after && *moved_after < each ? there : here).push_back(each);
    const zem_status st = here.empty() ? zem_ok : verb(*record_, here);
    return there.empty() ? st : zem_status_first(st, verb(*peer_, there));
  }

  // ---- the host's callbacks

  static std::int32_t call(std::uint32_t slot, const std::function<zem_status(zem_table &)> &work) {
    table_life &life = *splitting_;
    const zem_status st = life.on_call ? zem_status{life.on_call(slot)} : zem_ok;
    return st < 0 ? st : work(*life.peer_);
  }
  template <class Function>
  void fill(std::uint32_t slot, Function function) {
    callbacks_[slot] = reinterpret_cast<zem_sdb_function>(function);
  }
  void fill_all() {
    fill<zem_sdb_split_open>(
        ZEM_SDB_SPLIT_OPEN, [](const char *, std::uint32_t, std::uint64_t *peer, std::uint64_t *) {
          *peer = splitting_->peer_ != nullptr && !splitting_->moved_after ? 1 : 0;
        });
    fill<zem_sdb_peer_load>(
        ZEM_SDB_PEER_LOAD, [](std::uint64_t, std::uint64_t, std::uint64_t *, std::uint32_t *) {
          return call(ZEM_SDB_PEER_LOAD, [](zem_table &table) { return zem_table_clear(table); });
        });
    fill<zem_sdb_peer_batch>(
        ZEM_SDB_PEER_BATCH, [](std::uint64_t, std::uint64_t, zem_doc *batch, int) {
          return call(ZEM_SDB_PEER_BATCH,
                      [&](zem_table &peer) { return zem_table_update_x(peer, *batch, nullptr); });
        });
    fill<zem_sdb_peer_commit>(ZEM_SDB_PEER_COMMIT, [](std::uint64_t, std::uint64_t, int) {
      return call(ZEM_SDB_PEER_COMMIT, zem_table_sync);
    });
    fill<zem_sdb_peer_close>(ZEM_SDB_PEER_CLOSE,
                             [](std::uint64_t, std::uint64_t, std::uint64_t *, std::uint32_t *) {
                               return call(ZEM_SDB_PEER_CLOSE, [](zem_table &) { return zem_ok; });
                             });
    fill<zem_sdb_peer_cancel>(ZEM_SDB_PEER_CANCEL, [](const char *, std::uint64_t, std::uint64_t,
                                                      std::uint64_t, std::uint32_t) {
      return std::int32_t{zem_table_clear(*splitting_->peer_)};
    });
    fill<zem_sdb_split_notify>(
        ZEM_SDB_SPLIT_NOTIFY,
        [](const char *, std::uint32_t, std::uint32_t) { splitting_->asked_ = true; });
    fill<zem_sdb_split_wait>(ZEM_SDB_SPLIT_WAIT,
                             [](const char *, std::uint32_t, std::uint32_t *done) {
                               splitting_->asked_ = false;
                               *done = 1;
                             });
    fill<zem_sdb_split_done>(ZEM_SDB_SPLIT_DONE, [](const char *, std::uint64_t peer, std::uint64_t,
                                                    const zem_var *ids, const zem_var *keys) {
      const std::uint64_t head = zem_var_get_long(keys, 1);
      const zem_term last{static_cast<std::uint32_t>(head), static_cast<std::uint32_t>(head >> 32),
                          zem_var_get_buf(keys, 1)};
      if (peer != 0) splitting_->moved_after = {last, zem_var_get_long(ids, 1)};
    });
  }

  static inline table_life *splitting_ = nullptr;
  std::atomic<bool> asked_ = false;  // the split waits to ask for consent
  const std::string directory_;
  zem_sdb_slots callbacks_{};
  std::unique_ptr<zem_table> record_;
  std::unique_ptr<zem_table> peer_;  // null: there is none
};

// Writes a table directory whose shards hold these postings in their logs and are numbered from 1.
inline void make_table(const std::string &directory, const std::vector<postings> &shards) {
  const zem_cfg cfg;
  zem_task task;
  std::string list;
  for (std::size_t i = 0; i < shards.size(); ++i) {
    zem_shard shard;
    shard.id = static_cast<std::uint32_t>(i + 1);
    shard.directory = directory;
    shard.cfg = &cfg;
    shard.task = &task;
    {
      const zem_write_guard held(shard.lock);
      ASSERT_EQ(zem_shard_open_new(shard), zem_ok);
    }
    std::size_t applied = 0;
    ASSERT_GE(update_shard(shard, std::vector(shards[i].begin(), shards[i].end()), 1, applied),
              zem_ok);
    const zem_write_guard held(shard.lock);
    ASSERT_EQ(zem_shard_close(shard), zem_ok);
    list += (list.empty() ? "" : "\n") + std::to_string(shard.id);
  }
  ASSERT_EQ(zem_file_set_string(zem_dir_merge(directory, zem_table_list_file), list), zem_ok);
}
