#include "src/exec_split.h"

#include <algorithm>
#include <array>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "base/err.h"
#include "base/scope.h"

#include "include/zem_sdb.h"
#include "src/shard_split.h"
#include "src/table_impl.h"

namespace {

constexpr std::uint64_t poll_us = 1000ULL * 1000;  // of the host's consent
constexpr int most_polls = 300;

enum : std::uint32_t { phase_writers, phase_all };  // who is to be held back next

// The host's side of a split.
struct zem_peer {
  std::array<zem_sdb_function, std::tuple_size_v<zem_sdb_slots>> slots{};  // as the split began
  std::uint64_t peer = 0;                                                  // 0: the split is local
  std::uint64_t target = 0;
  std::uint64_t sink = 0;
  std::uint32_t id = 0;  // of the upper half, there
  zem_mkey key;          // its greatest
};

struct zem_split {
  zem_table &table;
  zem_shard &shard;
  const std::uint32_t id = shard.id;  // before the split
  std::unique_ptr<zem_shard> low{};   // becomes the lower half, and in the end what was split
  zem_pipe pipe{};
  zem_peer host{};
  bool durable = false;  // the new list is; the old files may go
};

template <class Function>
Function slot(const zem_split &split, std::uint32_t number) noexcept {
  return reinterpret_cast<Function>(split.host.slots.at(number));
}

const char *name_of(const zem_split &split) noexcept { return split.table.name.c_str(); }

// ---- destinations

bool has_peer_slots(const zem_split &split) noexcept {
  const auto &slots = split.host.slots;
  return std::all_of(slots.begin() + ZEM_SDB_PEER_CANCEL, slots.end(),
                     [](zem_sdb_function function) { return function != nullptr; });
}

void send_to_peer(zem_split &split) {
  split.pipe.commit_num = split.table.cfg.commit_num;
  split.pipe.peer_batch = [&split](zem_doc &batch, zem_pipe_to to) {
    const auto send = slot<zem_sdb_peer_batch>(split, ZEM_SDB_PEER_BATCH);
    return zem_status{send(split.host.peer, split.host.sink, &batch, static_cast<int>(to))};
  };
  split.pipe.peer_commit = [&split](zem_pipe_to to) {
    const auto commit = slot<zem_sdb_peer_commit>(split, ZEM_SDB_PEER_COMMIT);
    return zem_status{commit(split.host.peer, split.host.sink, static_cast<int>(to))};
  };
}

// Chooses where the upper half goes.
zem_status zem_pipe_open(zem_split &split) {
  split.low = zem_table_next_shard(split.table);
  if (split.table.callbacks != nullptr) {
    std::copy(split.table.callbacks->begin(), split.table.callbacks->end(),
              split.host.slots.begin());
  }
  if (const auto open = slot<zem_sdb_split_open>(split, ZEM_SDB_SPLIT_OPEN))
    open(name_of(split), split.id, &split.host.peer, &split.host.target);
  if (split.host.peer == 0) {
    split.pipe.shard = zem_table_next_shard(split.table);
    return zem_ok;
  }
  if (!has_peer_slots(split)) return zem_status{-EINVAL};
  send_to_peer(split);
  return zem_ok;
}

zem_status zem_pipe_load(zem_split &split) {
  if (split.host.peer == 0) return zem_ok;  // the files are created when the split begins
  const auto load = slot<zem_sdb_peer_load>(split, ZEM_SDB_PEER_LOAD);
  return zem_status{load(split.host.peer, split.host.target, &split.host.sink, &split.host.id)};
}

void zem_pipe_cancel(const zem_split &split) {
  if (split.host.peer == 0) return;
  if (const auto cancel = slot<zem_sdb_peer_cancel>(split, ZEM_SDB_PEER_CANCEL)) {
    cancel(name_of(split), split.host.peer, split.host.target, split.host.sink, split.id);
  }
}

// ---- waits

// Closes the gate further and waits for those whom it had let in before.
zem_status zem_task_sleep(zem_split &split, zem_shard_state state) {
  zem_table &table = split.table;
  zem_lock_guard held(table.wait_mutex);
  zem_table_set_state(table, split.shard, state);
  return zem_table_wait_empty(table, state == zem_shard_state::holding_readers
                                         ? zem_table_role::reader
                                         : zem_table_role::writer);
}

// Waits for the host's consent. One that never answers is not waited for beyond 300 polls.
zem_status zem_task_sleep_x(const zem_split &split, std::uint32_t phase) {
  for (int poll = 0; poll < most_polls; ++poll) {
    if (!zem_table_nap(split.table, poll_us)) return zem_status{ZEM_SDB_E_CLOSED};
    std::uint32_t done = 0;
    slot<zem_sdb_split_wait>(split, ZEM_SDB_SPLIT_WAIT)(name_of(split), phase, &done);
    if (done != 0) return zem_ok;
  }
  return zem_ok;
}

zem_status notify(const zem_split &split, std::uint32_t phase) {
  zem_err_info(split.table.err_log, "split notify (%u) [%d]!", phase,
               static_cast<std::int32_t>(split.id));
  if (split.host.peer == 0) return zem_ok;
  slot<zem_sdb_split_notify>(split, ZEM_SDB_SPLIT_NOTIFY)(name_of(split), split.id, phase);
  return zem_task_sleep_x(split, phase);
}

// ---- the close

struct free_var {
  void operator()(zem_var *list) const { zem_var_free(list); }
};

// What the host is told of the three key ranges.
struct key_ranges {
  std::unique_ptr<zem_var, free_var> ids{zem_var_new(4, 1)};
  std::unique_ptr<zem_var, free_var> keys{zem_var_new(4, 1)};

