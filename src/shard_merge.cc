// The merge of a shard and the order of its file operations.
//
//   step                              files afterwards                        in memory
//   begin: leftovers removed, sync    .log .dat                               log
//   freeze: log committed
//   freeze: rename, directory sync    _m.log .dat
//   freeze: created, directory sync   .log _m.log .dat _m.dat                 log (new), mlog
//   merge: written and synced         .log _m.log .dat _m.dat (complete)
//   end: first rename                 .log _m.log _t.dat _m.dat
//   end: second rename, sync          .log _m.log _t.dat .dat (new)           dat (new)
//   release: removals                 .log .dat                               log, dat
//
// What a crash leaves of any row, zem_shard_recover completes or takes back. No file is removed
// before what replaces it is durable under its name.

#include "src/shard.h"

#include "base/err.h"
#include "base/file.h"
#include "base/scope.h"

#include "src/shard_files.h"
#include "src/shard_impl.h"
#include "src/spm_iter.h"
#include "src/spx_iter.h"

namespace {

// What the last merge could not remove, or a crash left. A frozen log in use is no leftover, and an
// old data file stays while nothing stands in its place. The renames that made them leftovers are
// durable before they go.
zem_status remove_leftovers(const zem_shard &shard) ZEM_REQUIRES(shard.lock) {
  const std::string old_dat = zem_shard_fname(shard.directory, shard.id, zem_suffix::old_dat);
  const zem_status has_log = zem_file_exist(shard.mlog.file.name);
  if (has_log < 0) return has_log;
  const zem_status has_dat = zem_file_exist(shard.dat.file.name);
  if (has_dat < 0) return has_dat;
  const zem_status has_old_dat = zem_file_exist(old_dat);
  if (has_old_dat < 0) return has_old_dat;

  const bool drop_log = has_log > 0 && !zem_shard_frozen(shard);
  const bool drop_old_dat = has_old_dat > 0 && has_dat > 0;
  if (drop_log || drop_old_dat) {
    if (zem_status st = zem_dir_sync(shard.directory); st < 0) return st;
  }
  if (drop_log) {
    if (zem_status st = zem_file_remove(shard.mlog.file.name); st < 0) return st;
  }
  if (drop_old_dat) {
    if (zem_status st = zem_file_remove(old_dat); st < 0) return st;
  }
  return zem_dir_sync(shard.directory);
}

zem_status create_new_dat(zem_shard &shard) ZEM_REQUIRES(shard.lock) {
  zem_spx_shrink(shard.mdat);
  return zem_spx_open(shard.mdat, zem_file_mode::fresh);
}

void discard_new_dat(zem_shard &shard) ZEM_REQUIRES(shard.lock) {
  // A file that stays behind is a leftover without meaning: recovery removes or ignores it, and the
  // next merge creates it anew.
  std::ignore = zem_spx_close(shard.mdat);
  std::ignore = zem_file_remove_if_exists(shard.mdat.file.name);
  zem_spx_shrink(shard.mdat);
}

// Takes the rename of the live log back. When even that fails, the log lives on in the file that now
// bears the frozen log's name, and no merge may touch the names until the shard is opened again.
void unfreeze(zem_shard &shard) ZEM_REQUIRES(shard.lock) {
  zem_status st = zem_file_rename(shard.mlog.file.name, shard.log.file.name);
  if (st >= 0) st = zem_dir_sync(shard.directory);
  if (st >= 0) return;
  shard.refused = st;
  zem_err_log(shard.err_log, 0, "shard %d: %s could not be renamed back to %s: %d",
              static_cast<std::int32_t>(shard.id), shard.mlog.file.name.c_str(),
              shard.log.file.name.c_str(), st);
}

// Sets the live log aside as the frozen one and starts a new live log. `create_rest` creates the
// other files that the work needs, so that one sync makes them durable. The maps change hands last.
template <class CreateRest>
zem_status freeze(zem_shard &shard, CreateRest create_rest) ZEM_REQUIRES(shard.lock) {
  const zem_status committed = zem_spm_commit(shard.log);
  // A log that lost its disk is merged from memory: that is how it gets a disk again.
  if (committed < 0 && zem_spm_failure(shard.log) >= 0) return committed;

  zem_status st = zem_file_rename(shard.log.file.name, shard.mlog.file.name);
  if (st < 0) return st;
  zem_on_exit undo([&]() ZEM_UNCHECKED_LOCKS { unfreeze(shard); });
  if (st = zem_dir_sync(shard.directory); st < 0) return st;

  zem_spm fresh;
  fresh.file.name = shard.log.file.name;
  if (st = zem_spm_open(fresh, zem_file_mode::fresh); st < 0) return st;
  if (st = create_rest(); st < 0) return st;
  if (st = zem_dir_sync(shard.directory); st < 0) return st;
  undo.release();

  zem_spm_swap(shard.mlog, shard.log);
  zem_spm_swap(shard.log, fresh);
  return zem_ok;
}

}  // namespace

zem_status zem_shard_merge_begin(zem_shard &shard) {
  if (shard.refused < 0) return shard.refused;
  if (zem_status st = remove_leftovers(shard); st < 0) return st;
  zem_on_exit discard([&]() ZEM_UNCHECKED_LOCKS { discard_new_dat(shard); });
  zem_status st = zem_ok;
  if (zem_shard_frozen(shard)) {
    st = create_new_dat(shard);
    if (st >= 0) st = zem_dir_sync(shard.directory);
  } else {
    st = freeze(shard, [&]() ZEM_UNCHECKED_LOCKS { return create_new_dat(shard); });
  }
  if (st >= 0) discard.release();
  return st;
}

