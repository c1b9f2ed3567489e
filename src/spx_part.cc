#include "src/spx_part.h"

#include <atomic>

#include "base/crc.h"

#include "src/spx_impl.h"

namespace format = zem_spx_format;

namespace {

// How much is read of one block in parts before it is cached again: sixteen times the block. Less would make
// more queries wait for whole blocks, which leave the cache again before that paid.
constexpr std::uint32_t bytes_before_caching = 16 * zem_block_size;

const zem_spx_parts *parts_of(const zem_spx_node &node) noexcept {
  return std::atomic_ref(node.value->parts).load(std::memory_order_acquire);
}

std::size_t end_of(const zem_spx_parts &parts, std::size_t index) noexcept {
  return index + 1 < parts.count ? parts.list[index + 1].at : parts.end;
}

std::size_t size_of(const zem_spx_parts &parts, std::size_t index) noexcept {
  return end_of(parts, index) - parts.list[index].at;
}

// Behind the last id of a group.
const std::byte *end_of_group(const std::byte *head) noexcept {
  return zem_spx_get_ids(head) + zem_spx_get_count(head) * format::id_size;
}

void divide(zem_spx_parts &parts, const zem_block &block) noexcept {
  std::size_t page = zem_spx_parts::most;  // none
  for (const std::uint16_t at : block.groups) {
    if (at / zem_spx_parts::page_size == page) continue;
    page = at / zem_spx_parts::page_size;
    parts.list[parts.count++] = {.term = zem_spx_get_term(&block.bytes[at]), .crc = 0, .at = at};
  }
  const std::byte *end = end_of_group(&block.bytes[block.groups.back()]);
  parts.end = static_cast<std::uint32_t>(end - block.bytes.data());
  for (std::size_t i = 0; i < parts.count; ++i) {
    const auto bytes = std::span(block.bytes).subspan(parts.list[i].at, size_of(parts, i));
    parts.list[i].crc = zem_stream_crc32(bytes);
  }
}

}  // namespace

void zem_spx_part_learn(const zem_spx &spx, const zem_spx_node &node, const zem_block &block) {
  if (const zem_spx_parts *known = parts_of(node)) {
    known->bytes = 0;
    return;
  }
  zem_lock_guard held(spx.parts_mutex);
  if (parts_of(node) != nullptr) return;
  zem_spx_parts *parts = zem_pool_new(spx.parts_pool);
  divide(*parts, block);
  std::atomic_ref(node.value->parts).store(parts, std::memory_order_release);
}

bool zem_spx_part_find(const zem_spx_node &node, const zem_term &term,
                       std::size_t &index) noexcept {
  const zem_spx_parts *parts = parts_of(node);
  if (parts == nullptr) return false;
  std::size_t low = 0;
  std::size_t high = parts->count;
  while (high - low > 1) {
    const std::size_t mid = (low + high) / 2;
    (zem_xtree_compare(parts->list[mid].term, term) <= 0 ? low : high) = mid;
  }
  index = low;
  const auto size = static_cast<std::uint32_t>(size_of(*parts, index));
  return parts->count > 1 &&
         parts->bytes.fetch_add(size, std::memory_order_relaxed) < bytes_before_caching;
}

zem_status zem_spx_part_read(const zem_spx &spx, const zem_spx_node &node, std::size_t index,
                             const zem_term &term, std::unique_ptr<std::byte[]> &buffer,
                             zem_spx_group &group) {
  const zem_spx_parts &parts = *parts_of(node);
  const std::size_t at = parts.list[index].at;
  const std::size_t size = size_of(parts, index);
  buffer = std::make_unique_for_overwrite<std::byte[]>(size);
  const std::span<std::byte> bytes(buffer.get(), size);
  const std::uint64_t offset = zem_spx_offset(node.value->blk_no) + at;
  if (zem_status st = zem_file_read(spx.file, offset, bytes); st < 0) return st;
  if (zem_stream_crc32(bytes) != parts.list[index].crc) return zem_status{ZEM_SDB_E_CHECKSUM};

  const std::byte *const end = bytes.data() + bytes.size();
  for (const std::byte *head = bytes.data(); head != end; head = end_of_group(head)) {
    const int order = zem_xtree_compare(zem_spx_get_term(head), term);
    if (order > 0) break;
    if (order < 0) continue;
    group.head = head;
    group.first = at == format::groups_at && head == bytes.data();
    group.last = index + 1 == parts.count && end_of_group(head) == end;
    break;
  }
  return zem_ok;
}
