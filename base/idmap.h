// A flat hash from 64-bit ids to counts: open addressing with linear probing, a power of two of slots,
// at most half of them taken. Id 0 marks a free slot and is never stored.
//
// Made for gathering the ids of a query: a handful to tens of millions, added once or a few times
// each, then read out in one pass.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "base/assert.h"

struct zem_idmap_slot {
  std::uint64_t id;
  std::uint64_t count;
};

struct zem_idmap {
  std::vector<zem_idmap_slot> slots;
  std::size_t used = 0;
};

inline std::size_t zem_idmap_home(const zem_idmap &map, std::uint64_t id) noexcept {
  // The high bits of the product depend on every bit of the id.
  const int shift = 64 - std::countr_zero(map.slots.size());
  return static_cast<std::size_t>((id * 0x9E3779B97F4A7C15ULL) >> shift);
}

// The slot of `id`, or the free one where it belongs. The map has room.
inline zem_idmap_slot &zem_idmap_find(zem_idmap &map, std::uint64_t id) noexcept {
  std::size_t at = zem_idmap_home(map, id);
  while (map.slots[at].id != id && map.slots[at].id != 0)
    at = (at + 1) & (map.slots.size() - 1);
  return map.slots[at];
}

// Makes room for `more` further ids.
inline void zem_idmap_reserve(zem_idmap &map, std::size_t more) {
  constexpr std::size_t fewest = 16;
  const std::size_t wanted = 2 * (map.used + more);
  if (wanted <= map.slots.size()) return;
  zem_idmap larger;
  larger.slots.resize(std::bit_ceil(wanted < fewest ? fewest : wanted));
  for (const zem_idmap_slot &slot : map.slots) {
    if (slot.id != 0) zem_idmap_find(larger, slot.id) = slot;
  }
  map.slots = std::move(larger.slots);
}

// Counts `id` once more. Room was made before.
inline void zem_idmap_add(zem_idmap &map, std::uint64_t id) noexcept {
  ZEM_ASSERT(id != 0);
  ZEM_ASSERT(2 * map.used <= map.slots.size());
  zem_idmap_slot &slot = zem_idmap_find(map, id);
  if (slot.id == 0) {
    slot.id = id;
    ++map.used;
  }
  ++slot.count;
}
