// Reading a data block in parts (zem_spx_parts), which spares a query for a short term the other 63 KiB.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/status.h"

#include "src/spx.h"

// Divides a block that was read whole and verified, unless that was done before.
void zem_spx_part_learn(const zem_spx &spx, const zem_spx_node &node, const zem_block &block);

// Whether a query for the term should read one part of the block rather than the block: its parts are
// known, there are several, and the block is not asked for so often that it had better be cached.
bool zem_spx_part_find(const zem_spx_node &node, const zem_term &term, std::size_t &index) noexcept;

// A group of a block. A term without a group here has none in the block.
struct zem_spx_group {
  const std::byte *head = nullptr;  // null: none
  bool first = false;               // of the block
  bool last = false;
};

// Reads part `index` into a new buffer and finds the term's group in it. Errors: ZEM_SDB_E_CHECKSUM, or the
// file's own.
zem_status zem_spx_part_read(const zem_spx &spx, const zem_spx_node &node, std::size_t index,
                             const zem_term &term, std::unique_ptr<std::byte[]> &buffer,
                             zem_spx_group &group);
