// An opened table: its shards, the pending batch, the worker threads and the timer.
//
// Updates gather in the pending batch. Routing takes the batch out, cuts it into one run per shard by
// the shards' high keys, and applies each run to its shard's live log. What cannot be applied goes
// back to the pending batch: nothing that was accepted is dropped.
//
// Every operation on shards passes the gate, which counts it as a writer or a reader while it works,
// and which a split closes, first to writers and then to readers. Whoever holds a shard pointer
// outside the table's lock is counted as a holder as well, so that clear and close can wait for them.
//
// The shard list file "sdb.lst" holds the numbers of the table's shards in ascending order as decimal
// text, separated by line feeds. A reader takes blank lines, carriage returns and a line feed at the
// end; zero, what is no number and a number that came before are skipped.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "base/file.h"
#include "base/mutex.h"
#include "base/status.h"
#include "base/thread.h"

#include "include/zem_sdb.h"
#include "src/arrx.h"
#include "src/data_config.h"
#include "src/data_keys.h"
#include "src/doc.h"
#include "src/exec_task.h"
#include "src/shard.h"

inline constexpr const char *zem_table_cfg_file = "sdb.xml";
inline constexpr const char *zem_table_list_file = "sdb.lst";
inline constexpr std::uint32_t zem_table_timer_ms = 3000;

// The host's callbacks by slot; slot 0 is not used. The database owns them, the host sets them at any
// time.
using zem_sdb_slots = std::array<std::atomic<zem_sdb_function>, ZEM_SDB_PEER_COMMIT + 1>;

// Who passes the gate, and how it is counted.
enum class zem_table_role : std::uint8_t { writer, reader };

struct zem_table {
  zem_table();
  ~zem_table();
  zem_table(const zem_table &) = delete;
  zem_table &operator=(const zem_table &) = delete;

  // Set before the table is seen by anybody else.
  std::string path;  // the table's directory
  std::string name;
  zem_cfg cfg;
  zem_err *err_log = nullptr;                // the host's
  const zem_sdb_slots *callbacks = nullptr;  // the host's, or null
  std::shared_ptr<zem_fd> dir_lock;          // keeps other processes and databases out while open

  // Raised and lowered under `wait_mutex`, read anywhere.
  std::atomic<bool> open = false;  // serves requests; false while the table is cleared
  std::atomic<bool> closing =
      false;  // the last handle is gone: nobody waits or slows down any more

  zem_mutex routing{zem_lock_rank::routing};
  zem_doc batch ZEM_GUARDED_BY(routing);  // being routed; empty otherwise

  zem_mutex list_mutex{zem_lock_rank::list};
  // Some listed shard did not open: the list must not be written, or that shard would be lost.
  bool incomplete ZEM_GUARDED_BY(list_mutex) = false;
  // The list held lines that are no numbers: it is copied aside before it is written over.
  bool list_odd ZEM_GUARDED_BY(list_mutex) = false;
  // What the list has to say, while that could not be made durable: the list as it was before a clear
  // that failed, or a new one whose directory does not sync.
  std::optional<std::string> list_owed ZEM_GUARDED_BY(list_mutex);

  mutable zem_mutex batch_mutex{zem_lock_rank::batch};
  zem_doc doc ZEM_GUARDED_BY(batch_mutex);                 // the pending batch
  zem_status routed ZEM_GUARDED_BY(batch_mutex) = zem_ok;  // how the last routing went

  mutable zem_rwlock lock{zem_lock_rank::table};
  zem_arrx<zem_shard> shards ZEM_GUARDED_BY(lock);          // by high key; owned
  std::vector<zem_shard *> shard_ids ZEM_GUARDED_BY(lock);  // the same by number
  std::uint32_t shard_seq ZEM_GUARDED_BY(lock) = 0;         // highest number issued
  bool lent ZEM_GUARDED_BY(lock) = false;  // a bulk load was given the table's first shard, once

  zem_mutex wait_mutex{zem_lock_rank::gate};
  zem_cond gate;  // a count fell, a shard's state fell, or `open` or `closing` changed
  std::uint32_t writers ZEM_GUARDED_BY(wait_mutex) = 0;  // from the gate to their last shard
  std::uint32_t readers ZEM_GUARDED_BY(wait_mutex) = 0;
  std::uint32_t holders ZEM_GUARDED_BY(wait_mutex) = 0;  // whoever keeps a shard pointer
  // Splits, and bulk loads at their close, that keep new ones out.
  std::uint32_t writer_bars ZEM_GUARDED_BY(wait_mutex) = 0;
  std::uint32_t reader_bars ZEM_GUARDED_BY(wait_mutex) = 0;
  bool clearing ZEM_GUARDED_BY(wait_mutex) = false;

