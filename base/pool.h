// A pool of records of one type: blocks of `units` records, handed out in turn, given back whole.
//
// Blocks come untouched from the kernel, so the part of a block that was never handed out costs no
// memory, or less than a huge page of it; or they are spare ones that another pool gave back a moment
// ago. Records are trivial: nothing runs when a pool lets them go.
//
// A pool takes no locks: it belongs to its owner's lock. The spare blocks have one of their own.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/assert.h"

// Memory for one block, of any content; throws std::bad_alloc when it cannot be had. With huge pages a
// large block costs a fault every 2 MiB instead of every 4 KiB, and what lies in it fewer address
// lookups. Such blocks are kept when they are given back, as zem_pool_spare_bytes allows: the kernel
// would clear each page anew.
enum class zem_pool_pages : std::uint8_t { small, huge };
void *zem_pool_map(std::size_t bytes, zem_pool_pages pages);
void zem_pool_unmap(void *block, std::size_t bytes, zem_pool_pages pages) noexcept;

// The blocks of a log of 64 MiB and more: to clear them anew was a quarter of an ingest's processor time.
inline constexpr std::size_t zem_pool_spare_bytes = std::size_t{512} << 20;

// Gives those spare blocks back to the system that no pool has needed for `micros` microseconds, or a
// little longer; all of them when that is 0. To be called from time to time, always with the same number
// or with 0.
void zem_pool_trim(std::uint64_t micros) noexcept;

template <class T>
struct zem_pool {
  static_assert(std::is_trivially_destructible_v<T>);

  explicit zem_pool(std::size_t units_a_block) : units(units_a_block) { ZEM_ASSERT(units > 0); }
  ~zem_pool() { zem_pool_term(*this); }
  zem_pool(const zem_pool &) = delete;
  zem_pool &operator=(const zem_pool &) = delete;

  std::size_t units;        // records a block
  std::vector<T *> blocks;  // all of `units` records
  std::size_t in_use = 0;   // blocks handed out of, the last of them perhaps only in part
  T *next = nullptr;        // the record to hand out next, in the last block in use
  T *end = nullptr;         // where that block ends
};

// A pool that has filled one block will use most of the next.
constexpr zem_pool_pages zem_pool_pages_of(std::size_t block) noexcept {
  return block == 0 ? zem_pool_pages::small : zem_pool_pages::huge;
}

// Makes sure that the next `records` calls of zem_pool_take() succeed. Throws std::bad_alloc.
template <class T>
void zem_pool_reserve(zem_pool<T> &pool, std::size_t records) {
  const std::size_t at_hand = static_cast<std::size_t>(pool.end - pool.next);
  std::size_t unused = pool.blocks.size() - pool.in_use;
  for (; at_hand + unused * pool.units < records; ++unused) {
    if (pool.blocks.size() == pool.blocks.capacity()) {
      pool.blocks.reserve(std::max<std::size_t>(8, 2 * pool.blocks.size()));
    }
    const zem_pool_pages pages = zem_pool_pages_of(pool.blocks.size());
    pool.blocks.push_back(static_cast<T *>(zem_pool_map(pool.units * sizeof(T), pages)));
  }
}

// A fresh record out of those reserved.
template <class T>
T *zem_pool_take(zem_pool<T> &pool) noexcept {
  if (pool.next == pool.end) {
    ZEM_ASSERT(pool.in_use < pool.blocks.size());
    pool.next = pool.blocks[pool.in_use++];
    pool.end = pool.next + pool.units;
  }
  return ::new (static_cast<void *>(pool.next++)) T{};
}

// A fresh record. Throws std::bad_alloc.
template <class T>
T *zem_pool_new(zem_pool<T> &pool) {
  if (pool.next == pool.end) zem_pool_reserve(pool, 1);
  return zem_pool_take(pool);
}

// Every record becomes free; the blocks are kept for reuse.
template <class T>
void zem_pool_empty(zem_pool<T> &pool) noexcept {
  pool.in_use = 0;
  pool.next = nullptr;
  pool.end = nullptr;
}

// Every record becomes free; all blocks but the first `kept` are given back.
template <class T>
void zem_pool_shrink(zem_pool<T> &pool, std::size_t kept) noexcept {
  for (; pool.blocks.size() > kept; pool.blocks.pop_back()) {
    const zem_pool_pages pages = zem_pool_pages_of(pool.blocks.size() - 1);
    zem_pool_unmap(pool.blocks.back(), pool.units * sizeof(T), pages);
  }
  zem_pool_empty(pool);
}

// Gives the blocks back; the pool is empty and usable.
template <class T>
void zem_pool_term(zem_pool<T> &pool) noexcept {
  zem_pool_shrink(pool, 0);
}

// Exchanges all contents. Records stay where they are.
template <class T>
void zem_pool_swap(zem_pool<T> &a, zem_pool<T> &b) noexcept {
  std::swap(a.units, b.units);
  a.blocks.swap(b.blocks);
  std::swap(a.in_use, b.in_use);
  std::swap(a.next, b.next);
  std::swap(a.end, b.end);
}

// Bytes of all blocks held.
template <class T>
std::uint64_t zem_pool_msize(const zem_pool<T> &pool) noexcept {
  return std::uint64_t{sizeof(T)} * pool.units * pool.blocks.size();
}
