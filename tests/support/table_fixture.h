// A table that a test opens, writes to and looks into without a database around it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "base/file.h"

#include "tests/support/table_life.h"
#include "tests/support/temp_dir.h"

inline posting at(std::uint32_t word0, std::uint64_t id) { return {{word0, 0, 0}, id}; }

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
  zem_status route() { return zem_table_update(*table, false); }

  postings in_shard(std::uint32_t number) { return shard_postings(table.shard(number)); }
  postings pending() {
    const zem_read_guard held(table->lock);
    postings found;
    for (const auto *node = zem_xtree_node_first(table->doc.tree); node != nullptr;
         node = node->next)
      found.insert({node->term, node->id});
    return found;
  }
  std::uint32_t pending_count() {
    const zem_read_guard held(table->lock);
    return table->doc.count;
  }
  std::uint32_t pending_time() {
    const zem_read_guard held(table->lock);
    return table->doc.time;
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
  void put_list(const std::string &text) {
    ASSERT_EQ(zem_file_set_string(directory.path("sdb.lst"), text), zem_ok);
  }
  std::string list() {
    std::string text;
    EXPECT_EQ(zem_file_get_string(directory.path("sdb.lst"), 1000, text), zem_ok);
    return text;
  }
  std::vector<std::uint32_t> numbers() {
    std::vector<std::uint32_t> found;
    for (const zem_shard *shard : table.shards())
      found.push_back(shard->id);
    return found;
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
