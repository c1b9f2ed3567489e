// The task queue of a table: worker threads that commit, merge and split its shards in the order in
// which the work was asked for.
//
// An item is taken, or the queue found empty, under `mutex`, so no wake-up is lost. A worker runs one
// item at a time, to its end. While the queue does not accept (the table is being cleared or closed)
// an added item is dropped, and so are the queued ones: a dropped merge or split lets its shard go
// idle again, a dropped commit leaves the shard marked as changed. Nothing is lost by a drop: the
// postings stay in the shard's log.
//
// The queue knows shards by name only; exec_task.cc reaches up to what the workers run.
#pragma once

#include <cstdint>
#include <deque>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/status.h"

struct zem_shard;
struct zem_table;

enum class zem_task_kind : std::uint32_t { commit = 1, merge = 2, split = 3 };

struct zem_task_item {
  zem_shard *shard;
  zem_task_kind kind;
};

// One per table, which owns it and outlives its workers.
struct zem_task {
  zem_task() = default;
  ~zem_task();
  zem_task(const zem_task &) = delete;
  zem_task &operator=(const zem_task &) = delete;

  zem_err *err_log = nullptr;  // the host's; both set before the workers start
  zem_table *table = nullptr;  // whose shards these are
  std::vector<std::thread> threads;

  zem_mutex mutex{zem_lock_rank::queue};
  zem_cond work;  // an item was queued, or the workers are to end
  zem_cond idle;  // nothing is queued or running, or the queue stopped accepting
  std::deque<zem_task_item> queue ZEM_GUARDED_BY(mutex);
  std::uint32_t running ZEM_GUARDED_BY(mutex) = 0;  // items in the workers' hands
  bool accepting ZEM_GUARDED_BY(mutex) = false;
  bool closing ZEM_GUARDED_BY(mutex) = false;  // workers end instead of taking an item
};

// Starts `thread_num` workers and begins to accept. Errors: -EAGAIN when a thread cannot be had; the
// workers already started go on, and an open with at least one worker succeeds.
zem_status zem_task_open(zem_task &task, std::uint32_t thread_num);

// Drops what is queued, lets running items end and joins every worker. May be called twice.
void zem_task_close(zem_task &task) noexcept;

// Queues an item and wakes a worker. A queue that does not accept drops it as described above.
void zem_task_add(zem_task &task, zem_shard &shard, zem_task_kind kind);

// Stops accepting, drops what is queued, and ends every zem_task_wait.
void zem_task_refuse(zem_task &task);
// The same, and waits until no item runs.
void zem_task_pause(zem_task &task);
void zem_task_resume(zem_task &task);

// Waits until nothing is queued or running, the clock reaches `deadline_us`, or the queue stops
// accepting. zem_yes: idle; zem_ok: time is up; ZEM_SDB_E_CLOSED: not accepting.
zem_status zem_task_wait(zem_task &task, std::uint64_t deadline_us);
