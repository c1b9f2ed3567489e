// Locks, their order, and the annotations by which the compiler checks both.
//
// Lock order. A thread takes locks in rising rank and never holds two of one rank; debug builds
// assert it on every acquisition.
//
//   rank      lock                   what it guards
//   registry  zem_sdb::lock          table names; held across a table's whole open
//   loads     zem_sdb::loads_mutex   the open bulk loads; a load's handle is issued under it
//   handles   zem_hmap::lock         one handle map; taken inside the two above, never before them
//   load      zem_exec::mutex        one bulk load: its calls come one after the other
//   routing   zem_table::routing     order of routings, from the swap of a batch to its last run
//   list      zem_table::list_mutex  from computing a new "sdb.lst" to the exchange in memory
//   batch     zem_table::batch_mutex the pending batch
//   table     zem_table::lock        the shard list
//   gate      zem_table::wait_mutex  the counts of admitted writers, readers and holders
//   shard     zem_shard::lock        one shard's stores
//   cache     zem_cache::mutex       one block cache
//   queue     zem_task::mutex        the task queue; always last but for a leaf or the error log
//   leaf      a loader's or a timer's own mutex, which nothing is taken under
//   log       zem_err::mutex         one line at a time to the host's sink
//   pool      the spare blocks of all pools; wherever memory is asked for
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <pthread.h>

#include "base/assert.h"
#include "base/clock.h"

#ifdef __clang__
#define ZEM_ANNOTATE(x) __attribute__((x))
#else
#define ZEM_ANNOTATE(x)
#endif
#define ZEM_CAPABILITY(name) ZEM_ANNOTATE(capability(name))
#define ZEM_SCOPED_CAPABILITY ZEM_ANNOTATE(scoped_lockable)
#define ZEM_GUARDED_BY(lock) ZEM_ANNOTATE(guarded_by(lock))
#define ZEM_REQUIRES(...) ZEM_ANNOTATE(requires_capability(__VA_ARGS__))
#define ZEM_REQUIRES_SHARED(...) ZEM_ANNOTATE(requires_shared_capability(__VA_ARGS__))
#define ZEM_ACQUIRE(...) ZEM_ANNOTATE(acquire_capability(__VA_ARGS__))
#define ZEM_ACQUIRE_SHARED(...) ZEM_ANNOTATE(acquire_shared_capability(__VA_ARGS__))
#define ZEM_RELEASE(...) ZEM_ANNOTATE(release_capability(__VA_ARGS__))
#define ZEM_RELEASE_SHARED(...) ZEM_ANNOTATE(release_shared_capability(__VA_ARGS__))
#define ZEM_RELEASE_GENERIC(...) ZEM_ANNOTATE(release_generic_capability(__VA_ARGS__))
#define ZEM_EXCLUDES(...) ZEM_ANNOTATE(locks_excluded(__VA_ARGS__))
// The one way round the analysis; stands with the argument why.
#define ZEM_UNCHECKED_LOCKS ZEM_ANNOTATE(no_thread_safety_analysis)

enum class zem_lock_rank : std::uint8_t {
  registry,
  loads,
  handles,
  load,
  routing,
  list,
  batch,
  table,
  gate,
  shard,
  cache,
  queue,
  leaf,
  log,
  pool
};

#ifdef NDEBUG
inline void zem_rank_take(zem_lock_rank) noexcept {}
inline void zem_rank_give(zem_lock_rank) noexcept {}
#else
inline thread_local std::uint32_t zem_ranks_held = 0;  // one bit a rank
inline void zem_rank_take(zem_lock_rank rank) noexcept {
  const std::uint32_t bit = 1U << static_cast<unsigned>(rank);
  ZEM_ASSERT(zem_ranks_held < bit);
  zem_ranks_held |= bit;
}
inline void zem_rank_give(zem_lock_rank rank) noexcept {
  zem_ranks_held &= ~(1U << static_cast<unsigned>(rank));
}
#endif

class ZEM_CAPABILITY("mutex") zem_mutex {
 public:
  explicit zem_mutex(zem_lock_rank rank) noexcept : rank_(rank) {}
  zem_mutex(const zem_mutex &) = delete;
  zem_mutex &operator=(const zem_mutex &) = delete;
  void lock() ZEM_ACQUIRE() {
    zem_rank_take(rank_);
    mutex_.lock();
  }
  void unlock() ZEM_RELEASE() {
    zem_rank_give(rank_);  // first: once unlocked, the mutex may go with its owner
    mutex_.unlock();
  }

