#include "base/pool.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sys/mman.h>
#include <tuple>

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

}  // namespace

void *zem_pool_map(std::size_t bytes, zem_pool_pages pages) {
  if (bytes < map_from_bytes) {
    void *const block = std::calloc(1, bytes);
    if (block == nullptr) throw std::bad_alloc();
    return block;
  }
  const std::size_t length = mapped_bytes(bytes);
  if (length < huge_bytes) return map(length);
  std::byte *const block = map_aligned(length);
  if (pages == zem_pool_pages::huge) std::ignore = madvise(block, length, MADV_HUGEPAGE);
  return block;
}

void zem_pool_unmap(void *block, std::size_t bytes) noexcept {
  if (bytes < map_from_bytes) {
    std::free(block);
  } else {
    munmap(block, mapped_bytes(bytes));
  }
}
