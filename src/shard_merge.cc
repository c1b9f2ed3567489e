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
#include "src/shard_walk.h"

zem_status zem_shard_create_dat(zem_shard &shard) {
  zem_spx_shrink(shard.mdat);
  return zem_spx_open(shard.mdat, zem_file_mode::fresh);
}

namespace {

void discard_new_dat(zem_shard &shard) ZEM_REQUIRES(shard.lock) {
  // A file that stays behind is a leftover without meaning: recovery removes or ignores it, and the
  // next merge creates it anew.
  std::ignore = zem_spx_close(shard.mdat);
  std::ignore = zem_file_remove_if_exists(shard.mdat.file.name);
  zem_spx_shrink(shard.mdat);
}

}  // namespace

zem_status zem_shard_merge_begin(zem_shard &shard) {
  if (shard.refused < 0) return shard.refused;
  if (zem_status st = zem_shard_tidy(shard); st < 0) return st;
  zem_on_exit discard([&]() ZEM_UNCHECKED_LOCKS { discard_new_dat(shard); });
  const zem_status st =
      zem_shard_freeze(shard, [&]() ZEM_UNCHECKED_LOCKS { return zem_shard_create_dat(shard); });
  if (st >= 0) discard.release();
  return st;
}

namespace {

// Writes what a walk visits to the new data file.
struct merge_sink {
  zem_spx &dat;
  std::uint32_t pause_ms;
  zem_xblk out{};
  zem_mkey key{};  // scratch: the shard's own key is not this pass's to raise

  static std::size_t most() noexcept { return ~std::size_t{0}; }
  static void passed(std::size_t) noexcept {}
  zem_status put(const zem_term &term, std::uint64_t id) {
    return zem_spx_insert(dat, out, id, term, key, pause_ms);
  }
  zem_status put_run(const zem_term &term, std::span<const std::byte> ids) {
    return zem_spx_insert_run(dat, out, term, ids, key, pause_ms);
  }
};

}  // namespace

zem_status zem_shard_merge(zem_shard &shard) {
  merge_sink sink{.dat = shard.mdat, .pause_ms = shard.cfg->merge_time};
  if (zem_status st = zem_shard_walk(shard, sink); st < 0) return st;
  return zem_spx_finish(shard.mdat, sink.out);
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

zem_status zem_shard_merge_release(const zem_shard &shard, const zem_shard_remains &remains) {
  if (remains.renamed < 0) return remains.renamed;
  const std::string frozen = zem_shard_fname(shard.directory, shard.id, zem_suffix::frozen_log);
  const std::string old_dat = zem_shard_fname(shard.directory, shard.id, zem_suffix::old_dat);
  const zem_status removed = zem_file_remove_if_exists(frozen);
  if (removed < 0) return removed;
  return zem_file_remove(old_dat);
}

void zem_shard_merge_cancel(zem_shard &shard) {
  // After an undo that failed, the new data file may be the only complete one under a name.
  if (shard.refused >= 0)
    discard_new_dat(shard);
  else
    std::ignore = zem_spx_close(shard.mdat);
}
