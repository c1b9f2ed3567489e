#include "src/shard.h"

#include <algorithm>

#include "base/clock.h"
#include "base/err.h"
#include "base/file.h"
#include "base/scope.h"

#include "src/shard_files.h"
#include "src/shard_impl.h"

namespace {

constexpr std::uint32_t first_pause_ms = 1000;
constexpr std::uint32_t last_pause_ms = 600 * 1000;
constexpr std::uint64_t refuse_factor = 16;  // times merge_num: where updates of a stuck shard end

std::uint64_t log_bytes(const zem_shard &shard) noexcept ZEM_REQUIRES_SHARED(shard.lock) {
  return std::uint64_t{shard.log.blk_no} * zem_block_size;  // full blocks only
}

std::uint64_t dat_bytes(const zem_shard &shard) noexcept ZEM_REQUIRES_SHARED(shard.lock) {
  return std::uint64_t{shard.dat.blk_num} * zem_block_size;
}

// What `doc` will take in the log, less the heads of its groups.
std::uint64_t doc_bytes(const zem_shard &shard) noexcept ZEM_REQUIRES_SHARED(shard.lock) {
  return static_cast<std::uint64_t>(shard.doc.tree.count) * zem_spm_format::posting_size;
}

void name_files(zem_shard &shard) ZEM_REQUIRES(shard.lock) {
  shard.log.file.name = zem_shard_fname(shard.directory, shard.id, zem_suffix::log);
  shard.mlog.file.name = zem_shard_fname(shard.directory, shard.id, zem_suffix::frozen_log);
  shard.dat.file.name = zem_shard_fname(shard.directory, shard.id, zem_suffix::dat);
  shard.mdat.file.name = zem_shard_fname(shard.directory, shard.id, zem_suffix::new_dat);
}

// Keeps the first failure in `first`; true when the load cannot go on.
bool load_failed(zem_status st, zem_status &first) noexcept {
  if (st >= 0) return false;
  if (first >= 0 || !zem_status_damage(st)) first = st;
  return !zem_status_damage(st);
}

}  // namespace

zem_status zem_shard_open(zem_shard &shard) {
  name_files(shard);
  if (zem_status st = zem_spm_open(shard.log, zem_file_mode::existing); st < 0) return st;
  if (zem_status st = zem_spx_open(shard.dat, zem_file_mode::existing); st < 0) return st;
  const zem_status frozen = zem_file_exist(shard.mlog.file.name);
  if (frozen <= 0) return frozen;
  return zem_spm_open(shard.mlog, zem_file_mode::existing);
}

zem_status zem_shard_open_new(zem_shard &shard) {
  name_files(shard);
  if (zem_status st = zem_shard_purge(shard.directory, shard.id); st < 0) return st;
  if (zem_status st = zem_spx_open(shard.dat, zem_file_mode::fresh); st < 0) return st;
  return zem_spm_open(shard.log, zem_file_mode::fresh);
}

zem_status zem_shard_load(zem_shard &shard) {
  zem_status first = zem_ok;
  const std::string bad = shard.log.file.name + zem_shard_bad;
  if (load_failed(zem_spm_load(shard.log, shard.mkey, bad, shard.err_log), first)) return first;
  if (load_failed(zem_spx_load(shard.dat, shard.mkey, shard.err_log), first)) return first;
  if (shard.dat.damaged) shard.refused = zem_status{ZEM_SDB_E_CHECKSUM};
  if (zem_file_is_open(shard.mlog.file)) {
    const std::string frozen_bad = shard.mlog.file.name + zem_shard_bad;
    const zem_status st = zem_spm_load_frozen(shard.mlog, shard.mkey, frozen_bad, shard.err_log);
    if (load_failed(st, first)) return first;
  }
  shard.refused = zem_status_first(shard.refused, zem_spm_writable(shard.log));
  shard.refused = zem_status_first(shard.refused, zem_spm_writable(shard.mlog));
  return first;
}

