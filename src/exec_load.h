// Bulk loads: a shard of a table that a host fills directly, past the pending batch.
//
//   the shard is     while it is filled                    the end
//   a new one        nobody sees it; no list names it      its number enters the list, and it is filed
//   the lent first   stays in the table; its log load is   the data file is exchanged as a merge's is,
//                    seen at once, its data load goes to   and the shard filed under its new key
//                    "_m.dat"
//
// A load given up leaves nothing behind but a number that is not used again; what others have put into a
// lent shard meanwhile stays, and the loaded part of its log with it.
//
// Everything that loads raise the key of the load, not the shard's, which routing reads.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "base/mutex.h"
#include "base/status.h"

#include "src/data_handles.h"
#include "src/doc.h"
#include "src/shard.h"
#include "src/spx.h"
#include "src/table.h"

// What is done with the data file.
enum class zem_exec_dat : std::uint8_t {
  untouched,
  loading,   // postings came that no commit has completed
  complete,  // durable, with its index
};

// An open load. The database owns it; the table outlives it.
struct zem_exec {
  zem_exec() = default;
  ~zem_exec();
  zem_exec(const zem_exec &) = delete;
  zem_exec &operator=(const zem_exec &) = delete;

  // Set when the load is opened, before anybody else sees it.
  zem_table *table = nullptr;
  zem_shard *shard = nullptr;  // `own`, or the table's that was lent
  std::uint64_t handle = 0;
  zem_ref<zem_exec> ref;

  zem_mutex mutex{zem_lock_rank::load};
  std::unique_ptr<zem_shard> own ZEM_GUARDED_BY(mutex);  // a new shard, until the table takes it
  bool ended ZEM_GUARDED_BY(mutex) = false;              // handed over or given up
  zem_exec_dat dat ZEM_GUARDED_BY(mutex) = zem_exec_dat::untouched;
  bool logged ZEM_GUARDED_BY(mutex) = false;  // the log was loaded
  zem_xblk xblk ZEM_GUARDED_BY(mutex);
  zem_mkey key ZEM_GUARDED_BY(mutex);                     // the greatest loaded
  std::optional<zem_mkey> lowest ZEM_GUARDED_BY(mutex);   // the least loaded; none: nothing was
  std::optional<zem_mkey> written ZEM_GUARDED_BY(mutex);  // the last posting in the data file
  std::optional<zem_mkey> unfinished
      ZEM_GUARDED_BY(mutex);  // the first of a batch that failed there
};

// Gets a shard for the load: the table's first, or a new one with its files. The caller holds the table
// (zem_table_hold) during this and every other call. Errors: ZEM_SDB_E_SHARD when the table could not
// open a listed shard; those of the files, after which nothing is left of the load.
zem_status zem_exec_open(zem_exec &exec, zem_table &table);

// All of the following answer ZEM_SDB_E_HANDLE once the load has ended.

// Appends a batch to the data file, whatever the flags say. Batches follow one another in key order; a
// posting that the file ends with may come again. -EINVAL, with nothing done, for a batch that begins
// earlier. After another failure the same batch may be given again: what is in is skipped.
zem_status zem_exec_load(zem_exec &exec, const zem_doc &batch);
// Logs a batch: inserts and, where the flag is 0, deletes. zem_yes: the last posting raised the key.
zem_status zem_exec_load_x(zem_exec &exec, const zem_doc &batch);

// Completes the data file, durably; loads may go on after it. Makes the log durable.
zem_status zem_exec_commit(zem_exec &exec);
zem_status zem_exec_commit_x(zem_exec &exec);

// Hands the shard to the table, after committing what was not. `key` becomes the shard's. A failure
// changes nothing and leaves the load open.
zem_status zem_exec_append(zem_exec &exec, zem_mkey &key);

// Gives the load up; what cannot be taken back is told to the error log. Does nothing after the end.
void zem_exec_close(zem_exec &exec) noexcept;
