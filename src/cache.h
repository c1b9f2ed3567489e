// The block cache: data blocks of one file, ready to be walked, least recently used first out.
//
// A cached block never changes, so readers share it instead of copying it: an eviction drops the
// cache's reference and leaves alone whoever still walks the block. Writing never evicts. Whoever
// writes trims afterwards, which brings the cache from its limit down to three quarters of it.
// A block counts as 65,536 bytes, whatever its directory takes.
//
// Readers may call read, write and trim at any time. Clear may run beside them too; swap only when
// nobody else uses either cache.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "base/stream.h"

// One data block in memory with the directory of its groups. Whoever fills one in verifies it
// first (spx.h), so that walking it needs no bounds checks. Immutable once shared.
struct zem_block {
  alignas(64) std::array<std::byte, zem_block_size> bytes;  // as it lies in the file
  std::vector<std::uint16_t> groups;                        // where each group begins in `bytes`
};

struct zem_cache_entry {
  std::uint32_t blk_no = 0;
  std::shared_ptr<const zem_block> block;
};

// One file's cache. The data index owns it.
struct zem_cache {
  zem_cache() = default;
  zem_cache(const zem_cache &) = delete;
  zem_cache &operator=(const zem_cache &) = delete;

  std::uint32_t limit = 0;  // MiB; 0: never trimmed. Set before the first use
  zem_mutex mutex{zem_lock_rank::cache};
  std::list<zem_cache_entry> lru ZEM_GUARDED_BY(mutex);  // least recently used first
  std::unordered_map<std::uint32_t, std::list<zem_cache_entry>::iterator> map
      ZEM_GUARDED_BY(mutex);  // block number to its place in `lru`
};

// The cached block, now the most recently used one, or null.
std::shared_ptr<const zem_block> zem_cache_read(zem_cache &cache, std::uint32_t blk_no);

// Caches `block` under its number. A number that is cached already keeps its block.
void zem_cache_write(zem_cache &cache, std::uint32_t blk_no,
                     std::shared_ptr<const zem_block> block);

// When the cache has reached its limit, evicts down to below three quarters of it.
void zem_cache_trim(zem_cache &cache);

void zem_cache_clear(zem_cache &cache) noexcept;

// Exchanges blocks and limits. Unlocked: nobody else uses either cache meanwhile.
void zem_cache_swap(zem_cache &a, zem_cache &b) noexcept ZEM_UNCHECKED_LOCKS;