zem_status zem_shard_close(zem_shard &shard) {
  zem_status first = zem_shard_unpark(shard);
  for (zem_spm *log : {&shard.log, &shard.mlog}) {
    if (zem_file_is_open(log->file)) first = zem_status_first(first, zem_spm_commit(*log));
  }
  if (first >= 0) shard.stamp = 0;
  first = zem_status_first(first, zem_spm_close(shard.log));
  first = zem_status_first(first, zem_spm_close(shard.mlog));
  first = zem_status_first(first, zem_spx_close(shard.dat));
  zem_spm_shrink(shard.log);
  zem_spm_shrink(shard.mlog);
  zem_spx_shrink(shard.dat);
  return first < 0 ? first : zem_ok;
}

zem_status zem_shard_clear(zem_shard &shard) {
  zem_doc_clear(shard.doc);
  zem_status first = zem_spm_close(shard.log);
  first = zem_status_first(first, zem_spm_close(shard.mlog));
  first = zem_status_first(first, zem_spx_close(shard.dat));
  return zem_status_first(first, zem_shard_purge(shard.directory, shard.id));
}

namespace {

// Why the shard takes no updates; zem_ok: it does.
zem_status update_refused(const zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock) {
  if (zem_status st = zem_spm_writable(shard.log); st < 0) return st;
  const zem_status stuck = zem_status_first(shard.pause.failure, shard.refused);
  const std::uint64_t limit = refuse_factor * zem_cfg_bytes(shard.cfg->merge_num);
  return stuck < 0 && log_bytes(shard) >= limit ? stuck : zem_ok;
}

// A log that lost its disk is merged from memory: that is how its postings get one again.
void save_from_memory(zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock) {
  const bool lost = zem_spm_failure(shard.log) < 0 || zem_spm_failure(shard.mlog) < 0;
  if (lost && shard.pause.failure >= 0 && shard.refused >= 0) zem_shard_request(shard);
}

zem_status apply(zem_shard &shard, zem_proc &proc, const zem_doc_val &change)
    ZEM_REQUIRES(shard.lock) {
  return zem_shard_log(shard, proc, change.term, change.id, change.flag != 0);
}

zem_xtree_places<zem_spm_val> fetch_ahead(const zem_spm &log,
                                          std::span<const zem_doc_val *const> changes) {
  std::array<zem_xkey, zem_xtree_flight> keys{};
  const std::size_t count = std::min(changes.size(), keys.size());
  for (std::size_t i = 0; i < count; ++i)
    keys[i] = zem_xtree_key(changes[i]->term, changes[i]->id);
  return zem_xtree_prefetch(log.tree, std::span(keys).first(count));
}

// The first change that stays is `from`.
void drop_before(zem_doc &doc, const zem_xnode<zem_doc_val> *from) {
  zem_doc rest;
  for (const auto *node = from; node != nullptr; node = node->next)
    zem_doc_load_term(rest, node->id, node->term, node->value->flag);
  zem_doc_swap(doc, rest);
}

}  // namespace

zem_status zem_shard_unpark(zem_shard &shard) {
  if (shard.doc.tree.count == 0) return zem_ok;
  zem_proc proc;
  for (const auto *node = zem_xtree_node_first(shard.doc.tree); node != nullptr;
       node = node->next) {
    if (zem_status st = apply(shard, proc, *node->value); st < 0) {
      drop_before(shard.doc, node);
      return st;
    }
  }
  zem_doc_clear(shard.doc);
  shard.stamp = zem_time();
  return zem_ok;
}

namespace {

void park(zem_shard &shard, std::span<const zem_doc_val *const> changes, std::size_t &applied)
    ZEM_REQUIRES(shard.lock) {
  for (const zem_doc_val *change : changes) {
    zem_doc_load_term(shard.doc, change->id, change->term, change->flag);
    ++applied;
  }
}

}  // namespace

