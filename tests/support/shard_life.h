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

  zem_status insert(std::span<const posting> some) {
    return update_shard(*shard, some, 1, applied);
  }
  zem_status insert(const zem_term &term, std::uint64_t id) {
    return insert(std::vector<posting>{{term, id}});
  }
  zem_status remove(const zem_term &term, std::uint64_t id) {
    return update_shard(*shard, std::vector<posting>{{term, id}}, 0, applied);
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
  void request() {
    const zem_read_guard held(shard->lock);
    zem_shard_request(*shard);
  }
  bool retry_due(std::uint64_t after_us) const {
    const zem_read_guard held(shard->lock);
    return zem_shard_retry_due(*shard, zem_timer_stamp() + after_us);
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
  // Which of the shard's five files there are.
  std::string files() const {
    std::string found;
    for (const char *suffix : zem_suffix::all) {
      if (zem_file_exist(zem_shard_fname(dir.path(), 1, suffix)) > 0)
        found += std::string(suffix) + ' ';
    }
    return found;
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
};
