#include "src/table.h"

#include <algorithm>

#include "base/clock.h"
#include "base/err.h"

#include "src/table_impl.h"

namespace {

constexpr std::uint64_t gate_wait_us = 300ULL * 1000 * 1000;
constexpr std::uint64_t spare_pool_us = 2'000'000;  // a busy map is gone and back by then

}  // namespace

zem_table::zem_table() = default;

zem_table::~zem_table() {
  zem_timer_kill(timer);
  zem_task_close(task);
  for (std::size_t i = 0; i < zem_arrx_count(shards); ++i)
    delete zem_arrx_get_at(shards, i);
  zem_pool_trim(0);
}

std::vector<zem_shard *> zem_table_shard_list(const zem_table &table) {
  zem_read_guard held(table.lock);
  std::vector<zem_shard *> list;
  const std::size_t count = zem_arrx_count(table.shards);
  list.reserve(count);
  for (std::size_t i = 0; i < count; ++i)
    list.push_back(zem_arrx_get_at(table.shards, i));
  return list;
}

namespace {

enum class gate_answer : std::uint8_t { admitted, closed, barred };

gate_answer try_enter(zem_table &table, zem_table_role role) ZEM_REQUIRES(table.wait_mutex) {
  if (!table.open) return gate_answer::closed;
  const bool writes = role == zem_table_role::writer;
  if ((writes ? table.writer_bars : table.reader_bars) > 0) return gate_answer::barred;
  ++(writes ? table.writers : table.readers);
  ++table.holders;
  return gate_answer::admitted;
}

zem_status wait_to_enter(zem_table &table, zem_table_role role) ZEM_REQUIRES(table.wait_mutex) {
  const std::uint64_t deadline_us = zem_timer_stamp() + gate_wait_us;
  gate_answer answer = gate_answer::barred;
  while (answer == gate_answer::barred) {
    if (table.closing) return zem_status{-EBUSY};
    if (!table.gate.wait_until(table.wait_mutex, deadline_us)) return zem_status{-EBUSY};
    answer = try_enter(table, role);
  }
  return answer == gate_answer::admitted ? zem_ok : zem_status{ZEM_SDB_E_CLOSED};
}

}  // namespace

zem_status zem_table_wait_lock(zem_table &table, zem_table_role role) {
  zem_lock_guard held(table.wait_mutex);
  const gate_answer answer = try_enter(table, role);
  if (answer == gate_answer::barred) return wait_to_enter(table, role);
  return answer == gate_answer::admitted ? zem_ok : zem_status{ZEM_SDB_E_CLOSED};
}

void zem_table_set_state(zem_table &table, zem_shard &shard, zem_shard_state state) {
  const auto move = [&](std::uint32_t &bars, zem_shard_state from) {
    bars -= shard.state >= from ? 1U : 0U;
    bars += state >= from ? 1U : 0U;
  };
  move(table.writer_bars, zem_shard_state::holding_writers);
  move(table.reader_bars, zem_shard_state::holding_readers);
  shard.state = state;
  table.gate.wake_all();
}

zem_status zem_table_wait_empty(zem_table &table, zem_table_role role, zem_table_when when) {
  const std::uint64_t deadline_us = zem_timer_stamp() + gate_wait_us;
  const bool all = role == zem_table_role::reader;
  while (table.writers > 0 || (all && table.readers > 0)) {
    const bool ends = table.closing || !table.open;
    if (ends && when == zem_table_when::open) return zem_status{ZEM_SDB_E_CLOSED};
    if (!table.gate.wait_until(table.wait_mutex, deadline_us)) return zem_status{-EBUSY};
  }
  return zem_ok;
}

void zem_table_wait_clear(zem_table &table, zem_table_role role) {
  zem_lock_guard held(table.wait_mutex);
  --(role == zem_table_role::writer ? table.writers : table.readers);
  --table.holders;
  table.gate.wake_all();
}

zem_status zem_table_hold(zem_table &table) {
  zem_lock_guard held(table.wait_mutex);
  if (!table.open) return zem_status{ZEM_SDB_E_CLOSED};
  ++table.holders;
  return zem_ok;
}

void zem_table_unhold(zem_table &table) {
  zem_lock_guard held(table.wait_mutex);
  --table.holders;
  table.gate.wake_all();
}

int zem_table_compare_x(const zem_shard &a, const zem_shard &b) noexcept {
  const int order = zem_mkey_compare(a.mkey, b.mkey.term, b.mkey.id);
  if (order != 0) return order;
  return a.id < b.id ? -1 : static_cast<int>(a.id > b.id);
}

int zem_table_compare(const zem_shard &shard, const zem_term &term, std::uint64_t id) noexcept {
  const int order = zem_xtree_compare(shard.mkey.term, term);
  if (order != 0) return order;
  return id == zem_id_first ? 1 : zem_mkey_compare(shard.mkey, term, id);
}

std::size_t zem_table_find(const zem_table &table, const zem_term &term, std::uint64_t id) {
  // The last shard takes what lies beyond all others, so its key, which grows, is not looked at.
  std::size_t low = 0;
  std::size_t high = zem_arrx_count(table.shards) - 1;
  while (low < high) {
    const std::size_t mid = (low + high) / 2;
    if (zem_table_compare(*zem_arrx_get_at(table.shards, mid), term, id) < 0) {
      low = mid + 1;
    } else {
      high = mid;
    }
  }
  return low;
}