zem_status zem_shard_update(zem_shard &shard, zem_proc &proc,
                            std::span<const zem_doc_val *const> changes, std::size_t &applied) {
  applied = 0;
  if (shard.loan == zem_shard_loan::lent) shard.loan = zem_shard_loan::shared;
  if (shard.parked) {
    park(shard, changes, applied);
    return zem_ok;
  }
  if (zem_status st = update_refused(shard); st < 0) return st;
  if (zem_status st = zem_shard_unpark(shard); st < 0) {
    save_from_memory(shard);
    return st;
  }
  bool grew = false;
  zem_xtree_places<zem_spm_val> places{};
  for (const zem_doc_val *change : changes) {
    const std::size_t turn = applied % zem_xtree_flight;
    if (turn == 0) places = fetch_ahead(shard.log, changes.subspan(applied));
    zem_xtree_turn_to(shard.log.tree, places[turn]);
    const zem_status st = apply(shard, proc, *change);
    if (st < 0) {
      if (applied > 0) shard.stamp = zem_time();  // a commit has that much to see to
      save_from_memory(shard);
      return st;
    }
    grew |= st > 0;
    ++applied;
  }
  shard.stamp = zem_time();
  save_from_memory(shard);  // a sync may have failed in the middle of a block's write
  zem_shard_request_due(shard);
  return grew ? zem_yes : zem_ok;
}

bool zem_shard_full(const zem_shard &shard) {
  return shard.parked && doc_bytes(shard) >= zem_cfg_bytes(shard.cfg->merge_num);
}

zem_status zem_shard_commit(zem_shard &shard) {
  zem_spm_sync live;
  zem_spm_sync frozen;
  zem_status st = zem_ok;
  {
    zem_write_guard held(shard.lock);
    if (shard.parked) return zem_yes;
    st = zem_shard_unpark(shard);
    st = zem_status_first(st, zem_spm_commit_begin(shard.log, live));
    if (zem_shard_frozen(shard))
      st = zem_status_first(st, zem_spm_commit_begin(shard.mlog, frozen));
  }
  st = zem_status_first(st, zem_spm_commit_end(live));
  st = zem_status_first(st, zem_spm_commit_end(frozen));
  if (st >= 0) return zem_ok;

  std::uint32_t none = 0;
  shard.stamp.compare_exchange_strong(none, zem_time());
  zem_read_guard held(shard.lock);
  save_from_memory(shard);
  return st;
}

namespace {

// A shard is lent under its write lock and while it is idle: no task finds it lent.
void queue(zem_shard &shard, zem_task_kind kind) ZEM_REQUIRES_SHARED(shard.lock) {
  if (shard.loan != zem_shard_loan::none) return;
  zem_shard_state idle = zem_shard_state::idle;
  if (!shard.state.compare_exchange_strong(idle, zem_shard_state::queued)) return;
  zem_on_exit unqueue([&] { shard.state = zem_shard_state::idle; });
  zem_task_add(*shard.task, shard, kind);
  unqueue.release();
}

// A split reads the live log's file, so it is not for one whose disk failed.
bool to_be_split(const zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock) {
  return dat_bytes(shard) >= zem_cfg_bytes(shard.cfg->split_num) && shard.pause.failure >= 0 &&
         zem_spm_failure(shard.log) >= 0 && zem_spm_failure(shard.mlog) >= 0;
}

}  // namespace

void zem_shard_request(zem_shard &shard) {
  queue(shard, to_be_split(shard) ? zem_task_kind::split : zem_task_kind::merge);
}

void zem_shard_request_merge(zem_shard &shard) { queue(shard, zem_task_kind::merge); }

void zem_shard_request_due(zem_shard &shard) {
  const bool waits = shard.pause.failure < 0 || shard.refused < 0;
  const zem_shard_due due = zem_shard_due_by(*shard.cfg, log_bytes(shard), dat_bytes(shard));
  if (!waits && due != zem_shard_due::nothing) zem_shard_request(shard);
}

bool zem_shard_retry_due(const zem_shard &shard, std::uint64_t now_us) {
  return shard.pause.failure < 0 && shard.refused >= 0 && now_us >= shard.pause.until_us;
}

bool zem_shard_claim(zem_shard &shard, zem_shard_state running) noexcept {
  zem_shard_state queued = zem_shard_state::queued;
  return shard.state.compare_exchange_strong(queued, running);
}

