// The road of a batch from the table to the live logs of its shards.

#include "src/table.h"

#include <algorithm>

#include "base/clock.h"

#include "src/shard_key.h"
#include "src/table_impl.h"

namespace {

using doc_node = zem_xnode<zem_doc_val>;

// Changes applied under one hold of a shard's lock, so that readers get in between.
constexpr std::size_t slice_postings = 512;
constexpr std::size_t stuck_factor = 16;  // times commit_num: where a pending batch ends to grow
constexpr std::uint64_t most_rounds = 10000;  // of the slow-down
constexpr std::uint64_t room_wait_us = 10ULL * 1000 * 1000;

// The part of a batch that falls to one shard.
struct zem_xshard {
  zem_shard *shard;
  const doc_node *at;   // the first change that is not applied
  const doc_node *end;  // the first beyond the run, or null
  bool full = false;    // nothing was applied: the shard has as much parked as may be
  zem_status result = zem_ok;
};

// Background work that lags behind, as seen while runs were applied.
struct lag {
  zem_shard_state state = zem_shard_state::idle;  // the highest seen
  std::uint64_t log_bytes = 0;  // the largest live log of a shard that is not idle
};

void look(lag &seen, const zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock) {
  const zem_shard_load_level level = zem_shard_level(shard);
  if (level.state == zem_shard_state::idle) return;
  seen.state = std::max(seen.state, level.state);
  seen.log_bytes = std::max(seen.log_bytes, level.log_bytes);
}

// The first node beyond the shard's range.
const doc_node *beyond(const zem_doc &doc, const zem_mkey &high) {
  bool past_end = false;
  const doc_node *node = zem_xtree_node_bfind(doc.tree, high.term, high.id, &past_end);
  if (past_end) return nullptr;
  return zem_mkey_compare(high, node->term, node->id) == 0 ? node->next : node;
}

// Cuts a batch into runs, in shard order. Shards that receive nothing get none.
std::vector<zem_xshard> zem_table_doc_shards(const zem_table &table, const zem_doc &doc)
    ZEM_REQUIRES_SHARED(table.lock) {
  std::vector<zem_xshard> runs;
  const doc_node *start = zem_xtree_node_first(doc.tree);
  const std::size_t count = zem_arrx_count(table.shards);
  for (std::size_t i = 0; i < count && start != nullptr; ++i) {
    zem_shard *shard = zem_arrx_get_at(table.shards, i);
    const doc_node *end = i + 1 < count ? beyond(doc, shard->mkey) : nullptr;
    if (end != start) runs.push_back({shard, start, end});
    start = end;
  }
  return runs;
}

// Applies the next changes of a run under one hold of the shard's lock.
zem_status apply_slice(zem_xshard &run, zem_proc &proc, bool &grew, lag &seen, zem_keys *keys) {
  std::array<const zem_doc_val *, slice_postings> changes{};
  std::size_t count = 0;
  for (const doc_node *node = run.at; node != run.end && count < changes.size(); node = node->next)
    changes[count++] = node->value;

  zem_shard &shard = *run.shard;
  std::size_t applied = 0;
  zem_write_guard held(shard.lock);
  const zem_mkey high = shard.mkey;
  const zem_status st = zem_shard_update(shard, proc, std::span(changes).first(count), applied);
  zem_proc_shrink(proc);
  for (; applied > 0; --applied)
    run.at = run.at->next;
  look(seen, shard);
  grew |= zem_mkey_compare(shard.mkey, high.term, high.id) > 0;  // also before a failure
  const bool last = st < 0 || run.at == run.end;
  if (last && grew && keys != nullptr) zem_mkey_add(shard.mkey, shard.id, *keys);
  return st;
}

bool find_full(zem_shard &shard) {
  zem_write_guard held(shard.lock);
  if (!zem_shard_full(shard)) return false;
  if (shard.full_since_us == 0) shard.full_since_us = zem_timer_stamp();
  return true;
}

void apply_run(zem_xshard &run, lag &seen, zem_keys *keys) {
  run.full = find_full(*run.shard);
  if (run.full) {
    run.result = zem_status{-EBUSY};
    return;
  }
  zem_proc proc;
  bool grew = false;
  while (run.at != run.end) {
    run.result = apply_slice(run, proc, grew, seen, keys);
    if (run.result < 0) return;
  }
}

// Applies every run, in spite of failures; returns the first.
zem_status apply_runs(std::vector<zem_xshard> &runs, lag &seen, zem_keys *keys) {
  zem_status first = zem_ok;
  for (zem_xshard &run : runs) {
    run.result = zem_boundary([&] {
      apply_run(run, seen, keys);
      return run.result;
    });
    first = zem_status_first(first, run.result);
  }
  return first < 0 ? first : zem_ok;
}

// Cuts and applies a batch. The caller is counted as a writer.
zem_status route(zem_table &table, const zem_doc &doc, std::vector<zem_xshard> &runs, lag &seen,
                 zem_keys *keys) {
  {
    zem_read_guard held(table.lock);
    if (zem_arrx_count(table.shards) == 0) return zem_status{ZEM_SDB_E_SHARD};
    runs = zem_table_doc_shards(table, doc);
  }
  return apply_runs(runs, seen, keys);
}

// Remembers how a routing of the pending batch went. What came back, or never left, is tried again
// when it was quiet for `flush_time` or the batch has filled up once more.
void settle(zem_table &table, zem_status st) {
  zem_lock_guard held(table.batch_mutex);
  table.routed = st;
  if (st < 0) table.doc.time = zem_time();
}

// What could not leave fills the batch no more than what came back does.
void forget_count(zem_table &table) {
  zem_lock_guard held(table.batch_mutex);
  table.doc.count = 0;
}

void give_back(zem_table &table, const std::vector<zem_xshard> &runs) {
  zem_lock_guard held(table.batch_mutex);
  for (const zem_xshard &run : runs) {
    for (const doc_node *node = run.at; node != run.end; node = node->next)
      zem_doc_restore_term(table.doc, node->id, node->term, node->value->flag);
  }
}

// Swaps the pending batch with the empty one of the routing. Where a routing ran out of memory while
// giving back, its batch is still there and goes back first: applying a change twice changes nothing.
void take_batch(zem_table &table) ZEM_REQUIRES(table.routing) {
  zem_lock_guard held(table.batch_mutex);
  for (const doc_node *node = zem_xtree_node_first(table.batch.tree); node != nullptr;
       node = node->next)
    zem_doc_restore_term(table.doc, node->id, node->term, node->value->flag);
  zem_doc_clear(table.batch);
  zem_doc_swap(table.doc, table.batch);
}

bool has_pending(const zem_table &table) ZEM_REQUIRES(table.routing) {
  zem_lock_guard held(table.batch_mutex);
  return table.doc.tree.count > 0 || table.batch.tree.count > 0;
}

bool has_shards(const zem_table &table) {
  zem_read_guard held(table.lock);
  return zem_arrx_count(table.shards) > 0;
}

// Routes the pending batch through a gate that has let the caller in.
zem_status route_pending(zem_table &table, std::vector<zem_xshard> &runs, lag &seen)
    ZEM_REQUIRES(table.routing) {
  if (!has_shards(table)) {
    forget_count(table);
    return zem_status{ZEM_SDB_E_SHARD};
  }
  take_batch(table);
  const zem_status st = route(table, table.batch, runs, seen, nullptr);
  if (st < 0) give_back(table, runs);
  zem_doc_clear(table.batch);
  return st;
}

// Sleeps one step of the slow-down; false when nobody is to be slowed down any more.
bool nap(zem_table &table) {
  return zem_table_nap(table, std::uint64_t{table.cfg.commit_time} * 1000);
}

lag look_again(const std::vector<zem_xshard> &runs) {
  lag seen;
  for (const zem_xshard &run : runs) {
    zem_read_guard held(run.shard->lock);
    look(seen, *run.shard);
  }
  return seen;
}

// How often a writer sleeps at most after its first sleep, by how far the log has outgrown its limit.
// A running split takes longer than a merge, so it holds writers harder.
std::uint64_t rounds_of(const lag &seen, std::uint64_t limit) noexcept {
  const std::uint64_t times = (seen.log_bytes - 1) / limit + 1;
  if (times > most_rounds) return most_rounds;
  const bool splits = seen.state > zem_shard_state::merging;
  return std::min(splits ? times * times * times : times * times, most_rounds);
}

// Holds a writer up whose shards lag behind with their merges.
void zem_table_sleep(zem_table &table, const std::vector<zem_xshard> &runs, const lag &behind) {
  if (table.cfg.commit_time == 0) return;
  const std::uint64_t limit = zem_cfg_bytes(table.cfg.merge_num);
  if (behind.log_bytes <= limit) {
    std::ignore = nap(table);
    return;
  }
  for (std::uint64_t left = rounds_of(behind, limit) + 1; left > 0 && nap(table); --left) {
    if (look_again(runs).log_bytes <= limit) return;
  }
}

// Waits until the split that left no room for a run goes on; then there is room, or the gate keeps the
// caller. False, at once, when writers have waited for room_wait_us on it, or need not any more.
bool wait_for_room(zem_table &table, zem_shard &shard) {
  std::uint64_t deadline_us = room_wait_us;
  {
    zem_read_guard held(shard.lock);
    deadline_us += shard.full_since_us;
  }
  zem_lock_guard held(table.wait_mutex);
  while (shard.state == zem_shard_state::splitting) {
    if (!table.open || table.closing) return false;
    if (!table.gate.wait_until(table.wait_mutex, deadline_us)) return false;
  }
  return true;
}

// The same for each run that found no room; false too when there is none.
bool wait_for_room(zem_table &table, const std::vector<zem_xshard> &runs) {
  bool waited = false;
  for (const zem_xshard &run : runs) {
    if (!run.full) continue;
    if (!wait_for_room(table, *run.shard)) return false;
    waited = true;
  }
  return waited;
}

// How a routing went.
struct zem_routed {
  zem_status st = zem_ok;
  std::vector<zem_xshard> runs{};
  lag behind{};
};

// Routes the pending batch once. The caller is a holder.
zem_routed update_once(zem_table &table) {
  zem_routed went;
  zem_lock_guard routing(table.routing);
  if (!has_pending(table)) return went;
  went.st = zem_table_wait_lock(table, zem_table_role::writer);
  if (went.st < 0) {
    settle(table, went.st);
    forget_count(table);
    return went;
  }
  went.st = zem_boundary(
      [&]() ZEM_UNCHECKED_LOCKS { return route_pending(table, went.runs, went.behind); });
  zem_table_wait_clear(table, zem_table_role::writer);
  settle(table, went.st);
  return went;
}

// Routes a host's batch once. The caller is a holder.
zem_routed update_once(zem_table &table, const zem_doc &doc, zem_keys *keys) {
  zem_routed went;
  zem_lock_guard routing(table.routing);
  went.st = zem_table_wait_lock(table, zem_table_role::writer);
  if (went.st < 0) return went;
  went.st = zem_boundary([&] { return route(table, doc, went.runs, went.behind, keys); });
  zem_table_wait_clear(table, zem_table_role::writer);
  return went;
}

// Moves the runs that found no room to a batch of their own. The first failure of the others.
zem_status take_full(const std::vector<zem_xshard> &runs, zem_doc &rest) {
  zem_doc full;
  zem_status first = zem_ok;
  for (const zem_xshard &run : runs) {
    if (!run.full) first = zem_status_first(first, run.result);
    for (const doc_node *node = run.at; run.full && node != run.end; node = node->next)
      zem_doc_load_term(full, node->id, node->term, node->value->flag);
  }
  zem_doc_swap(rest, full);
  return first;
}

}  // namespace

