#include "src/exec_load.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "base/clock.h"
#include "base/err.h"
#include "base/file.h"
#include "base/scope.h"

#include "src/shard_files.h"
#include "src/spx_iter.h"
#include "src/table_impl.h"

namespace {

constexpr std::size_t slice_postings = 512;  // logged under one hold of the shard's lock

using doc_node = zem_xnode<zem_doc_val>;

zem_mkey key_of(const doc_node &node) noexcept { return {node.term, node.id}; }

bool is_new(const zem_exec &exec) noexcept ZEM_REQUIRES(exec.mutex) { return exec.own != nullptr; }

// The data file being filled. Nobody else touches it: a new shard is not seen, and a lent one is not
// merged.
zem_spx &dat_of(zem_exec &exec) noexcept ZEM_REQUIRES(exec.mutex) ZEM_UNCHECKED_LOCKS {
  return is_new(exec) ? exec.shard->dat : exec.shard->mdat;
}

// Keeps writers out of a table for the length of a scope.
class [[nodiscard]] writer_bar {
 public:
  explicit writer_bar(zem_table &table) : table_(table) {
    zem_lock_guard held(table_.wait_mutex);
    ++table_.writer_bars;
  }
  ~writer_bar() {
    zem_lock_guard held(table_.wait_mutex);
    --table_.writer_bars;
    table_.gate.wake_all();
  }
  writer_bar(const writer_bar &) = delete;
  writer_bar &operator=(const writer_bar &) = delete;

  // Until those who were let in before have left.
  zem_status wait(zem_table_when when = zem_table_when::open) const {
    zem_lock_guard held(table_.wait_mutex);
    return zem_table_wait_empty(table_, zem_table_role::writer, when);
  }

 private:
  zem_table &table_;
};

}  // namespace

zem_exec::~zem_exec() {
  if (table != nullptr) zem_exec_close(*this);
}

namespace {

// What an earlier life of a lent shard left goes.
zem_status tidy_lent(zem_shard &shard) {
  const zem_status st = zem_boundary([&] {
    const zem_write_guard held(shard.lock);
    return zem_shard_tidy(shard);
  });
  if (st < 0) {
    zem_write_guard held(shard.lock);
    shard.loan = zem_shard_loan::none;
  }
  return st;
}

zem_status open_new_shard(zem_exec &exec, zem_table &table) ZEM_REQUIRES(exec.mutex) {
  exec.own = zem_table_next_shard(table);
  zem_write_guard held(exec.own->lock);
  // A failed sync must not ask the table's workers for a merge.
  exec.own->loan = zem_shard_loan::lent;
  const zem_status st = zem_shard_open_new(*exec.own);
  if (st < 0) std::ignore = zem_shard_clear(*exec.own);
  return st;
}

zem_status can_grow(zem_table &table) {
  zem_lock_guard listed(table.list_mutex);
  zem_read_guard held(table.lock);
  const bool whole = !table.incomplete && zem_arrx_count(table.shards) > 0;
  return whole ? zem_ok : zem_status{ZEM_SDB_E_SHARD};
}

}  // namespace

zem_status zem_exec_open(zem_exec &exec, zem_table &table) {
  if (zem_status st = can_grow(table); st < 0) return st;
  zem_lock_guard held(exec.mutex);
  exec.shard = zem_table_lend(table);
  if (exec.shard != nullptr) {
    if (zem_status st = tidy_lent(*exec.shard); st < 0) return st;
  } else {
    if (zem_status st = open_new_shard(exec, table); st < 0) return st;
    exec.shard = exec.own.get();
  }
  exec.table = &table;
  return zem_ok;
}

namespace {

// A lent shard's new data file is created when the first thing goes there.
zem_status begin_dat(zem_exec &exec) ZEM_REQUIRES(exec.mutex) {
  if (exec.dat == zem_exec_dat::untouched && !is_new(exec)) {
    zem_write_guard held(exec.shard->lock);
    if (zem_status st = zem_shard_create_dat(*exec.shard); st < 0) return st;
  }
  exec.dat = zem_exec_dat::loading;
  return zem_ok;
}

bool comes_before(const zem_mkey &a, const zem_mkey &b) noexcept {
  return zem_mkey_compare(a, b.term, b.id) < 0;
}

void lower(zem_exec &exec, const zem_mkey &first) ZEM_REQUIRES(exec.mutex) {
  if (!exec.lowest || comes_before(first, *exec.lowest)) exec.lowest = first;
}

// Whether a batch begins before the end of what was written, and is not the one that failed there.
bool comes_too_early(const zem_exec &exec, const zem_mkey &first) ZEM_REQUIRES(exec.mutex) {
  if (!exec.written || !comes_before(first, *exec.written)) return false;
  return !exec.unfinished || zem_mkey_compare(*exec.unfinished, first.term, first.id) != 0;
}

}  // namespace