  void add(std::uint32_t shard, const zem_mkey &key) const {
    zem_var_add_long(ids.get(), key.id);
    zem_var_set_buf(ids.get(), -1, shard);
    zem_var_add_long(keys.get(), zem_term_head(key.term));
    zem_var_set_buf(keys.get(), -1, key.term[2]);
  }
};

// The ranges as they will be; nobody changes them any more.
key_ranges ranges_of(const zem_split &split) ZEM_UNCHECKED_LOCKS {
  key_ranges ranges;
  ranges.add(split.id, split.shard.mkey);
  ranges.add(split.low->id, split.low->mkey);
  if (split.pipe.shard != nullptr) {
    ranges.add(split.pipe.shard->id, split.pipe.shard->mkey);
  } else {
    ranges.add(split.host.id, split.host.key);
  }
  return ranges;
}

// The numbers of the new list. Makes room for the exchange, which must not fail.
std::vector<std::uint32_t> new_numbers(const zem_split &split)
    ZEM_REQUIRES(split.table.list_mutex) {
  zem_table &table = split.table;
  zem_write_guard held(table.lock);
  zem_table_make_room(table);
  std::vector<std::uint32_t> numbers = zem_table_numbers(table);
  std::replace(numbers.begin(), numbers.end(), split.shard.id, split.low->id);
  if (split.pipe.shard != nullptr) numbers.push_back(split.pipe.shard->id);
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

// The step in which the table turns from the old shard to the new ones.
void exchange(zem_split &split) {
  zem_table &table = split.table;
  zem_write_guard table_held(table.lock);
  zem_write_guard held(split.shard.lock);
  zem_shard_split_end(split.shard, *split.low);
  std::sort(table.shard_ids.begin(), table.shard_ids.end(),
            [](const zem_shard *a, const zem_shard *b) { return a->id < b->id; });
  if (split.pipe.shard != nullptr) zem_table_append(table, std::move(split.pipe.shard));
}

zem_status zem_pipe_close(zem_split &split) {
  if (split.host.peer != 0) {
    const auto close = slot<zem_sdb_peer_close>(split, ZEM_SDB_PEER_CLOSE);
    const zem_status st{
        close(split.host.peer, split.host.sink, &split.host.key.id, split.host.key.term.data())};
    if (st < 0) return st;
  }
  const key_ranges ranges = ranges_of(split);
  {
    zem_lock_guard listed(split.table.list_mutex);
    const zem_status st = zem_table_write(split.table, new_numbers(split));
    if (st < 0) return st;
    split.durable = !split.table.list_owed.has_value();
    exchange(split);
  }
  if (const auto done = slot<zem_sdb_split_done>(split, ZEM_SDB_SPLIT_DONE)) {
    done(name_of(split), split.host.peer, split.host.target, ranges.ids.get(), ranges.keys.get());
  }
  return zem_ok;
}

// ---- the task

// zem_yes: the shard is split; zem_ok: its halves cannot be filled.
zem_status divide(zem_split &split) {
  zem_shard &shard = split.shard;
  if (zem_status st = zem_pipe_load(split); st < 0) return st;
  {
    zem_write_guard held(shard.lock);
    if (zem_status st = zem_shard_split_begin(shard, split.pipe, *split.low); st < 0) return st;
  }
  if (zem_status st = zem_shard_split(shard, split.pipe, *split.low); st <= 0) return st;

  zem_err_info(split.table.err_log, "split rest [%d]!", static_cast<std::int32_t>(split.id));
  {
    zem_write_guard held(shard.lock);
    shard.parked = true;
    shard.full_since_us = 0;
  }
  if (zem_status st = zem_shard_split_x(shard, split.pipe, *split.low); st < 0) return st;
  if (zem_status st = notify(split, phase_writers); st < 0) return st;
  zem_status st = zem_task_sleep(split, zem_shard_state::holding_writers);
  if (st >= 0) st = zem_shard_split_m(shard, split.pipe, *split.low);
  if (st >= 0) st = notify(split, phase_all);
  if (st >= 0) st = zem_task_sleep(split, zem_shard_state::holding_readers);
  if (st >= 0) st = zem_pipe_close(split);
  return st < 0 ? st : zem_yes;
}

void cancel(zem_split &split) {
  if (split.low == nullptr) return;  // nothing has begun
  zem_shard_split_cancel(split.shard, split.pipe, *split.low);
  zem_pipe_cancel(split);
  split.shard.stamp = 0;
  zem_task_add(split.table.task, split.shard, zem_task_kind::commit);
}

// Lets everybody in again.
void let_go(zem_table &table, zem_shard &shard) {
  zem_lock_guard held(table.wait_mutex);
  zem_table_set_state(table, shard, zem_shard_state::idle);
}

}  // namespace

zem_status zem_task_split(zem_table &table, zem_shard &shard) {
  zem_split split{.table = table, .shard = shard};
  zem_status st = zem_boundary([&] {
    const zem_status opened = zem_pipe_open(split);
    return opened < 0 ? opened : divide(split);
  });
  if (st <= 0) {
    std::ignore = zem_boundary([&] {
      cancel(split);
      return zem_ok;
    });
  }
  {
    zem_write_guard held(shard.lock);
    zem_shard_merge_settle(shard, st);
  }
  let_go(table, shard);
  if (st > 0) return zem_shard_split_release(*split.low, split.durable);
  if (st == 0) {
    zem_read_guard held(shard.lock);
    zem_shard_request_merge(shard);
  }
  return st;
}