zem_shard *zem_table_find_id(const zem_table &table, std::uint32_t number) {
  const auto place = std::lower_bound(
      table.shard_ids.begin(), table.shard_ids.end(), number,
      [](const zem_shard *shard, std::uint32_t wanted) { return shard->id < wanted; });
  return place != table.shard_ids.end() && (*place)->id == number ? *place : nullptr;
}

// The commit and merge requests, and what waits for background work.

zem_status zem_table_commit(zem_table &table) {
  if (!table.open) return zem_status{ZEM_SDB_E_CLOSED};
  if (zem_status st = zem_table_update(table, true); st < 0) return st;
  zem_table_request_commits(table, zem_table_which::written);
  return zem_ok;
}

void zem_table_request_commits(zem_table &table, zem_table_which which) {
  const std::uint32_t now = zem_time();
  zem_read_guard held(table.lock);
  for (std::size_t i = 0; i < zem_arrx_count(table.shards); ++i) {
    zem_shard &shard = *zem_arrx_get_at(table.shards, i);
    std::uint32_t stamp = shard.stamp;
    const bool quiet = now - stamp > table.cfg.flush_time;
    if (stamp == 0 || (which == zem_table_which::quiet && !quiet)) continue;
    if (!shard.stamp.compare_exchange_strong(stamp, 0)) continue;  // written to just now
    zem_task_add(table.task, shard, zem_task_kind::commit);
  }
}

zem_status zem_table_merge(zem_table &table) {
  if (!table.open) return zem_status{ZEM_SDB_E_CLOSED};
  // A batch that a shard does not take may wait for just this merge.
  const zem_status routed = zem_table_update(table, true);
  if (zem_status st = zem_table_hold(table); st < 0) return st;
  zem_on_exit unhold([&] { zem_table_unhold(table); });
  for (zem_shard *shard : zem_table_shard_list(table)) {
    zem_read_guard held(shard->lock);
    zem_shard_request(*shard);
  }
  return routed;
}

bool zem_table_nap(zem_table &table, std::uint64_t micros) {
  const std::uint64_t deadline_us = zem_timer_stamp() + micros;
  zem_lock_guard held(table.wait_mutex);
  while (table.open && !table.closing) {
    if (!table.gate.wait_until(table.wait_mutex, deadline_us)) return true;
  }
  return false;
}

void zem_shard_sleep(zem_table &table, const zem_shard &shard) {
  const std::uint64_t deadline_us = zem_timer_stamp() + gate_wait_us;
  zem_lock_guard held(table.wait_mutex);
  while (shard.state >= zem_shard_state::splitting) {
    if (!table.gate.wait_until(table.wait_mutex, deadline_us)) return;
  }
}

namespace {

// Commits a shard, after the split that parks its updates has ended.
zem_status sync_shard(zem_table &table, zem_shard &shard) {
  for (bool waited = false;; waited = true) {
    const zem_status st = zem_shard_commit(shard);
    if (st <= 0) return st;
    if (waited) return zem_status{-EBUSY};
    zem_shard_sleep(table, shard);
  }
}

}  // namespace

zem_status zem_table_sync(zem_table &table) {
  if (!table.open) return zem_status{ZEM_SDB_E_CLOSED};
  zem_status first = zem_table_update(table, true);
  if (zem_status st = zem_table_hold(table); st < 0) return zem_status_first(first, st);
  zem_on_exit unhold([&] { zem_table_unhold(table); });
  for (zem_shard *shard : zem_table_shard_list(table))
    first = zem_status_first(first, sync_shard(table, *shard));
  zem_lock_guard listed(table.list_mutex);
  return zem_status_first(first, zem_table_restore(table));
}

zem_status zem_table_wait(zem_table &table, std::uint32_t millis) {
  if (!table.open) return zem_status{ZEM_SDB_E_CLOSED};
  const zem_status st = zem_task_wait(table.task, zem_timer_stamp() + std::uint64_t{millis} * 1000);
  if (st > 0) zem_pool_trim(0);
  return st;
}

namespace {

// Whether the pending batch was quiet for long enough. Its time stays: a routing takes it along with
// the batch, and one that meets a clear leaves both to the next tick.
bool has_quiet_batch(const zem_table &table) {
  const std::uint32_t now = zem_time();
  zem_lock_guard held(table.batch_mutex);
  if (table.doc.tree.count == 0 || table.doc.time == 0) return false;
  return now - table.doc.time > table.cfg.flush_time;
}

void request_retries(zem_table &table) {
  if (zem_table_hold(table) < 0) return;
  zem_on_exit unhold([&] { zem_table_unhold(table); });
  const std::uint64_t now_us = zem_timer_stamp();
  for (zem_shard *shard : zem_table_shard_list(table)) {
    zem_read_guard held(shard->lock);
    if (zem_shard_retry_due(*shard, now_us)) zem_shard_request(*shard);
  }
}

}  // namespace

void zem_table_timer(zem_table &table) {
  if (!table.open) return;
  {
    zem_lock_guard listed(table.list_mutex);
    std::ignore = zem_table_restore(table);
  }
  zem_pool_trim(spare_pool_us);
  request_retries(table);  // first: a batch that cannot be routed may wait for just these
  if (has_quiet_batch(table) && zem_table_update(table, false) < 0) return;
  zem_table_request_commits(table, zem_table_which::quiet);
}
