// What the writer, the loader and the cursors of a data file share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/stream.h"

#include "src/spx.h"

inline std::uint64_t zem_spx_offset(std::uint32_t blk_no) noexcept {
  return std::uint64_t{blk_no} * zem_block_size;
}

inline zem_term zem_spx_get_term(const std::byte *at) noexcept {
  return {zem_stream_get_dword(at), zem_stream_get_dword(at + 4), zem_stream_get_dword(at + 8)};
}

inline void zem_spx_set_term(std::byte *at, const zem_term &term) noexcept {
  zem_stream_set_dword(at, term[0]);
  zem_stream_set_dword(at + 4, term[1]);
  zem_stream_set_dword(at + 8, term[2]);
}

// The count and the doc ids of the data group at `group`.
inline std::uint16_t zem_spx_get_count(const std::byte *group) noexcept {
  return zem_stream_get_word(group + zem_spx_format::term_size);
}
inline const std::byte *zem_spx_get_ids(const std::byte *group) noexcept {
  return group + zem_spx_format::group_head_size;
}

// Enters a data block in the index under its last posting, which comes after all that the index
// holds, and counts what the block holds.
void zem_spx_add_blk(zem_spx &spx, const zem_term &term, std::uint64_t last,
                     const zem_spx_val &val);
