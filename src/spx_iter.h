// Cursors over a data file. A cursor stands on one posting of one data block, or on nothing.
//
// Two families. `iter` serves queries: it walks one term, takes its blocks from the cache, and
// answers zem_yes while it stands on a posting. `iterd` walks the whole file. Merges and splits go
// through it posting by posting, read every block into a buffer of their own and leave the cache alone;
// listings go through it term by term, by way of the cache.
//
// Either can be walked a posting at a time or a run at a time. A run is what is left of the group
// that the cursor stands in: postings of one term, their doc ids side by side as they lie in the
// block (zem_spx_format::id_size bytes each, little-endian, descending). It stays valid until the
// cursor moves to another block.
//
// A cursor belongs to one thread, and the index must not change while it is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "base/assert.h"
#include "base/status.h"
#include "base/stream.h"
#include "base/var.h"

#include "src/spx.h"
#include "src/spx_part.h"

struct zem_xiter {
  zem_xiter() = default;
  zem_xiter(const zem_xiter &) = delete;
  zem_xiter &operator=(const zem_xiter &) = delete;

  zem_term term{};                         // of the current posting
  std::uint64_t doc = 0;                   // its doc id
  bool first = false;                      // it is the first posting of its term in the file
  const std::byte *at = nullptr;           // its doc id inside `block`; null: stands on nothing
  const std::byte *end = nullptr;          // behind the last doc id of its group
  std::uint32_t group = 0;                 // index of its group in the block's directory
  bool last_group = false;                 // of the block
  const zem_spx_node *node = nullptr;      // of `block`; belongs to the data index
  std::shared_ptr<const zem_block> block;  // being walked; null while a part of it is
  std::shared_ptr<zem_block> buffer;       // of the iterd family, reused from block to block
  std::unique_ptr<std::byte[]> part;       // what was read instead of it
};

inline bool zem_xiter_stands(const zem_xiter &it) noexcept { return it.at != nullptr; }

// The doc ids from the current posting to the end of its group; empty when it stands on nothing.
inline std::span<const std::byte> zem_xiter_run(const zem_xiter &it) noexcept {
  return {it.at, it.end};
}

// ---- iter: one term, through the cache. zem_yes: stands on a posting; zem_ok: on nothing

zem_status zem_spx_iter_first(const zem_spx &spx, zem_xiter &it);  // of the file

// The first posting of the term whose doc id is not above `id`; with zem_id_first the term's first.
zem_status zem_spx_iter_find_x(const zem_spx &spx, zem_xiter &it, const zem_term &term,
                               std::uint64_t id);

// Moves `count` postings on inside the term. Blocks that hold nothing but what is passed over are
// not read.
zem_status zem_spx_iter_pass(const zem_spx &spx, zem_xiter &it, std::uint64_t count);

// ---- iterd by terms: for listings, through the cache

// On the first posting of the `index`-th term of the file, counting from 0, or on nothing when there are
// fewer. zem_ok.
zem_status zem_spx_iterd_find_x(const zem_spx &spx, zem_xiter &it, std::uint64_t index);

// From the first posting of a term to that of the next. `count` becomes the number of postings passed;
// the first of their ids, `most` at most, are appended to `ids` unless that is null. Once these are
// complete, blocks that hold nothing else are counted by the index, unread. zem_yes: stands on the next
// term; zem_ok: there is none.
zem_status zem_spx_iterd_next_x(const zem_spx &spx, zem_xiter &it, std::uint64_t &count,
                                zem_var *ids, std::size_t most);

// How many terms of the file come before `term`. zem_ok, with `index` unchanged: all do.
zem_status zem_spx_term_index(const zem_spx &spx, const zem_term &term, std::uint64_t &index);

// ---- iterd: the whole file, past the cache. zem_ok, also at its end, where it stands on nothing

zem_status zem_spx_iterd_first(const zem_spx &spx, zem_xiter &it);

// ---- moving on

// To the first posting behind the current group. Called by the functions below.
zem_status zem_spx_iter_next_group(const zem_spx &spx, zem_xiter &it);
zem_status zem_spx_iterd_next_group(const zem_spx &spx, zem_xiter &it);

// Moves `count` postings on inside the current run. False, with nothing changed, when that is the
// whole run.
inline bool zem_xiter_move(zem_xiter &it, std::size_t count) noexcept {
  const auto left = static_cast<std::size_t>(it.end - it.at) / zem_spx_format::id_size;
  ZEM_ASSERT(zem_xiter_stands(it));
  ZEM_ASSERT(count >= 1 && count <= left);
  if (count == left) return false;
  it.at += count * zem_spx_format::id_size;
  it.doc = zem_stream_get_lword(it.at);
  it.first = false;
  return true;
}

// Moves `count` postings on, at most to the end of the run: to what follows there, which is the
// next part of the term.
inline zem_status zem_spx_iter_skip(const zem_spx &spx, zem_xiter &it, std::size_t count) {
  return zem_xiter_move(it, count) ? zem_yes : zem_spx_iter_next_group(spx, it);
}
inline zem_status zem_spx_iter_next(const zem_spx &spx, zem_xiter &it) {
  return zem_spx_iter_skip(spx, it, 1);
}

// The same over the whole file: what follows the end of a run may be another term.
inline zem_status zem_spx_iterd_skip(const zem_spx &spx, zem_xiter &it, std::size_t count) {
  return zem_xiter_move(it, count) ? zem_ok : zem_spx_iterd_next_group(spx, it);
}
inline zem_status zem_spx_iterd_next(const zem_spx &spx, zem_xiter &it) {
  return zem_spx_iterd_skip(spx, it, 1);
}
