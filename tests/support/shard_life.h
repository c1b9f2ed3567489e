// One shard in a directory of its own, without a table around it. Its task queue has no workers: what
// is asked for stays queued where a test can see it.
#pragma once

#include <gtest/gtest.h>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/file.h"

#include "src/shard.h"
#include "src/shard_files.h"
#include "tests/support/manual_clock.h"
#include "tests/support/table_life.h"
#include "tests/support/temp_dir.h"

class ShardTest : public ::testing::Test {
 protected:
  static constexpr zem_term ant{0, 0, 1};
  static constexpr zem_term cat{1, 0, 0};
  static constexpr zem_term dog{1, 0, 3};

  ShardTest() {
    cfg.merge_num = 1;
    cfg.split_num = 1;
    cfg.merge_time = 0;
    zem_task_resume(task);
    make_record();
    const zem_write_guard held(shard->lock);
    EXPECT_EQ(zem_shard_open_new(*shard), zem_ok);
  }

  // As after a kill: memory is gone, the files are as they were.
  zem_status reopen() {
    std::ignore = queued();
    make_record();
    if (zem_status st = zem_shard_recover(dir.path(), shard->id, lines.err); st < 0) return st;
    const zem_write_guard held(shard->lock);
    if (zem_status st = zem_shard_open(*shard); st < 0) return st;
    return zem_shard_load(*shard);
  }
  zem_status close() {
    const zem_write_guard held(shard->lock);
    return zem_shard_close(*shard);
  }

  zem_status insert(std::span<const posting> some) { return update(some, 1); }
  zem_status remove(std::span<const posting> some) { return update(some, 0); }
  zem_status insert(const zem_term &term, std::uint64_t id) {
    const posting one{term, id};
    return insert({&one, 1});
  }
  zem_status remove(const zem_term &term, std::uint64_t id) {
    const posting one{term, id};
    return remove({&one, 1});
  }
  // Ids `from`, `from` - 1 and so on.
  zem_status insert_falling(const zem_term &term, std::uint64_t from, std::size_t count) {
    std::vector<posting> some;
    for (std::size_t i = 0; i < count; ++i)
      some.push_back({term, from - i});
    return insert(some);
  }
  // New postings, until this many blocks of the log are full.
  void fill_blocks(std::uint32_t blocks) {
    while (shard->log.blk_no < blocks)
      ASSERT_GE(insert_falling(dog, next_id += 1000, 1000), zem_ok);
  }

  zem_status begin() {
    const zem_write_guard held(shard->lock);
    return zem_shard_merge_begin(*shard);
  }
  zem_status pass() { return zem_shard_merge(*shard); }
  zem_status end() {
    const zem_write_guard held(shard->lock);
    remains = std::make_unique<zem_shard_remains>();
    return zem_shard_merge_end(*shard, *remains);
  }
  zem_status release() { return zem_shard_merge_release(*shard, *remains); }
  void cancel() {
    const zem_write_guard held(shard->lock);
    zem_shard_merge_cancel(*shard);
  }
  void settle(zem_status result) {
    const zem_write_guard held(shard->lock);
    zem_shard_merge_settle(*shard, result);
  }
  // A merge from its begin to its release.
  void merge() {
    ASSERT_EQ(begin(), zem_ok);
    ASSERT_EQ(pass(), zem_ok);
    ASSERT_EQ(end(), zem_ok);
    ASSERT_EQ(release(), zem_ok);
  }

  postings held() const { return shard_postings(*shard); }
  bool frozen() const {
    const zem_read_guard locked(shard->lock);
    return zem_shard_frozen(*shard);
  }
  // The kinds of the items in the queue, which is emptied.
  std::vector<zem_task_kind> queued() {
    const zem_lock_guard locked(task.mutex);
    std::vector<zem_task_kind> kinds;
    for (const zem_task_item &item : task.queue)
      kinds.push_back(item.kind);
    task.queue.clear();
    return kinds;
  }
  bool exists(const char *suffix) const {
    return zem_file_exist(zem_shard_fname(dir.path(), shard->id, suffix)) > 0;
  }

  temp_dir dir;
  manual_clock clock;
  zem_cfg cfg;
  error_lines lines;
  std::unique_ptr<zem_shard> shard;
  zem_task task;  // lets go of the shard when it ends
  std::unique_ptr<zem_shard_remains> remains;
  std::size_t applied = 0;  // by the last update
  std::uint64_t next_id = 0;

 private:
  void make_record() {
    shard = std::make_unique<zem_shard>();
    shard->id = 1;
    shard->directory = dir.path();
    shard->cfg = &cfg;
    shard->task = &task;
    shard->err_log = lines.err;
  }
  zem_status update(std::span<const posting> some, std::uint32_t flag) {
    std::vector<zem_doc_val> values;
    for (const posting &each : some)
      values.push_back({.term = each.term, .flag = flag, .id = each.id});
    std::vector<const zem_doc_val *> changes;
    for (const zem_doc_val &value : values)
      changes.push_back(&value);
    zem_proc proc;
    const zem_write_guard held(shard->lock);
    return zem_shard_update(*shard, proc, changes, applied);
  }
};
