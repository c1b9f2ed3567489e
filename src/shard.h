// One key range of a table: a live log that takes every update, a data file that holds the older
// postings, and, from the begin of a merge until its data file is in place, the frozen log.
//
// Postings live in up to three places: `log`, `mlog` and `dat`. A query walks all three and takes
// equal postings once. While a split replays the live log, updates wait in `doc`, where no query sees
// them. A merge freezes the live log (it becomes `mlog`, its file "_m.log"), writes a
// new data file from the frozen log and the old data file, leaving out what the log deletes, and puts
// it in place by two renames. A merge that fails keeps the frozen log, in memory and on disk, and
// the shard goes on answering from it; the next merge starts from the very same frozen log.
//
// Work is asked for through the table's task queue. `state` rises from idle to queued by
// compare-and-exchange only, and from queued to running by the same, so a shard has one task at most.
//
// After a failed merge the next one waits: 1 s, then twice as long each time, up to 10 min. Until
// then updates go on into the live log, up to 16 times its usual size; beyond it they are refused
// with the failure, so that a full disk cannot fill the memory too.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "base/idmap.h"
#include "base/mutex.h"
#include "base/status.h"

#include "src/data_config.h"
#include "src/doc.h"
#include "src/exec_task.h"
#include "src/shard_key.h"
#include "src/spm.h"
#include "src/spx.h"

// What background work does with a shard. In order: the table's gate compares with < and >.
enum class zem_shard_state : std::int16_t {
  idle,
  queued,  // a merge or split waits in the task queue
  merging,
  splitting,
  holding_writers,  // the gate keeps new updates out
  holding_readers,  // and new queries too
};

// Whether a bulk load fills the shard, which keeps merges and splits from it.
enum class zem_shard_loan : std::uint8_t {
  none,
  lent,
  shared,  // lent, and updates of others have reached it
};

// The pause after a merge that failed.
struct zem_shard_pause {
  zem_status failure = zem_ok;  // of the last merge or split; zem_ok: none is waited for
  std::uint64_t until_us = 0;   // on the monotonic clock; the timer asks for a merge after that
  std::uint32_t length_ms = 0;  // doubled by the next failure
};

// The table's shard list owns it.
struct zem_shard {
  zem_shard() = default;
  zem_shard(const zem_shard &) = delete;
  zem_shard &operator=(const zem_shard &) = delete;

  std::atomic<zem_shard_state> state = zem_shard_state::idle;  // the gate reads it without `lock`
  std::atomic<std::uint32_t> stamp = 0;  // Unix s of the last update, 0: all committed or a commit
                                         // is queued; timer and commit take it without `lock`

  // Set when the record is made, before anybody else sees it. A split exchanges `id` as well, with
  // the table's lock held for writing, and this shard's.
  std::uint32_t id = 0;          // names the files
  std::string directory;         // the table's
  const zem_cfg *cfg = nullptr;  // the table's; outlives the shard
  zem_task *task = nullptr;      // the table's; outlives the shard
  zem_err *err_log = nullptr;    // the host's

  mutable zem_rwlock lock{zem_lock_rank::shard};
  // The greatest posting key ever given to the shard. In all shards of a table but the last it does
  // not change while writers are admitted (what is routed there never exceeds it), so the table's
  // searches read it without `lock`; the last shard's is guarded by `lock`.
  zem_mkey mkey;
  zem_spm log ZEM_GUARDED_BY(lock);   // takes every update
  zem_spm mlog ZEM_GUARDED_BY(lock);  // the frozen log: holds postings, or is empty
  zem_spx dat ZEM_GUARDED_BY(lock);
  zem_spx mdat ZEM_GUARDED_BY(lock);  // what a merge writes; its task works on it without `lock`
  bool parked ZEM_GUARDED_BY(lock) = false;  // a split replays `log`: updates wait in `doc`
  // Updates that no log has yet: parked, or left by a cancelled split whose log did not take them.
  zem_doc doc ZEM_GUARDED_BY(lock);
  // When a run first found no room beside what is parked, on the monotonic clock; 0: none did.
  std::uint64_t full_since_us ZEM_GUARDED_BY(lock) = 0;
  zem_status refused ZEM_GUARDED_BY(lock) = zem_ok;  // why no merge may run until the next open
  zem_shard_loan loan ZEM_GUARDED_BY(lock) = zem_shard_loan::none;
  zem_shard_pause pause ZEM_GUARDED_BY(lock);
};

// ---- life cycle: called with the shard seen by nobody else, or under its write lock

