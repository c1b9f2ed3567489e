#include "base/pool.h"

#include <algorithm>
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

// Holds what zem_pool_spare_bytes allows of the smallest blocks, so that giving back needs no memory.
using spare_blocks = std::array<spare_block, zem_pool_spare_bytes / huge_bytes>;

// All pools' spare blocks.
struct {
  zem_mutex mutex{zem_lock_rank::pool};
  spare_blocks blocks ZEM_GUARDED_BY(mutex);  // those kept last are taken first
  std::size_t count ZEM_GUARDED_BY(mutex) = 0;
  std::size_t bytes ZEM_GUARDED_BY(mutex) = 0;
  std::size_t least ZEM_GUARDED_BY(mutex) = 0;  // how many were there all the time since `since_us`
  std::uint64_t since_us ZEM_GUARDED_BY(mutex) = 0;
} spares;

// Takes out the block at `index`.
spare_block remove_spare(std::size_t index) noexcept ZEM_REQUIRES(spares.mutex) {
  const spare_block spare = spares.blocks[index];
  std::copy(spares.blocks.begin() + index + 1, spares.blocks.begin() + spares.count,
            spares.blocks.begin() + index);
  --spares.count;
  spares.bytes -= spare.length;
  spares.least = std::min(spares.least, spares.count);
  return spare;
}

void *take_spare(std::size_t length) noexcept {
  zem_lock_guard held(spares.mutex);
  for (std::size_t i = spares.count; i > 0; --i) {
    if (spares.blocks[i - 1].length == length) return remove_spare(i - 1).block;
  }
  return nullptr;
}

bool keep_spare(void *block, std::size_t length) noexcept {
  zem_lock_guard held(spares.mutex);
  if (spares.bytes + length > zem_pool_spare_bytes) return false;
  spares.blocks[spares.count++] = {block, length};
  spares.bytes += length;
  return true;
}

// Takes out what nobody needed for `micros` microseconds and returns how many blocks that are.
std::size_t take_unneeded(std::uint64_t micros, spare_blocks &unneeded) noexcept {
  zem_lock_guard held(spares.mutex);
  const std::uint64_t now_us = zem_timer_stamp();
  if (now_us - spares.since_us < micros) return 0;
  const std::size_t taken = micros == 0 ? spares.count : spares.least;
  for (std::size_t i = 0; i < taken; ++i)
    unneeded[i] = remove_spare(0);
  spares.least = spares.count;
  spares.since_us = now_us;
  return taken;
}

}  // namespace

void zem_pool_trim(std::uint64_t micros) noexcept {
  spare_blocks unneeded;
  const std::size_t count = take_unneeded(micros, unneeded);
  for (std::size_t i = 0; i < count; ++i)
    munmap(unneeded[i].block, unneeded[i].length);
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