zem_shard_load_level zem_shard_level(const zem_shard &shard) {
  const zem_shard_state state = shard.state;
  const bool waits = state == zem_shard_state::idle && shard.pause.failure < 0;
  return {waits ? zem_shard_state::merging : state, shard.log.file.size + doc_bytes(shard)};
}

bool zem_shard_frozen(const zem_shard &shard) { return shard.mlog.tree.count > 0; }

std::uint64_t zem_shard_count(const zem_shard &shard) {
  std::uint64_t count = shard.log.sum_terms;
  if (zem_shard_frozen(shard) && shard.mlog.sum_terms > count) count += shard.mlog.sum_terms;
  if (shard.dat.key_num > count) count += shard.dat.key_num;
  return count;
}

std::uint64_t zem_shard_xcount(const zem_shard &shard) {
  const std::uint64_t frozen = zem_shard_frozen(shard) ? shard.mlog.sum_recs : 0;
  return shard.log.sum_recs + frozen + shard.dat.doc_num;
}

std::uint64_t zem_shard_fsize(const zem_shard &shard) {
  const std::uint64_t frozen = zem_shard_frozen(shard) ? shard.mlog.file.size : 0;
  return shard.log.file.size + frozen + shard.dat.file.size;
}

std::uint64_t zem_shard_msize(const zem_shard &shard) {
  const std::uint64_t frozen = zem_shard_frozen(shard) ? zem_xtree_msize(shard.mlog.tree) : 0;
  return zem_xtree_msize(shard.log.tree) + frozen + zem_xtree_msize(shard.dat.tree);
}

zem_shard_due zem_shard_due_by(const zem_cfg &cfg, std::uint64_t log_bytes,
                               std::uint64_t dat_bytes) noexcept {
  if (log_bytes < zem_cfg_bytes(cfg.merge_num)) return zem_shard_due::nothing;
  return dat_bytes < zem_cfg_bytes(cfg.split_num) ? zem_shard_due::merge : zem_shard_due::split;
}

void zem_shard_merge_settle(zem_shard &shard, zem_status result) {
  if (result >= 0) {
    shard.pause = zem_shard_pause{};
    return;
  }
  const std::uint32_t doubled = std::min(2 * shard.pause.length_ms, last_pause_ms);
  shard.pause.failure = result;
  shard.pause.length_ms = std::max(doubled, first_pause_ms);
  shard.pause.until_us = zem_timer_stamp() + std::uint64_t{shard.pause.length_ms} * 1000;
}

bool zem_shard_lend(zem_shard &shard) {
  const bool sound = shard.refused >= 0 && shard.pause.failure >= 0;
  const bool idle = shard.state == zem_shard_state::idle && shard.loan == zem_shard_loan::none;
  const bool empty = shard.log.tree.count == 0 && !zem_shard_frozen(shard) &&
                     shard.doc.tree.count == 0 && shard.dat.doc_num == 0;
  if (!sound || !idle || !empty) return false;
  shard.loan = zem_shard_loan::lent;
  return true;
}

zem_status zem_shard_drop_log(zem_shard &shard) {
  zem_spm fresh;
  // Made under a name that every open and merge takes for a leftover, and moved by one rename, so that
  // the shard has a log at any time.
  fresh.file.name = shard.mdat.file.name;
  zem_on_exit remove([&] { std::ignore = zem_file_remove_if_exists(fresh.file.name); });
  if (zem_status st = zem_spm_open(fresh, zem_file_mode::fresh); st < 0) return st;
  if (zem_status st = zem_file_rename(fresh.file.name, shard.log.file.name); st < 0) return st;
  remove.release();
  zem_spm_swap(shard.log, fresh);
  shard.stamp = 0;
  if (zem_status st = zem_dir_sync(shard.directory); st < 0) {
    zem_err_log(shard.err_log, 0, "%s: what was dropped may come back after a power cut: %d",
                shard.log.file.name.c_str(), st);
  }
  return zem_ok;
}
