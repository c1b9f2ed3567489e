#include "src/exec_task.h"

#include <system_error>

#include "base/clock.h"
#include "base/err.h"
#include "base/scope.h"

#include "src/exec_split.h"
#include "src/shard.h"

zem_task::~zem_task() { zem_task_close(*this); }

namespace {

// What a dropped item was to do will be asked for again: by the next update past the threshold, or
// by the timer, which looks at the stamp.
void drop_item(const zem_task_item &item) noexcept {
  if (item.kind == zem_task_kind::commit) {
    std::uint32_t none = 0;
    item.shard->stamp.compare_exchange_strong(none, zem_time());
    return;
  }
  zem_shard_state queued = zem_shard_state::queued;
  item.shard->state.compare_exchange_strong(queued, zem_shard_state::idle);
}

void stop_accepting(zem_task &task) noexcept ZEM_REQUIRES(task.mutex) {
  task.accepting = false;
  for (const zem_task_item &item : task.queue)
    drop_item(item);
  task.queue.clear();
  task.idle.wake_all();
}

// Freezes the log, writes the new data file and puts it in place. `followed` tells whether the frozen
// log was an earlier attempt's, so that the live log still waits for a merge of its own.
zem_status run_merge(zem_shard &shard, zem_shard_remains &remains, bool &followed) {
  // The log's pages go to disk before the lock is taken, so that the freeze finds little to sync.
  // Its failure is met again there.
  std::ignore = zem_shard_commit(shard);
  {
    zem_write_guard held(shard.lock);
    followed = zem_shard_frozen(shard) && shard.log.tree.count > 0;
    if (zem_status st = zem_shard_merge_begin(shard); st < 0) return st;
  }
  zem_status st = zem_boundary([&] { return zem_shard_merge(shard); });
  zem_write_guard held(shard.lock);
  if (st >= 0) st = zem_shard_merge_end(shard, remains);
  if (st < 0) zem_shard_merge_cancel(shard);
  return st;
}

// Whether there is anything to merge. A log whose sync failed gets a new file by it, even if it holds
// no posting: its commits would fail for ever.
bool has_log(const zem_shard &shard) {
  zem_read_guard held(shard.lock);
  return shard.log.tree.count > 0 || zem_shard_frozen(shard) || zem_spm_failure(shard.log) < 0;
}

// The merge task of a shard that was claimed for it.
zem_status zem_task_merge(zem_shard &shard) {
  zem_shard_remains remains;  // goes after the state: writers are held up no longer than needed
  zem_on_exit let_go([&] { shard.state = zem_shard_state::idle; });
  bool followed = false;
  zem_status st = zem_ok;
  if (has_log(shard)) {
    st = zem_boundary([&] { return run_merge(shard, remains, followed); });
    if (st >= 0) st = zem_shard_merge_release(shard, remains);
  }
  zem_write_guard held(shard.lock);
  zem_shard_merge_settle(shard, st);
  if (st < 0 || !followed) return st;
  let_go.release();
  shard.state = zem_shard_state::idle;
  zem_shard_request_merge(shard);
  return st;
}

// One merge or split with the lines that tell of it. A shard that was cleared meanwhile is not queued
// any more, and its item is dropped. A split gives the shard another number; the lines name the first.
void process_work(const zem_task &task, zem_shard &shard, bool split) {
  if (!zem_shard_claim(shard, split ? zem_shard_state::splitting : zem_shard_state::merging))
    return;
  const char *what = split ? "split" : "merge";
  const auto id = static_cast<std::int32_t>(shard.id);
  const std::uint64_t begun_us = zem_timer_stamp();
  zem_err_info(task.err_log, "%s begin [%d]!", what, id);
  const zem_status st = zem_boundary(
      [&] { return split ? zem_task_split(*task.table, shard) : zem_task_merge(shard); });
  const auto millis = static_cast<int>((zem_timer_stamp() - begun_us) / 1000);
  zem_err_info(task.err_log, "%s end [%d]! %d ms", what, id, millis);
  if (st < 0) zem_err_log(task.err_log, 0, "%s error [%d]: %d", what, id, st);
}

void process_commit(const zem_task &task, zem_shard &shard) {
  const zem_status st = zem_boundary([&] { return zem_shard_commit(shard); });
  if (st < 0) zem_err_log(task.err_log, 0, "commit error: %d", st);
}

bool take_item(zem_task &task, zem_task_item &item) {
  zem_lock_guard held(task.mutex);
  while (task.queue.empty() && !task.closing)
    task.work.wait(task.mutex);
  if (task.closing) return false;
  item = task.queue.front();
  task.queue.pop_front();
  ++task.running;
  return true;
}

void end_item(zem_task &task) {
  zem_lock_guard held(task.mutex);
  --task.running;
  if (task.running == 0 && task.queue.empty()) task.idle.wake_all();
}

// The worker's loop.
void zem_task_process(zem_task &task) {
  zem_task_item item{};
  while (take_item(task, item)) {
    if (item.kind == zem_task_kind::commit) {
      process_commit(task, *item.shard);
    } else {
      process_work(task, *item.shard, item.kind == zem_task_kind::split);
    }
    end_item(task);
  }
}

}  // namespace

zem_status zem_task_open(zem_task &task, std::uint32_t thread_num) {
  {
    zem_lock_guard held(task.mutex);
    task.closing = false;
    task.accepting = true;
  }
  task.threads.reserve(thread_num);
  try {
    while (task.threads.size() < thread_num)
      task.threads.emplace_back([&task] { zem_task_process(task); });
  } catch (const std::system_error &) {
    if (task.threads.empty()) return zem_status{-EAGAIN};
  }
  return zem_ok;
}

void zem_task_close(zem_task &task) noexcept {
  {
    zem_lock_guard held(task.mutex);
    stop_accepting(task);
    task.closing = true;
    task.work.wake_all();
  }
  for (std::thread &thread : task.threads)
    thread.join();
  task.threads.clear();
}

void zem_task_add(zem_task &task, zem_shard &shard, zem_task_kind kind) {
  zem_lock_guard held(task.mutex);
  const zem_task_item item{&shard, kind};
  if (!task.accepting) {
    drop_item(item);
    return;
  }
  task.queue.push_back(item);
  task.work.wake_one();
}

void zem_task_refuse(zem_task &task) {
  zem_lock_guard held(task.mutex);
  stop_accepting(task);
}

void zem_task_pause(zem_task &task) {
  zem_lock_guard held(task.mutex);
  stop_accepting(task);
  while (task.running > 0)
    task.idle.wait(task.mutex);
}

void zem_task_resume(zem_task &task) {
  zem_lock_guard held(task.mutex);
  task.accepting = true;
}

zem_status zem_task_wait(zem_task &task, std::uint64_t deadline_us) {
  zem_lock_guard held(task.mutex);
  while (task.accepting && (task.running > 0 || !task.queue.empty())) {
    if (!task.idle.wait_until(task.mutex, deadline_us)) return zem_ok;
  }
  return task.accepting ? zem_yes : zem_status{ZEM_SDB_E_CLOSED};
}