zem_status zem_exec_load(zem_exec &exec, const zem_doc &batch) {
  zem_lock_guard held(exec.mutex);
  if (exec.ended) return zem_status{ZEM_SDB_E_HANDLE};
  const doc_node *node = zem_xtree_node_first(batch.tree);
  if (node != nullptr && comes_too_early(exec, key_of(*node))) return zem_status{-EINVAL};
  if (zem_status st = begin_dat(exec); st < 0) return st;
  if (node == nullptr) return zem_ok;
  lower(exec, key_of(*node));
  exec.unfinished = key_of(*node);
  const std::uint32_t pause_ms = exec.table->cfg.merge_time;
  for (; node != nullptr; node = node->next) {
    const zem_mkey key = key_of(*node);
    if (exec.written && !comes_before(*exec.written, key)) continue;
    const zem_status st =
        zem_spx_insert(dat_of(exec), exec.xblk, key.id, key.term, exec.key, pause_ms);
    if (st < 0) return st;
    exec.written = key;
  }
  exec.unfinished.reset();
  return zem_ok;
}

namespace {

// Logs some of a batch's changes; `node` moves behind them.
zem_status log_slice(zem_exec &exec, const doc_node *&node) ZEM_REQUIRES(exec.mutex) {
  zem_shard &shard = *exec.shard;
  zem_write_guard held(shard.lock);
  if (zem_status st = zem_spm_writable(shard.log); st < 0) return st;
  zem_proc proc;
  zem_status st = zem_ok;
  for (std::size_t i = 0; i < slice_postings && node != nullptr && st >= 0; ++i) {
    const zem_doc_val &change = *node->value;
    const auto log = change.flag != 0 ? zem_spm_insert : zem_spm_delete;
    st = log(shard.log, proc, change.id, change.term, exec.key);
    if (st >= 0) node = node->next;
  }
  shard.stamp = zem_time();
  return st;
}

}  // namespace

zem_status zem_exec_load_x(zem_exec &exec, const zem_doc &batch) {
  zem_lock_guard held(exec.mutex);
  if (exec.ended) return zem_status{ZEM_SDB_E_HANDLE};
  const doc_node *node = zem_xtree_node_first(batch.tree);
  if (node == nullptr) return zem_ok;
  lower(exec, key_of(*node));
  exec.logged = true;
  zem_status st = zem_ok;
  while (st >= 0 && node != nullptr)
    st = log_slice(exec, node);
  return st;
}

namespace {

zem_status commit_dat(zem_exec &exec) ZEM_REQUIRES(exec.mutex) {
  if (exec.dat == zem_exec_dat::complete) return zem_ok;
  if (zem_status st = begin_dat(exec); st < 0) return st;
  if (zem_status st = zem_spx_finish(dat_of(exec), exec.xblk); st < 0) return st;
  exec.dat = zem_exec_dat::complete;
  return zem_ok;
}

// The files of a load, and the directory that holds a new shard's.
zem_status commit_all(zem_exec &exec) ZEM_REQUIRES(exec.mutex) {
  if (exec.dat == zem_exec_dat::loading) {
    if (zem_status st = commit_dat(exec); st < 0) return st;
  }
  if (exec.logged) {
    if (zem_status st = zem_shard_commit(*exec.shard); st < 0) return st;
  }
  return zem_dir_sync(exec.table->path);
}

}  // namespace

zem_status zem_exec_commit(zem_exec &exec) {
  zem_lock_guard held(exec.mutex);
  return exec.ended ? zem_status{ZEM_SDB_E_HANDLE} : commit_dat(exec);
}

