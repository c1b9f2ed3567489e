#include "src/spx.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/clock.h"
#include "base/crc.h"

#include "src/spx_impl.h"

namespace format = zem_spx_format;

zem_status zem_spx_open(zem_spx &spx, zem_file_mode mode) { return zem_file_open(spx.file, mode); }

zem_status zem_spx_close(zem_spx &spx) noexcept { return zem_file_close(spx.file); }

void zem_spx_shrink(zem_spx &spx) noexcept {
  zem_xtree_free_all(spx.tree);
  zem_pool_term(spx.parts_pool);
  zem_cache_clear(spx.cache);
  spx.blk_num = 0;
  spx.key_num = 0;
  spx.doc_num = 0;
  spx.damaged = false;
}

void zem_spx_swap(zem_spx &a, zem_spx &b) noexcept {
  zem_xtree_swap(a.tree, b.tree);
  zem_file_swap(a.file, b.file);
  zem_cache_swap(a.cache, b.cache);
  zem_pool_swap(a.parts_pool, b.parts_pool);
  std::swap(a.blk_num, b.blk_num);
  std::swap(a.key_num, b.key_num);
  std::swap(a.doc_num, b.doc_num);
  std::swap(a.damaged, b.damaged);
}

void zem_spx_add_blk(zem_spx &spx, const zem_term &term, std::uint64_t last,
                     const zem_spx_val &val) {
  zem_spx_val *value = zem_pool_new(spx.tree.value_pool);
  *value = val;
  zem_spx_node *node = nullptr;
  const bool added = zem_xtree_node_set(spx.tree, term, last, node);
  ZEM_ASSERT(added);
  node->value = value;
  spx.key_num += val.grp_num - val.cont;
  spx.doc_num += val.rec_num;
}

namespace {

zem_status grow_for(zem_spx &spx, std::uint32_t blk_no) {
  return zem_file_expand(spx.file, zem_file_step(zem_spx_offset(blk_no) + zem_block_size));
}

zem_status seal_and_write(zem_spx &spx, std::uint32_t blk_no, std::byte kind,
                          std::span<std::byte> block) {
  block[format::kind_at] = kind;
  zem_stream_set_dword(&block[format::crc_at], zem_stream_crc32(block.subspan(format::kind_at)));
  return zem_file_write(spx.file, zem_spx_offset(blk_no), block);
}

}  // namespace

void zem_xblk_shrink(zem_xblk &xblk) noexcept {
  xblk.blk_no = format::first_data_block;
  xblk.term = {};
  xblk.last = 0;
  xblk.gpos = 0;
  xblk.num = 0;
  xblk.grp_num = 0;
  xblk.rec_num = 0;
  xblk.cont = 0;
  xblk.pos = format::groups_at;
}

