// The split of a shard: its content is divided at a point near the middle of its postings. The lower
// half goes to a new shard record, `low`, which in the end takes the old one's place, the upper half to a
// pipe: another new shard of the table, or the host.
//
//   pass    reads                                     lower half to    upper half to
//   main    frozen log and data file, in key order    low's data file  the pipe's data file
//   rest    live log, in the order written            low's log        the pipe's log
//   parked  `doc`, in key order                       low's log        the pipe's log
//
// The boundary is the last posting that the main pass writes to low. Updates go to the live log during
// the main pass, to `doc` during the rest pass; they are held back during the parked pass and the end.
//
// Nobody else sees low and the pipe's shard before the table takes them in, so their locks are not
// taken.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "base/status.h"

#include "src/doc.h"
#include "src/shard.h"
#include "src/spm.h"
#include "src/spx.h"

// Where a batch of the upper half is to go at the host. Part of the interface.
enum class zem_pipe_to : std::uint8_t { log, dat };

// Where the upper half goes. One split owns it.
struct zem_pipe {
  std::unique_ptr<zem_shard> shard;  // of the same table; null when the host takes the upper half

  // The host's: each batch of `commit_num` changes, and the end of either part.
  std::function<zem_status(zem_doc &batch, zem_pipe_to to)> peer_batch;
  std::function<zem_status(zem_pipe_to to)> peer_commit;
  std::uint32_t commit_num = 0;
  zem_doc batch;  // changes to be sent

  zem_proc proc;  // of the local shard's log
};

// Freezes the live log, unless an earlier attempt's is still there, and creates the files of low and of
// the pipe's shard. A failure leaves the shard as it was, or `refused`.
zem_status zem_shard_split_begin(zem_shard &shard, zem_pipe &pipe, zem_shard &low)
    ZEM_REQUIRES(shard.lock);

// The main pass. zem_yes: both halves hold postings, complete and synced; zem_ok: one of them would have
// stayed empty, and the split is to be given up for a merge.
zem_status zem_shard_split(const zem_shard &shard, zem_pipe &pipe,
                           zem_shard &low) ZEM_UNCHECKED_LOCKS;

// The rest pass; the shard is parked, so nothing writes the live log.
zem_status zem_shard_split_x(const zem_shard &shard, zem_pipe &pipe,
                             zem_shard &low) ZEM_UNCHECKED_LOCKS;

// The parked pass, and the commit of both logs. The gate keeps writers out, so nothing changes `doc`.
zem_status zem_shard_split_m(const zem_shard &shard, zem_pipe &pipe,
                             zem_shard &low) ZEM_UNCHECKED_LOCKS;

// Exchanges number, stores and high key with low, which then holds what the shard was, and lets the
// updates go that the parked pass has passed on. The table's lock is held for writing.
void zem_shard_split_end(zem_shard &shard, zem_shard &low) noexcept ZEM_REQUIRES(shard.lock);

// Gives a split up: parked updates go to the live log, or stay in `doc` where that fails, and the files
// of the new shards go. The frozen log stays.
void zem_shard_split_cancel(zem_shard &shard, zem_pipe &pipe, zem_shard &low)
    ZEM_EXCLUDES(shard.lock);

// Lets the stores and the files of what was split go.
zem_status zem_shard_split_release(zem_shard &low, bool remove_files) ZEM_UNCHECKED_LOCKS;