namespace {

// The two sources of a merge and its destination.
struct merge_pass {
  zem_iter log;
  zem_xiter dat;
  zem_xblk out;
  zem_mkey key;  // scratch: the shard's own key is not this pass's to raise
  std::uint32_t pause_ms = 0;
};

// Copies what the data file has before the log's posting: the rest of the current run when that is
// of an earlier term, else the part of it above the log's id. False when it has nothing there.
zem_status copy_before(zem_shard &shard, merge_pass &pass, bool &copied) ZEM_UNCHECKED_LOCKS {
  const std::span<const std::byte> run = zem_xiter_run(pass.dat);
  std::size_t count = run.size() / zem_spx_format::id_size;
  if (zem_iter_stands(pass.log)) {
    const int order = zem_xtree_compare(pass.dat.term, pass.log.term);
    if (order > 0) count = 0;
    if (order == 0) count = zem_run_above(run, pass.log.doc);
  }
  copied = count > 0;
  if (!copied) return zem_ok;
  const zem_status st =
      zem_spx_insert_run(shard.mdat, pass.out, pass.dat.term,
                         run.first(count * zem_spx_format::id_size), pass.key, pass.pause_ms);
  return st < 0 ? st : zem_spx_iterd_skip(shard.dat, pass.dat, count);
}

// Takes the log's posting: a live one is written, a deleted one is not, and the data file's copy of
// either is passed over.
zem_status take_log(zem_shard &shard, merge_pass &pass) ZEM_UNCHECKED_LOCKS {
  if (pass.log.val->flag >= 0) {
    const zem_status st =
        zem_spx_insert(shard.mdat, pass.out, pass.log.doc, pass.log.term, pass.key, pass.pause_ms);
    if (st < 0) return st;
  }
  const bool both = zem_xiter_stands(pass.dat) && pass.dat.doc == pass.log.doc &&
                    zem_xtree_same(pass.dat.term, pass.log.term);
  if (both) {
    if (zem_status st = zem_spx_iterd_next(shard.dat, pass.dat); st < 0) return st;
  }
  zem_spm_iterd_next(pass.log);
  return zem_ok;
}

zem_status merge_all(zem_shard &shard, merge_pass &pass) ZEM_UNCHECKED_LOCKS {
  zem_spm_iterd_first(shard.mlog, pass.log);
  if (zem_status st = zem_spx_iterd_first(shard.dat, pass.dat); st < 0) return st;
  while (zem_iter_stands(pass.log) || zem_xiter_stands(pass.dat)) {
    bool copied = false;
    if (zem_xiter_stands(pass.dat)) {
      if (zem_status st = copy_before(shard, pass, copied); st < 0) return st;
    }
    if (copied) continue;
    if (zem_status st = take_log(shard, pass); st < 0) return st;
  }
  return zem_spx_finish(shard.mdat, pass.out);
}

}  // namespace

zem_status zem_shard_merge(zem_shard &shard) {
  merge_pass pass;
  pass.pause_ms = shard.cfg->merge_time;
  const zem_status st = merge_all(shard, pass);
  if (zem_status_damage(st))
    zem_err_log(shard.err_log, 0, "%s, block %u: damaged, so nothing is merged: %d",
                shard.dat.file.name.c_str(), pass.dat.node->value->blk_no, st);
  return st;
}

zem_status zem_shard_merge_end(zem_shard &shard, zem_shard_remains &remains) {
  const std::string old_dat = zem_shard_fname(shard.directory, shard.id, zem_suffix::old_dat);
  zem_status st = zem_file_rename(shard.dat.file.name, old_dat);
  if (st < 0) return st;
  st = zem_file_rename(shard.mdat.file.name, shard.dat.file.name);
  if (st < 0) {
    if (zem_file_rename(old_dat, shard.dat.file.name) < 0) shard.refused = st;
    return st;
  }
  remains.renamed = zem_dir_sync(shard.directory);
  remains.dat.cache.limit =
      shard.cfg->cache_key;  // goes to `mdat`, and with the next merge to `dat`
  zem_spx_swap(shard.dat, shard.mdat);
  zem_spx_swap(shard.mdat, remains.dat);
  zem_spm_swap(shard.mlog, remains.log);
  return zem_ok;
}

zem_status zem_shard_merge_release(const zem_shard &shard, zem_shard_remains &remains) {
  zem_status st = zem_spm_close(remains.log);
  st = zem_status_first(st, zem_spx_close(remains.dat));
  zem_spm_shrink(remains.log);
  zem_spx_shrink(remains.dat);
  if (remains.renamed < 0) return remains.renamed;
  const std::string frozen = zem_shard_fname(shard.directory, shard.id, zem_suffix::frozen_log);
  const std::string old_dat = zem_shard_fname(shard.directory, shard.id, zem_suffix::old_dat);
  const zem_status removed = zem_file_remove_if_exists(frozen);
  if (removed < 0) return removed;
  return zem_status_first(zem_file_remove(old_dat), st);
}

void zem_shard_merge_cancel(zem_shard &shard) {
  // After an undo that failed, the new data file may be the only complete one under a name.
  if (shard.refused >= 0)
    discard_new_dat(shard);
  else
    std::ignore = zem_spx_close(shard.mdat);
}