bool zem_table_stuck(const zem_table &table) {
  const std::uint64_t most = std::uint64_t{table.cfg.commit_num} * stuck_factor;
  return table.routed < 0 && static_cast<std::uint64_t>(table.doc.tree.count) >= most;
}

zem_status zem_table_update(zem_table &table, bool slow_down) {
  if (zem_status st = zem_table_hold(table); st < 0) return st;
  zem_on_exit unhold([&] { zem_table_unhold(table); });
  for (;;) {
    const zem_routed went = update_once(table);
    if (!slow_down) return went.st;
    if (wait_for_room(table, went.runs)) continue;
    if (went.behind.state != zem_shard_state::idle) zem_table_sleep(table, went.runs, went.behind);
    return went.st;
  }
}

zem_status zem_table_update_x(zem_table &table, const zem_doc &doc, zem_keys *keys) {
  if (zem_status st = zem_table_hold(table); st < 0) return st;
  zem_on_exit unhold([&] { zem_table_unhold(table); });
  zem_doc rest;
  const zem_doc *batch = &doc;
  zem_status first = zem_ok;
  for (;;) {
    const zem_routed went = update_once(table, *batch, keys);
    if (wait_for_room(table, went.runs)) {
      first = zem_status_first(first, take_full(went.runs, rest));
      batch = &rest;
      continue;
    }
    if (went.behind.state != zem_shard_state::idle) zem_table_sleep(table, went.runs, went.behind);
    return zem_status_first(first, went.st);
  }
}