// Names the files and opens them: those of a listed shard after zem_shard_recover, missing ones
// created; those of a brand-new shard after every file of its number was removed. The caller makes
// the directory durable before it relies on a created file.
zem_status zem_shard_open(zem_shard &shard) ZEM_REQUIRES(shard.lock);
zem_status zem_shard_open_new(zem_shard &shard) ZEM_REQUIRES(shard.lock);

// Reads live log, data index and frozen log into memory. Damage (ZEM_SDB_E_CHECKSUM, _E_KIND) is
// returned, yet the shard is loaded as far as its files reach and works on. After any other
// failure, a read that failed, the shard must not be used.
zem_status zem_shard_load(zem_shard &shard) ZEM_REQUIRES(shard.lock);

// Commits what is not known to be on disk and closes the files, in spite of failures; returns the
// first.
zem_status zem_shard_close(zem_shard &shard) ZEM_REQUIRES(shard.lock);

// Closes and removes every file of the shard.
zem_status zem_shard_clear(zem_shard &shard) ZEM_REQUIRES(shard.lock);

// ---- updates

// Applies changes, in key order and inside the shard's range, to the live log, and asks for a merge
// when that has grown to `merge_num` MiB. `applied` counts the changes that need not come again:
// all of them, or those before the one that failed. zem_yes: the high key grew.
//
// While the shard is parked the changes gather in `doc`.
zem_status zem_shard_update(zem_shard &shard, zem_proc &proc,
                            std::span<const zem_doc_val *const> changes, std::size_t &applied)
    ZEM_REQUIRES(shard.lock);
// Whether as much is parked as may be: `merge_num` MiB. A run that is under way is taken to its end.
bool zem_shard_full(const zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock);

// Makes every log of the shard durable. Takes the lock for the writes and lets it go for the last
// sync. After a failure `stamp` is set again; after a failed sync a merge is asked for as well,
// which takes the postings from memory, and until it has ended every commit fails likewise.
//
// zem_yes: nothing was done, as the shard is parked; the end of the split sees to the commit.
zem_status zem_shard_commit(zem_shard &shard) ZEM_EXCLUDES(shard.lock);

// Queues a merge, or a split where the data file has grown to `split_num` MiB, if the shard is idle and
// not lent. After a failure, and for a log that lost its disk, it is always a merge.
void zem_shard_request(zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock);
void zem_shard_request_merge(zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock);
// Does so when the live log has grown to `merge_num` MiB and no merge waits after a failure.
void zem_shard_request_due(zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock);

// Whether a merge that waits after a failure is due.
bool zem_shard_retry_due(const zem_shard &shard, std::uint64_t now_us)
    ZEM_REQUIRES_SHARED(shard.lock);

// Moves `state` from queued to `running`; false when the shard is not queued any more.
bool zem_shard_claim(zem_shard &shard, zem_shard_state running) noexcept;

// ---- how much it holds

// How far background work lags behind, as the writers' slow-down looks at it.
struct zem_shard_load_level {
  zem_shard_state state;    // merging while a failed merge is waited for
  std::uint64_t log_bytes;  // of the live log's file, and of what waits to get there
};
zem_shard_load_level zem_shard_level(const zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock);

bool zem_shard_frozen(const zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock);  // mlog in use
std::uint64_t zem_shard_count(const zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock);
std::uint64_t zem_shard_xcount(const zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock);
std::uint64_t zem_shard_fsize(const zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock);
std::uint64_t zem_shard_msize(const zem_shard &shard) ZEM_REQUIRES_SHARED(shard.lock);

// The background task that is due by these sizes, were the shard idle. Pure; sizes in bytes.
enum class zem_shard_due : std::uint8_t { nothing, merge, split };
zem_shard_due zem_shard_due_by(const zem_cfg &cfg, std::uint64_t log_bytes,
                               std::uint64_t dat_bytes) noexcept;

// ---- queries

// One item of a query: a term and the upper bounds of what counts.
struct zem_shard_item {
  zem_term low;
  zem_term high;
};

// Where a query gathers doc ids: straight in the host's list when one item asks one shard, which
// cannot find an id twice; else in a map that counts how often each id was found.
struct zem_found {
  zem_var *list = nullptr;
  zem_idmap counts;
};

// Adds the ids of the item's postings to `found`. Ids found before a failure stay.
// Errors: ZEM_SDB_E_CHECKSUM, ZEM_SDB_E_KIND, or a read that failed.
zem_status zem_shard_query(const zem_shard &shard, const zem_shard_item &item, zem_found &found)
    ZEM_REQUIRES_SHARED(shard.lock);

// ---- inspection: what the live log and the data file hold, each by itself. What a merge has frozen and
// what a split has parked is not seen. Terms are numbered from 0 in key order within either of them.

