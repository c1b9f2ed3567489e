#include "base/pool.h"

#include <cstdlib>
#include <sys/mman.h>

namespace {

// From here on a block is mapped on its own: a heap that has grown hands out used memory, which
// calloc would have to clear and thereby touch.
constexpr std::size_t map_from_bytes = std::size_t{64} << 10;

}  // namespace

void *zem_pool_map(std::size_t bytes) {
  if (bytes < map_from_bytes) {
    void *const block = std::calloc(1, bytes);
    if (block == nullptr) throw std::bad_alloc();
    return block;
  }
  void *const block =
      mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block == MAP_FAILED) throw std::bad_alloc();
  return block;
}

void zem_pool_unmap(void *block, std::size_t bytes) noexcept {
  if (bytes < map_from_bytes) {
    std::free(block);
  } else {
    munmap(block, bytes);
  }
}