  zem_task task;
  zem_timer timer;
};

// ---- life cycle

// Opens the table of directory `path`: takes the directory's lock, repairs and loads every listed
// shard, or makes shard 1, and starts workers and timer. A failure to open the shards is returned,
// yet the table is then open without any. Errors of the lock and of the threads leave it closed.
//
// `served` tells whether the table is open.
zem_status zem_table_open(zem_table &table, bool &served);

// Ends waits and slow-downs of calls in progress. Called before the last close waits for them.
void zem_table_close_begin(zem_table &table);
// Stops timer and workers, routes the pending batch and closes every shard. No call is in progress
// any more. Goes on past failures and returns the first.
zem_status zem_table_close(zem_table &table);

// Removes every shard and starts shard 1 anew. `withdraw` cancels the table's bulk loads, when no more
// can begin and before the shards go.
zem_status zem_table_clear(
    zem_table &table, const std::function<void()> &withdraw = [] {});

// The timer's work: routes a batch and commits logs that were quiet for `flush_time`, and asks again
// for merges that failed.
void zem_table_timer(zem_table &table);

// ---- the gate

// Lets the caller in once nothing bars its role, and counts it. It then picks its shards under the
// table's lock; the shards found stay until zem_table_wait_clear.
// Errors: ZEM_SDB_E_CLOSED; -EBUSY when barred for 300 s, or barred while the table closes.
zem_status zem_table_wait_lock(zem_table &table, zem_table_role role);
void zem_table_wait_clear(zem_table &table, zem_table_role role);

// Moves a shard's state, and the gate with it: from holding_writers on writers are barred, from
// holding_readers on readers too.
void zem_table_set_state(zem_table &table, zem_shard &shard, zem_shard_state state)
    ZEM_REQUIRES(table.wait_mutex);

// Whether a wait ends when the table is cleared or closed.
enum class zem_table_when : std::uint8_t { open, any };

// Waits until the writers, and for the role of readers these as well, have left; the caller keeps new
// ones out. Errors: -EBUSY after 300 s; ZEM_SDB_E_CLOSED when the table is cleared or closed meanwhile,
// unless `when` is `any`: clearing and closing end what writers and readers themselves wait for.
zem_status zem_table_wait_empty(zem_table &table, zem_table_role role,
                                zem_table_when when = zem_table_when::open)
    ZEM_REQUIRES(table.wait_mutex);

// Counts a holder that is neither writer nor reader. ZEM_SDB_E_CLOSED while the table is not open.
zem_status zem_table_hold(zem_table &table);
void zem_table_unhold(zem_table &table);

// Waits until no split parks the shard's updates any more, at most 300 s.
void zem_shard_sleep(zem_table &table, const zem_shard &shard);

// ---- shard list

// The numbers in "sdb.lst", ascending. zem_yes: at least one; zem_ok: none, and the table is to start
// anew, every file of former shards having been renamed aside.
zem_status zem_table_read(zem_table &table, std::vector<std::uint32_t> &numbers)
    ZEM_REQUIRES(table.list_mutex);
// Replaces "sdb.lst" durably. Once the new list has its name there is no way back: where the directory
// does not sync then, that is logged and the list is owed. Errors leave the old list.
zem_status zem_table_write(zem_table &table, const std::vector<std::uint32_t> &numbers)
    ZEM_REQUIRES(table.list_mutex);

// Empties "sdb.lst", durably, before the shards that it named are removed. A failure leaves the list
// as it was; where the disk does not let that happen, the list is owed. `numbers` become those it held.
zem_status zem_table_write_empty(zem_table &table, std::vector<std::uint32_t> &numbers)
    ZEM_REQUIRES(table.list_mutex);
// Writes a list that is owed. Until that succeeds nothing is promised to survive a power cut: a sync
// of the table fails.
zem_status zem_table_restore(zem_table &table) ZEM_REQUIRES(table.list_mutex);

// Remembers that the list's directory may not be durable: it is owed as it stands.
void zem_table_owe(zem_table &table) ZEM_REQUIRES(table.list_mutex);

// ---- shards

std::unique_ptr<zem_shard> zem_table_shard(zem_table &table, std::uint32_t number);
// The same with the next number, which is not used again.
std::unique_ptr<zem_shard> zem_table_next_shard(zem_table &table);

// Lends the table's only shard to a bulk load if it is empty and none was lent before; null: none is to
// be had.
zem_shard *zem_table_lend(zem_table &table);

// The numbers of the shards, rising.
std::vector<std::uint32_t> zem_table_numbers(const zem_table &table)
    ZEM_REQUIRES_SHARED(table.lock);