 private:
  friend class zem_cond;
  std::mutex mutex_;
  const zem_lock_rank rank_;
};

// Many readers or one writer; a waiting writer is let in before later readers.
class ZEM_CAPABILITY("rwlock") zem_rwlock {
 public:
  explicit zem_rwlock(zem_lock_rank rank) noexcept : rank_(rank) {
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&lock_, &attributes);
    pthread_rwlockattr_destroy(&attributes);
  }
  ~zem_rwlock() { pthread_rwlock_destroy(&lock_); }
  zem_rwlock(const zem_rwlock &) = delete;
  zem_rwlock &operator=(const zem_rwlock &) = delete;
  void lock() ZEM_ACQUIRE() {
    zem_rank_take(rank_);
    pthread_rwlock_wrlock(&lock_);
  }
  void unlock() ZEM_RELEASE() { give(); }
  void lock_shared() ZEM_ACQUIRE_SHARED() {
    zem_rank_take(rank_);
    pthread_rwlock_rdlock(&lock_);
  }
  void unlock_shared() ZEM_RELEASE_SHARED() { give(); }

 private:
  void give() ZEM_UNCHECKED_LOCKS {  // the system's call does not say which kind it gives back
    zem_rank_give(rank_);            // first: once unlocked, the lock may go with its owner
    pthread_rwlock_unlock(&lock_);
  }
  pthread_rwlock_t lock_;
  const zem_lock_rank rank_;
};

class ZEM_SCOPED_CAPABILITY [[nodiscard]] zem_lock_guard {
 public:
  explicit zem_lock_guard(zem_mutex &mutex) ZEM_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~zem_lock_guard() ZEM_RELEASE() {
    if (held_) mutex_.unlock();
  }
  zem_lock_guard(const zem_lock_guard &) = delete;
  zem_lock_guard &operator=(const zem_lock_guard &) = delete;
  void unlock() ZEM_RELEASE() {
    held_ = false;
    mutex_.unlock();
  }

 private:
  zem_mutex &mutex_;
  bool held_ = true;
};

class ZEM_SCOPED_CAPABILITY [[nodiscard]] zem_write_guard {
 public:
  explicit zem_write_guard(zem_rwlock &lock) ZEM_ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
  ~zem_write_guard() ZEM_RELEASE() {
    if (held_) lock_.unlock();
  }
  zem_write_guard(const zem_write_guard &) = delete;
  zem_write_guard &operator=(const zem_write_guard &) = delete;
  void unlock() ZEM_RELEASE() {
    held_ = false;
    lock_.unlock();
  }

 private:
  zem_rwlock &lock_;
  bool held_ = true;
};

class ZEM_SCOPED_CAPABILITY [[nodiscard]] zem_read_guard {
 public:
  explicit zem_read_guard(zem_rwlock &lock) ZEM_ACQUIRE_SHARED(lock) : lock_(lock) {
    lock_.lock_shared();
  }
  ~zem_read_guard() ZEM_RELEASE_GENERIC() {
    if (held_) lock_.unlock_shared();
  }
  zem_read_guard(const zem_read_guard &) = delete;
  zem_read_guard &operator=(const zem_read_guard &) = delete;
  void unlock() ZEM_RELEASE_GENERIC() {
    held_ = false;
    lock_.unlock_shared();
  }

 private:
  zem_rwlock &lock_;
  bool held_ = true;
};

// A condition that threads wait for under a mutex. Whoever makes it true wakes them under that
// mutex, so no wake-up is lost. Waits follow the library's clock (clock.h).
class zem_cond {
 public:
  void wait(zem_mutex &mutex) ZEM_REQUIRES(mutex) {
    std::unique_lock<std::mutex> held(mutex.mutex_, std::adopt_lock);
    cond_.wait(held);
    held.release();
  }
  // Waits to be woken, or until the clock's stamp reaches `deadline_us`. False when that time is
  // past: callers test their condition in a loop around it, as wake-ups may be spurious.
  bool wait_until(zem_mutex &mutex, std::uint64_t deadline_us) ZEM_REQUIRES(mutex) {
    const std::uint64_t now_us = zem_timer_stamp();
    if (now_us >= deadline_us) return false;
    std::unique_lock<std::mutex> held(mutex.mutex_, std::adopt_lock);
    cond_.wait_for(held, std::chrono::microseconds(zem_clock_slice(deadline_us - now_us)));
    held.release();
    return true;
  }
  void wake_one() noexcept { cond_.notify_one(); }
  void wake_all() noexcept { cond_.notify_all(); }

 private:
  std::condition_variable cond_;
};