namespace {

constexpr std::uint32_t blocks_between_pauses = 256;  // 16 MiB
// So much at a time is on its way to the disk while what follows is merged.
constexpr std::uint32_t blocks_between_starts = 16;  // 1 MiB

// The buffer empties only after the block is in the file and in the index: a failure on the way
// leaves it to be written again, under the same number.
zem_status write_data_block(zem_spx &spx, zem_xblk &xblk, std::uint32_t pause_ms) {
  ZEM_ASSERT(xblk.rec_num > 0);
  if (zem_status st = grow_for(spx, xblk.blk_no); st < 0) return st;
  std::memset(&xblk.bytes[0] + xblk.pos, 0, zem_block_size - xblk.pos);
  zem_stream_set_word(&xblk.bytes[format::posting_count_at], xblk.rec_num);
  zem_stream_set_word(&xblk.bytes[format::group_count_at], xblk.grp_num);
  if (zem_status st = seal_and_write(spx, xblk.blk_no, format::kind_data, xblk.bytes); st < 0)
    return st;
  zem_spx_add_blk(spx, xblk.term, xblk.last, {xblk.blk_no, xblk.grp_num, xblk.rec_num, xblk.cont});
  ++xblk.blk_no;
  xblk.num = 0;
  xblk.grp_num = 0;
  xblk.rec_num = 0;
  xblk.cont = 0;
  xblk.pos = format::groups_at;
  if (xblk.blk_no % blocks_between_starts == 0) {
    zem_file_start_sync(spx.file, zem_spx_offset(xblk.blk_no - blocks_between_starts),
                        blocks_between_starts * zem_block_size);
  }
  if (pause_ms != 0 && xblk.blk_no % blocks_between_pauses == 0) zem_timer_sleep(pause_ms);
  return zem_ok;
}

bool opens_group(const zem_xblk &xblk, const zem_term &term) {
  return xblk.rec_num == 0 || zem_xtree_compare(xblk.term, term) != 0;
}

// How many postings the block still takes. The last of them asks for more room than it fills.
std::size_t room_for(const zem_xblk &xblk, bool opens) {
  const std::size_t spare = format::posting_room - format::id_size;
  const std::size_t taken = xblk.pos + spare + (opens ? format::group_head_size : 0);
  return taken < zem_block_size ? (zem_block_size - taken) / format::id_size : 0;
}

void open_group(zem_xblk &xblk, const zem_term &term) {
  if (xblk.rec_num == 0)
    xblk.cont = xblk.blk_no > format::first_data_block && zem_xtree_same(xblk.term, term) ? 1 : 0;
  xblk.term = term;
  xblk.gpos = xblk.pos;
  xblk.num = 0;
  ++xblk.grp_num;
  zem_spx_set_term(&xblk.bytes[xblk.gpos], term);
  xblk.pos += format::group_head_size;
}

// Counts `count` postings, whose ids now end the open group.
void count_in(zem_xblk &xblk, std::size_t count) {
  xblk.pos += count * format::id_size;
  xblk.num = static_cast<std::uint16_t>(xblk.num + count);
  xblk.rec_num = static_cast<std::uint16_t>(xblk.rec_num + count);
  xblk.last = zem_stream_get_lword(&xblk.bytes[xblk.pos - format::id_size]);
  zem_stream_set_word(&xblk.bytes[xblk.gpos + format::term_size], xblk.num);
}

// Whether a posting comes after all that the file and the buffer hold.
bool in_order(const zem_spx &spx, const zem_xblk &xblk, const zem_term &term, std::uint64_t id) {
  if (xblk.rec_num == 0 && spx.tree.count == 0) return true;
  return zem_xtree_key_compare(xblk.term, xblk.last, term, id) < 0;
}

}  // namespace

zem_status zem_spx_insert(zem_spx &spx, zem_xblk &xblk, std::uint64_t id, const zem_term &term,
                          zem_mkey &mkey, std::uint32_t pause_ms) {
  ZEM_ASSERT(in_order(spx, xblk, term, id));
  bool opens = opens_group(xblk, term);
  if (room_for(xblk, opens) == 0) {
    if (zem_status st = write_data_block(spx, xblk, pause_ms); st < 0) return st;
    opens = true;
  }
  if (opens) open_group(xblk, term);
  zem_stream_set_lword(&xblk.bytes[xblk.pos], id);
  count_in(xblk, 1);
  zem_mkey_copy(mkey, term, id);
  return zem_ok;
}

zem_status zem_spx_insert_run(zem_spx &spx, zem_xblk &xblk, const zem_term &term,
                              std::span<const std::byte> ids, zem_mkey &mkey,
                              std::uint32_t pause_ms) {
  ZEM_ASSERT(ids.size() % format::id_size == 0);
  zem_status st = zem_ok;
  bool any = false;
  while (!ids.empty()) {
    const bool opens = opens_group(xblk, term);
    const std::size_t fit = std::min(room_for(xblk, opens) * format::id_size, ids.size());
    if (fit == 0) {
      st = write_data_block(spx, xblk, pause_ms);
      if (st < 0) break;
      continue;
    }
    ZEM_ASSERT(in_order(spx, xblk, term, zem_stream_get_lword(ids.data())));
    if (opens) open_group(xblk, term);
    std::memcpy(&xblk.bytes[xblk.pos], ids.data(), fit);
    count_in(xblk, fit / format::id_size);
    ids = ids.subspan(fit);
    any = true;
  }
  if (any) zem_mkey_copy(mkey, term, xblk.last);  // also of a run that got in only in part
  return st;
}

zem_status zem_spx_commit(zem_spx &spx, zem_xblk &xblk) {
  return xblk.rec_num == 0 ? zem_ok : write_data_block(spx, xblk, /*pause_ms=*/0);
}

