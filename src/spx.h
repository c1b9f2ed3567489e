// The data file of a shard: its older postings in 64 KiB blocks, written once from front to back,
// and the data index, an ordered tree in memory that names every data block by its last posting.
//
// Postings come in key order (term ascending, doc id descending), each once, and are gathered in a
// writer's buffer (zem_xblk). A full block goes to disk and enters the index. Finishing a file
// writes the block being filled, then the index, then syncs. After that the file never changes.
// Opening reads the index only; data blocks are read when they are asked for.
//
// Block k lies at byte k * 65536. Integers are little-endian. "var" is a variable-length number
// (base/stream.h). The file grows in steps of 8 MiB, so zero blocks may follow the last one.
//
//   block 0            index head, written when all data blocks are
//   blocks 1 to N      data blocks in posting order
//   blocks N + 1 on    further index blocks, in the order of their chain
//
//   data block                             data group: consecutive postings of one term
//   offset  size  field                    offset    size  field
//        0     4  CRC-32 of bytes 4-65535       0      12  term, three words
//        4     1  kind, always 2               12       2  n >= 1, postings that follow
//        5     2  postings in the block        14  n *  8  doc ids, descending
//        7     2  groups in the block
//        9        groups, then zeros
//
//   index block                            index group: data blocks whose last posting has the term
//   offset  size  field                    offset    size  field
//        0     4  CRC-32 of bytes 4-65535       0      12  term, three words
//        4     1  kind, always 1               12       2  n >= 1, entries that follow
//        5     3  entries in the block         14          n entries
//        8     4  head only: N             entry
//   8 (12)     4  next index block, 0: none     0       8  doc id of the block's last posting
//  12 (16)        groups, then zeros            8     var  block number
//   (in brackets: the head's)                         var  groups in the block
//                                                     var  postings in the block
//                                                       1  1: the first group continues the term
//                                                          of the block before, else 0
//
// The entries of the whole chain name blocks 1 to N in this order, in strictly rising key order,
// and the chain's blocks are N + 1, N + 2 and so on: whatever departs from that is damage. A file
// without bytes, or of one block of zeros, is empty.
//
// Takes no locks but the cache's: the owning shard's lock lets in one writer or many readers. A
// file that is being written belongs to the one task that writes it.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "base/file.h"
#include "base/mutex.h"
#include "base/pool.h"
#include "base/status.h"
#include "base/stream.h"

#include "src/cache.h"
#include "src/shard_key.h"
#include "src/xtree.h"

namespace zem_spx_format {
inline constexpr std::size_t crc_at = 0;
inline constexpr std::size_t kind_at = 4;
inline constexpr std::byte kind_index{1};
inline constexpr std::byte kind_data{2};

inline constexpr std::size_t posting_count_at = 5;
inline constexpr std::size_t group_count_at = 7;
inline constexpr std::size_t groups_at = 9;
static_assert(groups_at == group_count_at + 2);

inline constexpr std::size_t entry_count_at = 5;
inline constexpr std::size_t head_data_blocks_at = 8;  // N
inline constexpr std::size_t head_next_at = 12;
inline constexpr std::size_t head_groups_at = 16;
inline constexpr std::size_t chain_next_at = 8;
inline constexpr std::size_t chain_groups_at = 12;

inline constexpr std::size_t term_size = 12;
inline constexpr std::size_t group_head_size = 14;  // of data and index groups alike
inline constexpr std::size_t id_size = 8;
inline constexpr std::size_t posting_room = 12;  // what a posting asks for: more than it takes
inline constexpr std::size_t postings_max =
    (zem_block_size - groups_at - group_head_size - (posting_room - id_size)) / id_size;
inline constexpr std::size_t groups_max =
    (zem_block_size - groups_at) / (group_head_size + id_size);
static_assert(zem_block_size <= std::numeric_limits<std::uint16_t>::max() + 1U);  // group offsets

inline constexpr std::uint32_t first_data_block = 1;
}  // namespace zem_spx_format

// The parts of a data block: the groups that begin in one KiB of it make one part. A query for a
// short term reads the part that holds it instead of the block, and trusts it by the checksum that was
// taken when the block was last read whole and verified.
struct zem_spx_parts {
  static constexpr std::size_t page_size = 1024;
  static constexpr std::size_t most = zem_block_size / page_size;
  struct part {
    zem_term term;      // of its first group
    std::uint32_t crc;  // CRC-32 of its bytes
    std::uint16_t at;   // where it begins in the block
  };
  std::array<part, most> list;
  std::uint32_t count;                       // of parts
  std::uint32_t end;                         // where the last one ends
  mutable std::atomic<std::uint32_t> bytes;  // read in parts since the block was cached
};

// What the index holds of one data block.
struct zem_spx_val {
  std::uint32_t blk_no;
  std::uint16_t grp_num;  // groups in the block
  std::uint16_t rec_num;  // postings in the block
  std::uint16_t cont;     // 1: its first group continues the term of the block before
  // What is known of its inside, null before the block was read for a query (src/spx_part.h). Published
  // once, by whichever reader is first.
  mutable const zem_spx_parts *parts = nullptr;
};
using zem_spx_node = zem_xnode<zem_spx_val>;

