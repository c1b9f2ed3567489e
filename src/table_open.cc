// How a table comes up, is emptied, and goes down.

#include "src/table.h"

#include <algorithm>
#include <deque>
#include <exception>
#include <thread>

#include "base/err.h"
#include "base/file.h"

#include "src/shard_files.h"
#include "src/table_impl.h"

namespace {

using shard_list = std::vector<std::unique_ptr<zem_shard>>;

void log_open_failure(const zem_table &table, const zem_shard &shard, zem_status st) {
  zem_err_log(table.err_log, 0, "table %s: shard %d does not open: %d", table.name.c_str(),
              static_cast<std::int32_t>(shard.id), st);
}

// Repairs and opens the listed shards one after the other. The directory is durable as found.
zem_status open_shards(zem_table &table, const std::vector<std::uint32_t> &numbers,
                       shard_list &shards) {
  for (const std::uint32_t number : numbers) {
    shards.push_back(zem_table_shard(table, number));
    zem_shard &shard = *shards.back();
    zem_status st = zem_shard_recover(table.path, number, table.err_log);
    if (st >= 0) {
      zem_write_guard held(shard.lock);
      st = zem_shard_open(shard);
    }
    if (st >= 0) continue;
    log_open_failure(table, shard, st);
    return st;
  }
  return zem_dir_sync(table.path);  // missing files were created
}

// Shards to be loaded, and the threads that do it.
struct zem_load {
  zem_mutex mutex{zem_lock_rank::leaf};
  std::deque<zem_shard *> queue ZEM_GUARDED_BY(mutex);
  zem_status first ZEM_GUARDED_BY(mutex) = zem_ok;  // failure that keeps a shard from being used
};

zem_shard *next_to_load(zem_load &load) {
  zem_lock_guard held(load.mutex);
  if (load.queue.empty()) return nullptr;
  zem_shard *shard = load.queue.front();
  load.queue.pop_front();
  return shard;
}

zem_status load_shard(zem_shard &shard) {
  zem_write_guard held(shard.lock);
  return zem_shard_load(shard);
}

void zem_load_proc(const zem_table &table, zem_load &load) {
  while (zem_shard *shard = next_to_load(load)) {
    const zem_status st = zem_boundary([&] { return load_shard(*shard); });
    // Damage was told of where it was found; the shard works with what it has.
    if (st >= 0 || zem_status_damage(st)) continue;
    log_open_failure(table, *shard, st);
    zem_lock_guard held(load.mutex);
    load.first = zem_status_first(load.first, st);
  }
}

// Loads every shard, on as many threads as the settings say, this one among them.
zem_status load_shards(const zem_table &table, const shard_list &shards) {
  zem_load load;
  {
    zem_lock_guard held(load.mutex);
    for (const auto &shard : shards)
      load.queue.push_back(shard.get());
  }
  const std::size_t wanted = std::min<std::size_t>(table.cfg.thread_num, shards.size());
  std::vector<std::thread> helpers;
  helpers.reserve(wanted);
  try {
    while (helpers.size() + 1 < wanted)
      helpers.emplace_back([&] { zem_load_proc(table, load); });
  } catch (const std::exception &) {
    // No thread to be had, or no memory for one: fewer load more slowly, no more than that.
  }
  zem_load_proc(table, load);
  for (std::thread &helper : helpers)
    helper.join();
  zem_lock_guard held(load.mutex);
  return load.first;
}

zem_status zem_table_load(zem_table &table, const std::vector<std::uint32_t> &numbers) {
  shard_list shards;
  if (zem_status st = open_shards(table, numbers, shards); st < 0) return st;
  if (zem_status st = load_shards(table, shards); st < 0) return st;
  zem_write_guard held(table.lock);
  for (auto &shard : shards) {
    table.shard_seq = std::max(table.shard_seq, shard->id);
    zem_table_append(table, std::move(shard));
  }
  return zem_ok;
}

// Makes a brand-new shard, names it in the list and takes it in.
zem_status zem_table_open_x(zem_table &table, std::uint32_t number) ZEM_REQUIRES(table.list_mutex) {
  std::unique_ptr<zem_shard> shard = zem_table_shard(table, number);
  zem_status st = zem_ok;
  {
    zem_write_guard held(shard->lock);
    st = zem_shard_open_new(*shard);
  }
  if (st >= 0) st = zem_dir_sync(table.path);
  if (st >= 0) st = zem_table_write(table, {number});
  if (st < 0) return st;
  zem_write_guard held(table.lock);
  table.shard_seq = number;
  zem_table_append(table, std::move(shard));
  return zem_ok;
}

zem_status open_all_shards(zem_table &table) {
  zem_lock_guard listed(table.list_mutex);
  std::vector<std::uint32_t> numbers;
  // What a killed process left visible is acted upon, so it must not be taken back by a power cut.
  zem_status st = zem_dir_sync(table.path);
  if (st >= 0) st = zem_table_read(table, numbers);
  if (st > 0) {
    st = zem_table_load(table, numbers);
  } else if (st == 0) {
    st = zem_table_open_x(table, 1);
  }
  table.incomplete = st < 0;
  if (st < 0) {
    zem_err_log(table.err_log, 0, "table %s opened without shards: %d", table.name.c_str(), st);
  }
  return st;
}

// A frozen log that an earlier life left is merged first of all.
void request_left_merges(zem_table &table) {
  for (zem_shard *shard : zem_table_shard_list(table)) {
    zem_read_guard held(shard->lock);
    if (zem_shard_frozen(*shard) && shard->refused >= 0) zem_shard_request(*shard);
  }
}

void set_open(zem_table &table, bool open) {
  zem_lock_guard held(table.wait_mutex);
  table.open = open;
  table.gate.wake_all();
}

}  // namespace

