// How a merge and a split begin: leftovers go, and the live log is set aside as the frozen one.
#include "src/shard.h"

#include "base/err.h"
#include "base/file.h"
#include "base/scope.h"

#include "src/shard_files.h"
#include "src/shard_impl.h"

zem_status zem_shard_tidy(const zem_shard &shard) {
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

namespace {

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

}  // namespace

zem_status zem_shard_freeze(zem_shard &shard, const std::function<zem_status()> &create_rest) {
  if (zem_shard_frozen(shard)) {
    const zem_status created = create_rest();
    return created < 0 ? created : zem_dir_sync(shard.directory);
  }
  if (zem_status st = zem_shard_unpark(shard); st < 0) return st;
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
