#include "base/pool.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sys/mman.h>
#include <tuple>

#include "base/clock.h"
#include "base/mutex.h"

namespace {

// From here on a block is mapped on its own: a heap that has grown hands out used memory, which
// calloc would have to clear and thereby touch.
constexpr std::size_t map_from_bytes = std::size_t{64} << 10;

// Blocks from half a huge page on begin at one and take whole ones.
constexpr std::size_t huge_bytes = std::size_t{2} << 20;

std::size_t mapped_bytes(std::size_t bytes) noexcept {
  return bytes < huge_bytes / 2 ? bytes : (bytes + huge_bytes - 1) / huge_bytes * huge_bytes;
}

std::byte *map(std::size_t bytes) {
  void *const block =
      mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block == MAP_FAILED) throw std::bad_alloc();
  return static_cast<std::byte *>(block);
}

std::byte *map_aligned(std::size_t bytes) {
  std::byte *const wide = map(bytes + huge_bytes);
  const std::size_t past = reinterpret_cast<std::uintptr_t>(wide) % huge_bytes;
  const std::size_t before = past == 0 ? 0 : huge_bytes - past;
  if (before > 0) munmap(wide, before);
  munmap(wide + before + bytes, huge_bytes - before);
  return wide + before;
}

struct spare_block {
  void *block;
  std::size_t length;
};

// All pools' spare blocks.
struct {
  zem_mutex mutex{zem_lock_rank::pool};
  // Holds what zem_pool_spare_bytes allows of the smallest blocks, so that giving back needs no memory.
  std::array<spare_block, zem_pool_spare_bytes / huge_bytes> blocks ZEM_GUARDED_BY(mutex);
  std::size_t count ZEM_GUARDED_BY(mutex) = 0;
  std::size_t bytes ZEM_GUARDED_BY(mutex) = 0;
  std::uint64_t used_us ZEM_GUARDED_BY(mutex) = 0;  // when one last came or went
} spares;

void *take_spare(std::size_t length) noexcept {
  zem_lock_guard held(spares.mutex);
  for (std::size_t i = spares.count; i > 0; --i) {
    const spare_block spare = spares.blocks[i - 1];
    if (spare.length != length) continue;
    spares.blocks[i - 1] = spares.blocks[--spares.count];
    spares.bytes -= length;
    spares.used_us = zem_timer_stamp();
    return spare.block;
  }
  return nullptr;
}

bool keep_spare(void *block, std::size_t length) noexcept {
  zem_lock_guard held(spares.mutex);
  if (spares.bytes + length > zem_pool_spare_bytes) return false;
  spares.blocks[spares.count++] = {block, length};
  spares.bytes += length;
  spares.used_us = zem_timer_stamp();
  return true;
}

}  // namespace

void zem_pool_trim(std::uint64_t micros) noexcept {
  zem_lock_guard held(spares.mutex);
  if (zem_timer_stamp() - spares.used_us < micros) return;
  for (; spares.count > 0; --spares.count)
    munmap(spares.blocks[spares.count - 1].block, spares.blocks[spares.count - 1].length);
  spares.bytes = 0;
}

void *zem_pool_map(std::size_t bytes, zem_pool_pages pages) {
  if (bytes < map_from_bytes) {
    void *const block = std::calloc(1, bytes);
    if (block == nullptr) throw std::bad_alloc();
    return block;
  }
  const std::size_t length = mapped_bytes(bytes);
  if (length < huge_bytes) return map(length);
  if (pages == zem_pool_pages::small) return map_aligned(length);
  if (void *const spare = take_spare(length)) return spare;
  std::byte *const block = map_aligned(length);
  std::ignore = madvise(block, length, MADV_HUGEPAGE);
  return block;
}

void zem_pool_unmap(void *block, std::size_t bytes, zem_pool_pages pages) noexcept {
  if (bytes < map_from_bytes) return std::free(block);
  const std::size_t length = mapped_bytes(bytes);
  const bool kept =
      pages == zem_pool_pages::huge && length >= huge_bytes && keep_spare(block, length);
  if (!kept) munmap(block, length);
}