zem_status zem_exec_commit_x(zem_exec &exec) {
  zem_lock_guard held(exec.mutex);
  if (exec.ended) return zem_status{ZEM_SDB_E_HANDLE};
  return zem_shard_commit(*exec.shard);
}

namespace {

// What lies beside a loaded shard, in the order of keys: the key of the shard before it and the shard
// behind it, where there are such.
struct neighbours {
  std::optional<zem_mkey> before;
  zem_shard *behind = nullptr;
};

neighbours find_neighbours(const zem_exec &exec) ZEM_REQUIRES(exec.mutex) {
  neighbours found;
  zem_read_guard held(exec.table->lock);
  for (std::size_t i = 0; i < zem_arrx_count(exec.table->shards); ++i) {
    zem_shard *shard = zem_arrx_get_at(exec.table->shards, i);
    if (shard == exec.shard) continue;
    if (!comes_before(shard->mkey, exec.key)) {
      found.behind = shard;
      break;
    }
    found.before = shard->mkey;
  }
  return found;
}

// Whether the shard holds a posting that is not behind `key`.
bool holds_up_to(const zem_shard &shard, const zem_mkey &key) {
  zem_read_guard held(shard.lock);
  const auto reaches = [&](const zem_term &term, std::uint64_t id) {
    return zem_mkey_compare(key, term, id) >= 0;
  };
  for (const zem_spm *log : {&shard.log, &shard.mlog}) {
    const auto *first = zem_xtree_node_first(log->tree);
    if (first != nullptr && reaches(first->term, first->id)) return true;
  }
  zem_xiter first;
  return zem_spx_iter_first(shard.dat, first) > 0 && reaches(first.term, first.doc);
}

// Queries look for a posting in the shard whose range it belongs to, so what lies in another's range is
// not found there. The load goes on: it is the host's to say what its postings are.
void tell_of_overlap(const zem_exec &exec) ZEM_REQUIRES(exec.mutex) {
  if (!exec.lowest) return;
  const neighbours beside = find_neighbours(exec);
  // What lies up to the key of the shard before is looked for there, whether it holds anything or not.
  const bool overlaps = (beside.before && !comes_before(*beside.before, *exec.lowest)) ||
                        (beside.behind != nullptr && holds_up_to(*beside.behind, exec.key));
  if (!overlaps) return;
  zem_err_log(
      exec.table->err_log, 0,
      "table %s: the range loaded into shard %d meets other shards: queries will miss postings",
      exec.table->name.c_str(), static_cast<std::int32_t>(exec.shard->id));
}

// The step in which the table takes a new shard in.
zem_status append_new(zem_exec &exec) ZEM_REQUIRES(exec.mutex) {
  zem_table &table = *exec.table;
  zem_lock_guard listed(table.list_mutex);
  std::vector<std::uint32_t> numbers;
  {
    zem_write_guard held(table.lock);
    zem_table_make_room(table);
    numbers = zem_table_numbers(table);
    numbers.insert(std::upper_bound(numbers.begin(), numbers.end(), exec.shard->id),
                   exec.shard->id);
  }
  if (zem_status st = zem_table_write(table, numbers); st < 0) return st;
  zem_write_guard table_held(table.lock);
  zem_write_guard held(exec.shard->lock);
  exec.shard->mkey = exec.key;
  exec.shard->loan = zem_shard_loan::none;
  zem_table_append(table, std::move(exec.own));
  return zem_ok;
}

// Puts a lent shard's new data file in the place of the empty one.
zem_status exchange_dat(zem_exec &exec, zem_shard_remains &remains) ZEM_REQUIRES(exec.mutex)
    ZEM_REQUIRES(exec.table->list_mutex) {
  {
    zem_write_guard held(exec.shard->lock);
    if (exec.shard->refused < 0) return exec.shard->refused;
    if (zem_status st = zem_shard_merge_end(*exec.shard, remains); st < 0) return st;
  }
  // No log holds these postings: until the renames are durable nothing is promised.
  if (remains.renamed < 0) zem_table_owe(*exec.table);
  return zem_ok;
}

zem_status append_lent(zem_exec &exec, zem_shard_remains &remains) ZEM_REQUIRES(exec.mutex) {
  zem_lock_guard listed(exec.table->list_mutex);
  if (exec.dat != zem_exec_dat::untouched) {
    if (zem_status st = exchange_dat(exec, remains); st < 0) return st;
  }
  zem_write_guard table_held(exec.table->lock);
  zem_write_guard held(exec.shard->lock);
  zem_table_raise(*exec.table, *exec.shard, exec.key);
  exec.shard->loan = zem_shard_loan::none;
  return zem_ok;
}

// What the exchange of a lent shard's data file has left.
void release(const zem_exec &exec, const zem_shard_remains &remains) ZEM_REQUIRES(exec.mutex) {
  const zem_status st = zem_shard_merge_release(*exec.shard, remains);
  if (st >= 0) return;
  zem_err_log(exec.table->err_log, 0, "shard %d: files replaced by a load stay behind: %d",
              static_cast<std::int32_t>(exec.shard->id), st);
}

}  // namespace