// The number of the term, or of the first one behind it. `position` stays where there is neither.
// Errors, of all functions on the data file: as zem_shard_query.
zem_status zem_shard_log_find(const zem_shard &shard, const zem_term &term, std::uint64_t &position)
    ZEM_REQUIRES_SHARED(shard.lock);
zem_status zem_shard_dat_find(const zem_shard &shard, const zem_term &term, std::uint64_t &position)
    ZEM_REQUIRES_SHARED(shard.lock);

// Part of a list: what comes after the first `skip` items, at most `limit` of them; all when that is 0 or
// less. A negative `skip` is part of the limit.
struct zem_shard_page {
  std::int64_t skip = 0;
  std::int64_t limit = 0;
};

// What a page of terms is appended to: the three lists run in parallel.
struct zem_shard_terms {
  zem_var &heads;
  zem_var &thirds;  // tagged with the term's number of postings, deleted ones included
  zem_xvars &ids;   // the term's newest doc ids, at most 11
};

// Lists terms. In the log a term whose newest posting is deleted counts for the page and is not listed.
// zem_yes: more terms follow. After a failure the last term listed lacks its ids.
zem_status zem_shard_log_keys(const zem_shard &shard, const zem_shard_page &page,
                              zem_shard_terms &terms) ZEM_REQUIRES_SHARED(shard.lock);
zem_status zem_shard_dat_keys(const zem_shard &shard, const zem_shard_page &page,
                              zem_shard_terms &terms) ZEM_REQUIRES_SHARED(shard.lock);

// Lists the doc ids of a term, newest first, those of deleted postings in the log too. zem_yes: the term
// is there.
zem_status zem_shard_log_ids(const zem_shard &shard, const zem_term &term,
                             const zem_shard_page &page, zem_var &ids)
    ZEM_REQUIRES_SHARED(shard.lock);
zem_status zem_shard_dat_ids(const zem_shard &shard, const zem_term &term,
                             const zem_shard_page &page, zem_var &ids)
    ZEM_REQUIRES_SHARED(shard.lock);

// ---- bulk loads

// Lends the shard to a bulk load if it holds nothing and no work is queued or running on it. False, with
// nothing changed, when it cannot be lent.
bool zem_shard_lend(zem_shard &shard) ZEM_REQUIRES(shard.lock);

// Creates the data file that is to replace the present one, empty.
zem_status zem_shard_create_dat(zem_shard &shard) ZEM_REQUIRES(shard.lock);

// Puts an empty log in the place of the live one. A failure leaves the log as it was.
zem_status zem_shard_drop_log(zem_shard &shard) ZEM_REQUIRES(shard.lock);

// ---- merge, run by the task that claimed the shard

// What an ended merge leaves to be let go without the lock: large maps, descriptors and files.
struct zem_shard_remains {
  zem_spm log;                  // the frozen log
  zem_spx dat;                  // the data file that was replaced
  zem_status renamed = zem_ok;  // of the directory's sync: on failure the old files stay
};

// Removes what the last merge could not remove, or a crash left. A frozen log in use is no
// leftover, and an old data file stays while nothing stands in its place. The renames that made them
// leftovers are durable before they go.
zem_status zem_shard_tidy(const zem_shard &shard) ZEM_REQUIRES(shard.lock);

// Freezes the live log, unless an earlier attempt's frozen log is still there, and creates the new
// data file. A failure leaves the shard as it was, or `refused`.
zem_status zem_shard_merge_begin(zem_shard &shard) ZEM_REQUIRES(shard.lock);

// Writes frozen log and data file, less what the log deletes, to the new data file in key order, and
// syncs it. Holds no lock: between begin and end nothing writes `mlog` or `dat`, and nothing else
// reads `mdat`.
zem_status zem_shard_merge(zem_shard &shard) ZEM_UNCHECKED_LOCKS;

// Puts the new data file in place of the old one. After a failure nothing has changed, or the shard
// is `refused`.
zem_status zem_shard_merge_end(zem_shard &shard, zem_shard_remains &remains)
    ZEM_REQUIRES(shard.lock);

// Removes the files of a merge that has ended. Their space and the map's memory take longer to give
// back: that happens when `remains` goes, for which the shard need not wait. zem_ok or the failure.
zem_status zem_shard_merge_release(const zem_shard &shard, const zem_shard_remains &remains);

// Removes the unfinished data file. The frozen log stays.
void zem_shard_merge_cancel(zem_shard &shard) ZEM_REQUIRES(shard.lock);

// Remembers how a merge or split went: sets or ends the pause.
void zem_shard_merge_settle(zem_shard &shard, zem_status result) ZEM_REQUIRES(shard.lock);