// One data file and its index. A shard owns two: the live one, and the one that is being written.
struct zem_spx {
  zem_spx() = default;
  zem_spx(const zem_spx &) = delete;
  zem_spx &operator=(const zem_spx &) = delete;

  zem_xtree<zem_spx_val> tree{65536};  // a node a data block; key: the block's last posting
  zem_file file;
  std::uint32_t blk_num = 0;  // blocks, for measuring the file: N after a load, N + 1 when written
  std::uint64_t key_num = 0;  // distinct terms
  std::uint64_t doc_num = 0;  // postings
  bool damaged = false;       // the load had to leave out data blocks: a merge would lose them
  mutable zem_cache cache;    // data blocks by number; locks itself
  mutable zem_mutex parts_mutex{zem_lock_rank::leaf};
  mutable zem_pool<zem_spx_parts> parts_pool ZEM_GUARDED_BY(parts_mutex){512};
};

// The data block being filled, and where it will lie. Owned by whoever writes the file.
struct zem_xblk {
  zem_xblk() = default;
  zem_xblk(const zem_xblk &) = delete;
  zem_xblk &operator=(const zem_xblk &) = delete;

  std::uint32_t blk_no = zem_spx_format::first_data_block;  // the next block to be written
  zem_term term{};                                          // of the last posting added
  std::uint64_t last = 0;                                   // its doc id
  std::size_t gpos = 0;                                     // where the open group begins
  std::uint16_t num = 0;                                    // postings in the open group
  std::uint16_t grp_num = 0;
  std::uint16_t rec_num = 0;  // 0: the block is empty and no group is open
  std::uint16_t cont = 0;     // its first group continues the term of the block before
  std::size_t pos = zem_spx_format::groups_at;  // where the next byte goes; stale bytes follow
  std::vector<std::byte> bytes = std::vector<std::byte>(zem_block_size);
};

// ---- life cycle

zem_status zem_spx_open(zem_spx &spx, zem_file_mode mode);
zem_status zem_spx_close(zem_spx &spx) noexcept;
// Empties index, counters and cache; keeps the file. Nobody else uses the record meanwhile, as with swap.
void zem_spx_shrink(zem_spx &spx) noexcept ZEM_UNCHECKED_LOCKS;
// Exchanges everything but the file names: a descriptor goes on serving its file, which the caller
// has renamed or is about to.
void zem_spx_swap(zem_spx &a, zem_spx &b) noexcept ZEM_UNCHECKED_LOCKS;

// ---- writing

void zem_xblk_shrink(zem_xblk &xblk) noexcept;  // ready for the first posting of another file

// Appends one posting and raises `mkey` to it. Where the block being filled has no room, it is
// written first, and after every 256 of these the caller sleeps for `pause_ms`.
//
// A failed write leaves the posting out and everything as it was, so that a retry is possible.
zem_status zem_spx_insert(zem_spx &spx, zem_xblk &xblk, std::uint64_t id, const zem_term &term,
                          zem_mkey &mkey, std::uint32_t pause_ms);

// Appends postings of one term, whose doc ids are given as they lie in a data block: 8 bytes each,
// descending. After a failure `xblk.term` and `xblk.last` are the last posting that got in.
zem_status zem_spx_insert_run(zem_spx &spx, zem_xblk &xblk, const zem_term &term,
                              std::span<const std::byte> ids, zem_mkey &mkey,
                              std::uint32_t pause_ms);

// Writes the block being filled, if it holds a posting. The next posting opens another block.
zem_status zem_spx_commit(zem_spx &spx, zem_xblk &xblk);

// Writes the index to block 0 and, as far as it needs more room, to the blocks from `next_blk_no` on.
zem_status zem_spx_merge(zem_spx &spx, std::uint32_t next_blk_no);

// All that ends the writing of a file: commit, `blk_num`, index, sync.
zem_status zem_spx_finish(zem_spx &spx, zem_xblk &xblk);

// ---- reading

// Reads the index of an open file into an empty record and raises `mkey` to its last posting.
//
// An index that is damaged is rebuilt from the data blocks, with error lines that name the file and
// the block; the result is the damage, yet the record is usable. `damaged` then tells whether data
// blocks had to be left out. After any other failure the record is empty.
//
// Errors: ZEM_SDB_E_CHECKSUM or ZEM_SDB_E_KIND for a rebuilt index; or the file's own.
zem_status zem_spx_load(zem_spx &spx, zem_mkey &mkey, zem_err *err);

// Reads the data block of a node into `block` and verifies it: checksum, kind, the order and the
// bounds of all that it holds, and that it is what the index says. Builds its directory.
//
// After a failure `block` must not be walked.
//
// Errors: ZEM_SDB_E_CHECKSUM, ZEM_SDB_E_KIND, or the file's own.
zem_status zem_spx_read_blk(const zem_spx &spx, const zem_spx_node &node, zem_block &block);