zem_status zem_exec_append(zem_exec &exec, zem_mkey &key) {
  zem_lock_guard held(exec.mutex);
  if (exec.ended) return zem_status{ZEM_SDB_E_HANDLE};
  if (zem_status st = commit_all(exec); st < 0) return st;
  const bool exchanges = !is_new(exec) && exec.dat != zem_exec_dat::untouched;
  zem_shard_remains remains;
  {
    const writer_bar bar(*exec.table);
    if (zem_status st = bar.wait(); st < 0) return st;
    tell_of_overlap(exec);
    const zem_status st = is_new(exec) ? append_new(exec) : append_lent(exec, remains);
    if (st < 0) return st;
  }
  exec.ended = true;
  if (exchanges) release(exec, remains);
  zem_read_guard shard_held(exec.shard->lock);
  key = exec.shard->mkey;
  zem_shard_request_due(*exec.shard);
  return zem_ok;
}

namespace {

// Takes back what was loaded into the lent shard. zem_yes: its log stays, for it holds what others wrote.
zem_status undo_lent(zem_exec &exec) ZEM_REQUIRES(exec.mutex) {
  zem_shard &shard = *exec.shard;
  zem_write_guard held(shard.lock);
  if (exec.dat != zem_exec_dat::untouched) {
    zem_shard_merge_cancel(shard);
    // Also after an exchange that could not be undone: the next open then takes the old file back.
    std::ignore = zem_file_remove_if_exists(shard.mdat.file.name);
  }
  if (!exec.logged) return zem_ok;
  if (shard.loan != zem_shard_loan::lent) return zem_yes;
  const zem_status st = zem_shard_drop_log(shard);
  return st < 0 ? st : zem_ok;
}

// Writers stay out meanwhile, for they read the keys: those let in before are waited for, but not for ever.
void return_lent(zem_exec &exec) ZEM_REQUIRES(exec.mutex) {
  const writer_bar bar(*exec.table);
  std::ignore = bar.wait(zem_table_when::any);
  const zem_status undone = zem_boundary([&]() ZEM_UNCHECKED_LOCKS { return undo_lent(exec); });
  if (undone < 0) {
    zem_err_log(exec.table->err_log, 0, "shard %d: what a cancelled load logged stays: %d",
                static_cast<std::int32_t>(exec.shard->id), undone);
  }
  zem_write_guard table_held(exec.table->lock);
  zem_write_guard held(exec.shard->lock);
  if (undone != zem_ok) zem_table_raise(*exec.table, *exec.shard, exec.key);
  exec.shard->loan = zem_shard_loan::none;
}

zem_status clear_new(zem_exec &exec) ZEM_REQUIRES(exec.mutex) {
  zem_write_guard held(exec.own->lock);
  return zem_shard_clear(*exec.own);
}

void remove_new(zem_exec &exec) ZEM_REQUIRES(exec.mutex) {
  const zem_status st = zem_boundary([&]() ZEM_UNCHECKED_LOCKS { return clear_new(exec); });
  if (st >= 0) return;
  zem_err_log(exec.table->err_log, 0, "shard %d: files of a cancelled load stay behind: %d",
              static_cast<std::int32_t>(exec.shard->id), st);
}

}  // namespace

void zem_exec_close(zem_exec &exec) noexcept {
  zem_lock_guard held(exec.mutex);
  if (exec.ended) return;
  exec.ended = true;
  if (is_new(exec)) {
    remove_new(exec);
  } else {
    return_lent(exec);
  }
}
