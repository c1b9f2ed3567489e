// The shard log: an append-only file of 64 KiB blocks and the log map, an ordered tree that mirrors
// every posting the file holds.
//
// A posting is appended to the block being filled and enters the map. A full block goes to disk
// before the next posting is taken; commit writes the partly filled one, syncs, and keeps filling
// it. A crash loses what was appended after the last write of a block; load() replays the rest.
//
// Block k lies at byte k * 65536. Integers are little-endian. The file grows in steps of 8 MiB, so
// zeros follow the last block.
//
//   block                                  group: consecutive postings of one term
//   offset  size  field                    offset    size  field
//        0     4  CRC-32 of bytes 4-65535       0      12  term, three words
//        4     1  kind, always 1               12       2  n >= 1, postings that follow
//        5     2  postings in the block        14  n *  9  doc id (8), op (1): 0 insert, 255 delete
//        7     2  terms opened in the block
//        9        groups, then zeros
//
// A posting opens a term when it is the only one of its term in the map as it is written. A block
// whose CRC and kind are both zero was never written and ends the log.
//
// What a torn write leaves. A kill or a power cut in the middle of a block's write must not cost
// the postings that an earlier commit of the same block made durable:
//  - Bytes 512 on, the body, are written before bytes 0 to 511, the head. Where the file holds an
//    older image of the block, the body is synced before the head is written.
//  - So a block whose checksum is wrong holds an old head over a body that is old or new, piece by
//    piece. As postings are only ever added to a block, cutting it back to the head's number of
//    postings restores the old image, which the checksum confirms. A block cut back ends the log.
//  - Before the first write after an open, whatever an earlier life left behind the log's end is
//    cut off, and all that it wrote is synced: else the next crash could bring it back.
//
// The log is not the only copy of what it holds in memory: a sync that fails ends its commits for
// good, yet it goes on taking postings, which a merge then saves from the map.
//
// Takes no locks: the owning shard's lock lets in one writer or many readers. Only
// zem_spm_commit_end() runs without it.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/err.h"
#include "base/file.h"
#include "base/mutex.h"
#include "base/status.h"
#include "base/stream.h"

#include "src/shard_key.h"
#include "src/xtree.h"

namespace zem_spm_format {
inline constexpr std::size_t crc_at = 0;
inline constexpr std::size_t kind_at = 4;
inline constexpr std::size_t posting_count_at = 5;
inline constexpr std::size_t term_count_at = 7;
inline constexpr std::size_t groups_at = 9;
inline constexpr std::size_t group_count_at = 12;
inline constexpr std::size_t group_head_size = 14;
inline constexpr std::size_t op_at = 8;
inline constexpr std::size_t posting_size = 9;
// What is written last. A device writes so many aligned bytes whole or not at all.
inline constexpr std::size_t head_size = 512;
inline constexpr std::byte kind_log{1};
inline constexpr std::byte op_insert{0};
inline constexpr std::byte op_delete{255};
inline constexpr std::byte op_sign{128};  // tells a delete from an insert
static_assert(groups_at == term_count_at + 2);
static_assert(group_head_size == group_count_at + 2);
static_assert(posting_size == op_at + 1);
}  // namespace zem_spm_format

// What hangs on a node of the log map.
struct zem_spm_val {
  std::uint32_t blk_no;  // the block that holds the posting's latest record
  std::int16_t flag;     // 0: inserted, negative: deleted
};

// One writer's open group: consecutive postings of one term share a group of the block being
// filled. The group is over once anybody else has written to the log; a writer ends it
// (zem_proc_shrink) before it turns to another log, or the log to another file.
struct zem_proc {
  std::uint32_t blk_no = 0;           // the block it is in
  std::uint32_t pos = 0;              // where it begins there
  std::uint32_t num = 0;              // postings in it
  zem_term term{};                    // its term
  std::uint64_t last = zem_id_first;  // doc id last written; zem_id_first: no group is open
};
inline void zem_proc_shrink(zem_proc &proc) noexcept { proc = zem_proc{}; }

struct alignas(4096) zem_spm_buf {
  std::array<std::byte, zem_block_size> bytes{};
};

// What is known of one open log file's content on disk. Shared by the log and by syncs that run
// without the shard's lock. Changes of the file are numbered; every sync covers a prefix of them.
struct zem_spm_state {
  std::atomic<std::uint64_t> written = 0;    // changes made; raised under the shard's lock
  std::atomic<std::uint64_t> durable = 0;    // changes known to be on disk; raised under `mutex`
  std::atomic<zem_status> failure = zem_ok;  // of the first sync that failed; set under `mutex`
  zem_mutex mutex{zem_lock_rank::leaf};      // one sync at a time, so that none misses a failure
};

// The sync that ends a commit.
struct zem_spm_sync {
  std::shared_ptr<zem_fd> fd;  // null: nothing to sync
  std::shared_ptr<zem_spm_state> state;
  std::uint64_t written = 0;  // the changes to make durable
};

// Records a block of the map's pools: the nodes and the entries of one block fill a huge page each.
inline constexpr std::size_t zem_spm_pool_units =
    (std::size_t{2} << 20) / sizeof(zem_xnode<zem_spm_val>);

