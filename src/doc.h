// Document batches: sets of pending posting changes in key order.
//
// A posting occurs once in a batch: the first change given for it stays, later ones are dropped. A
// batch only grows until it is cleared as a whole or exchanged with another.
//
// The stream form of a batch. Integers are little-endian; count and total are variable-length
// numbers (base/stream.h). Postings stand in key order.
//
//   stream                                   group: consecutive postings of one term
//   size    field                            offset    size  field
//   1 - 10  count of the batch                    0      12  term, three words
//   1 - 10  total, postings that follow          12       2  n, postings that follow
//           groups                               14  n *  9  doc id (8), op (1): 0 insert, 255 delete
//
// A writer opens a new group for every term and after 65,535 postings of one term. A reader takes
// an op with the top bit set for a delete, groups in any order and with any n, and stops at the end
// of the bytes whatever the numbers promise.
//
// Takes no locks: a table's pending batch belongs to the table's lock, a shard's to the shard's, a
// host's to the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "base/var.h"

#include "src/xtree.h"

namespace zem_doc_format {
inline constexpr std::size_t group_term_at = 0;
inline constexpr std::size_t group_count_at = 12;
inline constexpr std::size_t group_head_size = 14;
inline constexpr std::size_t posting_id_at = 0;
inline constexpr std::size_t posting_op_at = 8;
inline constexpr std::size_t posting_size = 9;
inline constexpr std::uint32_t group_postings_max = 65535;
inline constexpr std::byte op_insert{0x00};
inline constexpr std::byte op_delete{0xff};
inline constexpr std::byte op_delete_bit{0x80};
static_assert(group_count_at == group_term_at + sizeof(zem_term));
static_assert(group_head_size == group_count_at + sizeof(std::uint16_t));
static_assert(posting_op_at == posting_id_at + sizeof(std::uint64_t));
static_assert(posting_size == posting_op_at + 1);
}  // namespace zem_doc_format

// One change. Repeats its node's key, so that a run of changes can be handed on as an array of
// pointers to these.
struct zem_doc_val {
  zem_term term{};
  std::uint32_t flag = 0;  // 0 delete, anything else insert; kept as the host gave it
  std::uint64_t id = 0;
};

struct zem_doc {
  zem_xtree<zem_doc_val> tree{8192};
  std::uint32_t count = 0;  // postings loaded since the last clear, dropped ones included
  std::uint32_t time = 0;   // Unix s of the last load or update; 0: none since the last clear
};

void zem_doc_swap(zem_doc &a, zem_doc &b) noexcept;
void zem_doc_clear(zem_doc &doc) noexcept;  // keeps the memory of some 8,000 postings

// Adds one posting; false, with nothing changed, when the batch already holds it. Leaves `count`
// and `time` alone.
bool zem_doc_load_term(zem_doc &doc, std::uint64_t id, const zem_term &term, std::uint32_t flag);

// Gives back a posting that was taken out of the batch but could not be applied. It was first, so
// its flag replaces the flag of one that was added meanwhile. Leaves `count` and `time` alone.
void zem_doc_restore_term(zem_doc &doc, std::uint64_t id, const zem_term &term, std::uint32_t flag);

// Adds a posting that came in now: raises `count`, also for a posting that the batch already holds,
// and sets `time`.
void zem_doc_load(zem_doc &doc, std::uint64_t id, std::uint64_t head, std::uint32_t third,
                  std::uint32_t flag);

// Adds a posting for each index that all three lists have.
void zem_doc_loads(zem_doc &doc, const zem_var &ids, const zem_var &heads, const zem_var &thirds,
                   std::uint32_t flag);

// Adds the postings of `from` with their flags, and its `count` to that of `doc`; sets `time`. When
// memory runs out, part of the postings are in and `count` is as it was; doing it again is safe.
void zem_doc_update(zem_doc &doc, const zem_doc &from);

std::size_t zem_doc_length(const zem_doc &doc) noexcept;  // bytes of the stream form

// Writes the stream form to `stream`, which has the size that zem_doc_length gives.
void zem_doc_to_stream(const zem_doc &doc, std::span<std::byte> stream) noexcept;

// Adds the postings of a stream form and takes over its count. Accepts any bytes: what does not
// start with two numbers changes nothing, what ends early gives the postings up to there.
void zem_doc_from_stream(zem_doc &doc, std::span<const std::byte> stream);
