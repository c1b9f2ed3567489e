// A table's record on a directory, without a database around it, so that a test can open, kill and
// close it at will and look into its shards. The clock stands still.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "base/err.h"

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
        if (level < 0 && self->on_info) self->on_info(line);
        const std::lock_guard held(self->mutex_);
        if (level >= 0) self->lines_.emplace_back(line);
      },
      this);
  std::function<void(const std::string &)>
      on_info;  // called with each line that tells of no failure

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
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

class table_life {
 public:
  explicit table_life(std::string directory) : directory_(std::move(directory)) {}

  zem_status open() {
    record_ = std::make_unique<zem_table>();
    record_->path = directory_;
    record_->name = "table";
    record_->cfg = cfg;
    record_->err_log = lines.err;
    bool served = false;
    const zem_status st = zem_table_open(*record_, served);
    if (!served) record_.reset();
    return st;
  }
  // Forgets all that is in memory. Work in progress ends first.
  void kill() { record_.reset(); }
  zem_status close() {
    zem_table_close_begin(*record_);
    const zem_status st = zem_table_close(*record_);
    record_.reset();
    return st;
  }

  bool served() const { return record_ != nullptr; }
  zem_table &operator*() { return *record_; }
  zem_table *operator->() { return record_.get(); }

  std::vector<zem_shard *> shards() {
    const zem_read_guard held(record_->lock);
    return record_->shard_ids;
  }
  zem_shard &shard(std::uint32_t number) {
    const zem_read_guard held(record_->lock);
    zem_shard *const found = zem_table_find_id(*record_, number);
    EXPECT_NE(found, nullptr);
    return *found;
  }
  postings held() {
    postings all;
    for (const zem_shard *one : shards())
      all.merge(shard_postings(*one));
    return all;
  }

  zem_status insert(std::span<const posting> some) {
    return zem_table_add(*record_, [&](zem_doc &doc) {
      for (const posting &each : some)
        zem_doc_load(doc, each.id, zem_term_head(each.term), each.term[2], 1);
    });
  }
  // Past the pending batch.
  zem_status route(std::span<const posting> some, std::uint32_t flag) {
    zem_doc doc;
    for (const posting &each : some)
      zem_doc_load_term(doc, each.id, each.term, flag);
    return zem_table_update_x(*record_, doc, nullptr);
  }
  zem_status sync() { return zem_table_sync(*record_); }
  // Merges what can be merged, and waits for it.
  zem_status merge() {
    const zem_status st = zem_table_merge(*record_);
    return st < 0 ? st : wait();
  }
  // The clock stands still, so this waits until all work is done.
  zem_status wait() { return zem_table_wait(*record_, 1); }

  manual_clock clock;
  zem_cfg cfg{.thread_num = 1, .commit_num = 1 << 20, .commit_time = 0, .merge_time = 0};
  error_lines lines;

 private:
  const std::string directory_;
  std::unique_ptr<zem_table> record_;
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
