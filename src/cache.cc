#include "src/cache.h"

#include <utility>

namespace {

constexpr std::size_t blocks_a_mib = (std::size_t{1} << 20) / zem_block_size;

// Blocks at which a trim starts, and below which it stops: three quarters of the limit.
constexpr std::size_t trim_from(std::uint32_t limit_mib) { return limit_mib * blocks_a_mib; }
constexpr std::size_t trim_below(std::uint32_t limit_mib) {
  return limit_mib * (blocks_a_mib / 4 * 3);
}

}  // namespace

std::shared_ptr<const zem_block> zem_cache_read(zem_cache &cache, std::uint32_t blk_no) {
  zem_lock_guard held(cache.mutex);
  const auto found = cache.map.find(blk_no);
  if (found == cache.map.end()) return nullptr;
  cache.lru.splice(cache.lru.end(), cache.lru, found->second);
  return found->second->block;
}

void zem_cache_write(zem_cache &cache, std::uint32_t blk_no,
                     std::shared_ptr<const zem_block> block) {
  std::list<zem_cache_entry> entry;
  entry.push_back({blk_no, std::move(block)});
  zem_lock_guard held(cache.mutex);
  const bool added = cache.map.try_emplace(blk_no, entry.begin()).second;
  if (added) cache.lru.splice(cache.lru.end(), entry);
}

void zem_cache_trim(zem_cache &cache) {
  std::list<zem_cache_entry> evicted;  // outlives the lock: freeing blocks needs none
  zem_lock_guard held(cache.mutex);
  if (cache.limit == 0 || cache.lru.size() < trim_from(cache.limit)) return;
  while (cache.lru.size() >= trim_below(cache.limit)) {
    cache.map.erase(cache.lru.front().blk_no);
    evicted.splice(evicted.end(), cache.lru, cache.lru.begin());
  }
}

void zem_cache_clear(zem_cache &cache) noexcept {
  std::list<zem_cache_entry> dropped;  // outlives the lock, as in a trim
  zem_lock_guard held(cache.mutex);
  cache.map.clear();
  dropped.swap(cache.lru);
}

void zem_cache_swap(zem_cache &a, zem_cache &b) noexcept {
  a.map.swap(b.map);
  a.lru.swap(b.lru);
  std::swap(a.limit, b.limit);
}
