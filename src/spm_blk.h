// A reader of one log block's postings, in the order in which they were logged.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/stream.h"

#include "src/spm.h"

// Stands before the first posting at first.
struct zem_blk {
  const std::byte *at = nullptr;  // what comes next
  std::uint32_t left = 0;         // postings of the block
  std::uint32_t group_left = 0;   // postings of the current group

  // The posting last read.
  zem_term term{};
  std::uint64_t id = 0;
  bool deleted = false;
};

// `block` has been verified, or is one that a log is filling; `postings` are read from it.
inline void zem_blk_read(zem_blk &reader, zem_block_view block, std::uint32_t postings) noexcept {
  reader = {.at = &block[zem_spm_format::groups_at], .left = postings};
}

// Reads the next posting; false behind the last.
inline bool zem_blk_next(zem_blk &reader) noexcept {
  if (reader.left == 0) return false;
  if (reader.group_left == 0) {
    for (std::size_t i = 0; i < reader.term.size(); ++i)
      reader.term[i] = zem_stream_get_dword(reader.at + i * sizeof reader.term[i]);
    reader.group_left = zem_stream_get_word(reader.at + zem_spm_format::group_count_at);
    reader.at += zem_spm_format::group_head_size;
  }
  reader.id = zem_stream_get_lword(reader.at);
  const std::byte op = reader.at[zem_spm_format::op_at];
  reader.deleted = (op & zem_spm_format::op_sign) != std::byte{0};
  reader.at += zem_spm_format::posting_size;
  --reader.group_left;
  --reader.left;
  return true;
}