// Makes room for one more shard, so that filing it cannot fail.
void zem_table_make_room(zem_table &table) ZEM_REQUIRES(table.lock);
// Files a shard in both indexes of the table, which owns it from here on.
void zem_table_append(zem_table &table, std::unique_ptr<zem_shard> shard) ZEM_REQUIRES(table.lock);
// Files a shard anew whose high key is to be raised to `key`.
void zem_table_raise(zem_table &table, zem_shard &shard, const zem_mkey &key)
    ZEM_REQUIRES(table.lock, shard.lock);

// The order of `shards`: by high key, then by number. Negative, zero or positive.
int zem_table_compare_x(const zem_shard &a, const zem_shard &b) noexcept;

// Negative, zero or positive as the shard's high key comes before, equals or comes after the key; an
// id of all ones stands before every id of its term.
int zem_table_compare(const zem_shard &shard, const zem_term &term, std::uint64_t id) noexcept;

// The position in `shards` of the shard to which the key belongs: the first whose high key is not
// before it, else the last. There is at least one shard.
std::size_t zem_table_find(const zem_table &table, const zem_term &term, std::uint64_t id)
    ZEM_REQUIRES_SHARED(table.lock);

zem_shard *zem_table_find_id(const zem_table &table, std::uint32_t number)
    ZEM_REQUIRES_SHARED(table.lock);

// ---- writing

// Routes the pending batch, or waits for the routings that began before. With `slow_down` the caller
// is then held up as far as background work lags behind, and while a split has `merge_num` MiB of updates
// parked; after 10 s of that, what goes there comes back with -EBUSY.
zem_status zem_table_update(zem_table &table, bool slow_down);
// Routes the host's batch at once and leaves it to the host; adds a row to `keys`, when given, for
// each shard whose high key grew. Waits as a slowed-down caller does.
zem_status zem_table_update_x(zem_table &table, const zem_doc &doc, zem_keys *keys);

// Whether routing fails and the pending batch has grown to 16 times `commit_num`, so that it takes no
// more.
bool zem_table_stuck(const zem_table &table) ZEM_REQUIRES(table.batch_mutex);

// Adds changes to the pending batch by calling `load(batch)`, and routes it when it is full. While the
// table is stuck the changes are routed past it, and refused as far as they cannot be applied.
template <class Load>
zem_status zem_table_add(zem_table &table, Load load) {
  for (bool retried = false;; retried = true) {
    zem_lock_guard held(table.batch_mutex);
    if (!zem_table_stuck(table)) {
      load(table.doc);
      const bool full = table.doc.count >= table.cfg.commit_num;
      held.unlock();
      return full ? zem_table_update(table, true) : zem_ok;
    }
    held.unlock();
    if (retried) break;
    std::ignore = zem_table_update(table, false);  // shows in zem_table_stuck
  }
  zem_doc own;
  load(own);
  return zem_table_update_x(table, own, nullptr);
}

zem_status zem_table_commit(zem_table &table);
zem_status zem_table_merge(zem_table &table);
zem_status zem_table_sync(zem_table &table);
zem_status zem_table_wait(zem_table &table, std::uint32_t millis);

// ---- reading

zem_status zem_table_query(zem_table &table, const zem_var &heads, const zem_var &thirds,
                           zem_var &ids);
zem_status zem_table_shards(zem_table &table, zem_keys &keys);
zem_status zem_table_key_count(zem_table &table, std::uint32_t number, std::uint64_t &log_count,
                               std::uint64_t &dat_count);
// Adds to the totals.
struct zem_table_totals {
  std::uint64_t count = 0;   // distinct terms, an estimate
  std::uint64_t xcount = 0;  // postings recorded
  std::uint64_t fsize = 0;   // bytes of files
  std::uint64_t msize = 0;   // bytes of the shards' maps
};
zem_status zem_table_count(zem_table &table, zem_table_totals &totals);

// A source of a shard's postings: the live log or the data file.
enum class zem_table_source : std::uint8_t { log, dat };

// The shard whose range holds the term and the term's number there, as zem_shard_log_find gives it; all
// ones where the source has neither the term nor one behind it. The outputs are written unless the
// table is closed.
zem_status zem_table_find_term(zem_table &table, zem_table_source source, const zem_term &term,
                               std::uint32_t &number, std::uint64_t &position);
zem_status zem_table_keys(zem_table &table, zem_table_source source, std::uint32_t number,
                          const zem_shard_page &page, zem_shard_terms &terms);
zem_status zem_table_ids(zem_table &table, zem_table_source source, std::uint32_t number,
                         const zem_term &term, const zem_shard_page &page, zem_var &ids);