namespace {

// The index block being filled, and where the rest of the chain goes.
struct index_writer {
  std::uint32_t data_blocks = 0;  // N
  std::uint32_t next_blk_no = 0;  // of the next block of the chain
  bool head = true;
  std::uint32_t entries = 0;
  std::size_t count_at = 0;  // of the open group's count
  std::uint16_t num = 0;     // entries in the open group; 0: none is open
  std::size_t pos = format::head_groups_at;
  std::vector<std::byte> bytes = std::vector<std::byte>(zem_block_size);
};

zem_status write_index_block(zem_spx &spx, index_writer &writer, bool last) {
  std::uint32_t blk_no = 0;
  if (writer.head) {
    zem_stream_set_dword(&writer.bytes[format::head_data_blocks_at], writer.data_blocks);
  } else {
    blk_no = writer.next_blk_no++;
    if (zem_status st = grow_for(spx, blk_no); st < 0) return st;
  }
  zem_stream_set_tword(&writer.bytes[format::entry_count_at], writer.entries);
  zem_stream_set_dword(&writer.bytes[writer.head ? format::head_next_at : format::chain_next_at],
                       last ? 0 : writer.next_blk_no);
  if (zem_status st = seal_and_write(spx, blk_no, format::kind_index, writer.bytes); st < 0)
    return st;
  writer.head = false;
  writer.entries = 0;
  writer.num = 0;
  writer.pos = format::chain_groups_at;
  std::fill(writer.bytes.begin(), writer.bytes.end(), std::byte{0});
  return zem_ok;
}

std::size_t entry_size(const zem_spx_val &val) {
  return format::id_size + zem_stream_deflate_lword_length(val.blk_no) +
         zem_stream_deflate_lword_length(val.grp_num) +
         zem_stream_deflate_lword_length(val.rec_num) + 1;
}

void append_entry(index_writer &writer, const zem_spx_node &node) {
  const zem_spx_val &val = *node.value;
  std::byte *bytes = writer.bytes.data();
  if (writer.num == 0) {
    zem_spx_set_term(bytes + writer.pos, node.term);
    writer.count_at = writer.pos + format::term_size;
    writer.pos += format::group_head_size;
  }
  zem_stream_set_word(bytes + writer.count_at, ++writer.num);
  zem_stream_set_lword(bytes + writer.pos, node.id);
  writer.pos += format::id_size;
  writer.pos += zem_stream_deflate_lword(bytes + writer.pos, val.blk_no);
  writer.pos += zem_stream_deflate_lword(bytes + writer.pos, val.grp_num);
  writer.pos += zem_stream_deflate_lword(bytes + writer.pos, val.rec_num);
  bytes[writer.pos++] = static_cast<std::byte>(val.cont);
  ++writer.entries;
}

}  // namespace

zem_status zem_spx_merge(zem_spx &spx, std::uint32_t next_blk_no) {
  ZEM_ASSERT(next_blk_no >= format::first_data_block);
  index_writer writer;
  writer.data_blocks = next_blk_no - format::first_data_block;
  writer.next_blk_no = next_blk_no;
  for (const zem_spx_node *node = zem_xtree_node_first(spx.tree); node != nullptr;
       node = node->next) {
    if (node->first != 0) writer.num = 0;
    const std::size_t need =
        entry_size(*node->value) + (writer.num == 0 ? format::group_head_size : 0);
    if (writer.pos + need > zem_block_size) {
      if (zem_status st = write_index_block(spx, writer, /*last=*/false); st < 0) return st;
    }
    append_entry(writer, *node);
  }
  if (zem_status st = write_index_block(spx, writer, /*last=*/true); st < 0) return st;
  zem_file_release(spx.file, zem_spx_offset(writer.next_blk_no));
  return zem_ok;
}

zem_status zem_spx_finish(zem_spx &spx, zem_xblk &xblk) {
  if (zem_status st = zem_spx_commit(spx, xblk); st < 0) return st;
  spx.blk_num = xblk.blk_no;
  if (zem_status st = zem_spx_merge(spx, xblk.blk_no); st < 0) return st;
  return zem_file_sync(spx.file);
}