// A shard owns two, the live log and the frozen one.
struct zem_spm {
  // The log map: every posting once, deleted ones marked.
  zem_xtree<zem_spm_val> tree{zem_spm_pool_units};
  zem_file file;

  std::uint32_t blk_no = 0;                           // block being filled
  std::uint32_t blk_pos = zem_spm_format::groups_at;  // where its next record goes
  std::uint32_t blk_terms = 0;                        // terms opened in it
  std::uint32_t blk_recs = 0;                         // postings in it
  std::uint32_t sum_terms = 0;                        // terms of the log: the shard's key count
  std::uint32_t sum_recs = 0;                         // postings of the log: its posting count
  // The block being filled, zero from blk_pos on. Null until the first open.
  std::unique_ptr<zem_spm_buf> buf;

  bool blk_dirty = false;  // the file's image of the block is not `buf`
  // The change that first brought the block's head to the file, 0 when load() found it there; none
  // while the file holds no image of the block.
  std::optional<std::uint64_t> blk_since;

  std::shared_ptr<zem_spm_state> state;  // null while closed
  std::uint64_t settle = 0;              // changes that must be durable before anything is written
  std::optional<std::uint64_t> cut_at;   // where to cut the file before that; none: nothing to cut
  zem_status refused = zem_ok;           // why the log takes no postings
};

// Opens the file named in `file`, keeping its content (which load() replays) or beginning a new
// one. The map is left alone.
zem_status zem_spm_open(zem_spm &spm, zem_file_mode mode);

// Closes the file. What no commit has covered may be lost; a sync that is under way goes on.
zem_status zem_spm_close(zem_spm &spm) noexcept;

// Empties map, counters and buffer and gives their memory back. The file is left alone.
void zem_spm_shrink(zem_spm &spm) noexcept;

// Exchanges everything but the files' names. After a rename of the file its descriptor goes on
// serving, wherever it has moved.
void zem_spm_swap(zem_spm &a, zem_spm &b) noexcept;

// Replays the file into the empty map of a log that has just been opened, raising `mkey`, and
// stands behind its last posting.
//
// The log ends at the first block that is zero or not acceptable. Where a block with postings is
// dropped, the file is first copied to `bad_name` (or, as no copy is ever replaced, `bad_name`.1,
// .2 and so on), and an error line names file and block. When the copy fails, the log is refused:
// it is read as usual and takes no postings.
//
// Errors: ZEM_SDB_E_CHECKSUM or ZEM_SDB_E_KIND when the log ended at a block that is not acceptable;
// what lies before it is loaded and the log is usable. After any other failure, a read that failed,
// the log must be shrunk and closed.
zem_status zem_spm_load(zem_spm &spm, zem_mkey &mkey, const std::string &bad_name, zem_err *err);

// The same for a log that takes no more postings: its file is never written or cut, only synced.
zem_status zem_spm_load_frozen(zem_spm &spm, zem_mkey &mkey, const std::string &bad_name,
                               zem_err *err);

// Judges a block of a file that is not all zero, as a replay does. zem_ok; zem_yes for what a torn
// write left, now cut back to the image of an earlier commit, with which a log ends. Errors, with the
// block as it was: ZEM_SDB_E_CHECKSUM, ZEM_SDB_E_KIND.
zem_status zem_spm_accept_blk(zem_block_span block);

// Reads a block that was written in full, and verifies it. After a failure the content of `block` is
// unspecified. Errors: ZEM_SDB_E_CHECKSUM, ZEM_SDB_E_KIND, or the file's own.
zem_status zem_spm_read_blk(const zem_spm &spm, std::uint32_t index, zem_block_span block);

// Logs an insert. Zero when the posting is in the map already, deleted or not, or did not raise
// `mkey`; zem_yes when it did. After a failure the log holds what it held before.
zem_status zem_spm_insert(zem_spm &spm, zem_proc &proc, std::uint64_t id, const zem_term &term,
                          zem_mkey &mkey);

// Logs a delete. Zero when the posting is not in the map, or did not raise `mkey`; zem_yes when it
// did. After a failure the log holds what it held before.
zem_status zem_spm_delete(zem_spm &spm, zem_proc &proc, std::uint64_t id, const zem_term &term,
                          zem_mkey &mkey);

// Makes durable what was logged. The first step writes; the second, which needs no lock, syncs. A
// clean log takes neither. After a sync has failed every commit fails likewise, without an attempt.
zem_status zem_spm_commit_begin(zem_spm &spm, zem_spm_sync &job);
zem_status zem_spm_commit_end(const zem_spm_sync &job);
zem_status zem_spm_commit(zem_spm &spm);

// Whether anything was appended, or written and is not known to be on disk. So is all that an
// existing file held when it was opened.
bool zem_spm_dirty(const zem_spm &spm) noexcept;

// The failure of the first sync of the file that failed, or zem_ok.
zem_status zem_spm_failure(const zem_spm &spm) noexcept;

// zem_ok, or why the log takes no postings: updates and merges return it.
zem_status zem_spm_writable(const zem_spm &spm) noexcept;