zem_status zem_table_open(zem_table &table, bool &served) {
  served = false;
  if (zem_status st = zem_dir_lock(table.path, table.dir_lock); st < 0) return st;
  table.task.err_log = table.err_log;
  table.task.table = &table;
  const zem_status opened = open_all_shards(table);
  if (zem_status st = zem_task_open(table.task, table.cfg.thread_num); st < 0) return st;
  zem_timer_set(table.timer, zem_table_timer_ms, [&table] {
    const zem_status st = zem_boundary([&] {
      zem_table_timer(table);
      return zem_ok;
    });
    if (st < 0) zem_err_log(table.err_log, 0, "timer error: %d", st);
  });
  set_open(table, true);
  served = true;
  request_left_merges(table);
  return opened;
}

namespace {

// Shuts the table for a clear; false when it is shut already, after waiting for that clear to end.
bool begin_clear(zem_table &table) {
  zem_lock_guard held(table.wait_mutex);
  const bool first = !table.clearing;
  while (table.clearing)
    table.gate.wait(table.wait_mutex);
  if (!first && !table.open) return false;
  table.clearing = true;
  table.open = false;
  table.gate.wake_all();
  return true;
}

void end_clear(zem_table &table) {
  zem_lock_guard held(table.wait_mutex);
  if (!table.closing) zem_task_resume(table.task);  // a close that has begun wants no more work
  table.clearing = false;
  table.open = true;
  table.gate.wake_all();
}

// Nobody works on a shard after this: tasks are ended, and whoever held a shard has let it go.
void drain(zem_table &table) {
  zem_task_pause(table.task);
  zem_lock_guard held(table.wait_mutex);
  while (table.holders > 0)
    table.gate.wait(table.wait_mutex);
}

// Takes all shards out; `shards` has room for them.
void zem_table_clear_x(zem_table &table, shard_list &shards) noexcept {
  zem_write_guard held(table.lock);
  for (std::size_t i = 0; i < zem_arrx_count(table.shards); ++i)
    shards.emplace_back(zem_arrx_get_at(table.shards, i));
  zem_arrx_clear(table.shards);
  table.shard_ids.clear();
}

zem_status clear_shards(zem_table &table) {
  zem_lock_guard listed(table.list_mutex);
  shard_list shards;
  shards.reserve(zem_table_shard_list(table).size());  // nothing may keep a shard the list has lost
  std::vector<std::uint32_t> numbers;
  if (zem_status st = zem_table_write_empty(table, numbers); st < 0) return st;
  zem_table_clear_x(table, shards);
  zem_status last = zem_ok;
  for (const auto &shard : shards) {
    zem_write_guard held(shard->lock);
    if (zem_status st = zem_shard_clear(*shard); st < 0) last = st;
  }
  // A table that did not open its shards has their files all the same.
  for (std::size_t i = 0; shards.empty() && i < numbers.size(); ++i) {
    if (zem_status st = zem_shard_purge(table.path, numbers[i]); st < 0) last = st;
  }
  if (zem_status st = zem_table_open_x(table, 1); st < 0) last = st;
  return last;
}

}  // namespace

zem_status zem_table_clear(zem_table &table, const std::function<void()> &withdraw) {
  if (!begin_clear(table)) return zem_status{ZEM_SDB_E_CLOSED};
  zem_on_exit end([&] { end_clear(table); });
  withdraw();
  drain(table);
  return clear_shards(table);
}

void zem_table_close_begin(zem_table &table) {
  zem_lock_guard held(table.wait_mutex);
  table.closing = true;
  table.gate.wake_all();
  zem_task_refuse(table.task);
}

zem_status zem_table_close(zem_table &table) {
  zem_timer_kill(table.timer);
  zem_task_close(table.task);
  zem_status first = zem_table_update(table, false);
  set_open(table, false);
  {
    zem_read_guard shards_held(table.lock);  // no copy of the list, for which memory might be short
    for (std::size_t i = 0; i < zem_arrx_count(table.shards); ++i) {
      zem_shard &shard = *zem_arrx_get_at(table.shards, i);
      zem_write_guard held(shard.lock);
      first = zem_status_first(first, zem_shard_close(shard));
    }
  }
  {
    zem_lock_guard listed(table.list_mutex);
    first = zem_status_first(first, zem_table_restore(table));
  }
  return first < 0 ? first : zem_ok;
}
