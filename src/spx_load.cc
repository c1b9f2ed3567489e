#include "src/spx.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>

#include "base/crc.h"
#include "base/scope.h"

#include "src/spx_impl.h"

namespace format = zem_spx_format;

namespace {

constexpr zem_status bad_checksum{ZEM_SDB_E_CHECKSUM};
constexpr zem_status bad_kind{ZEM_SDB_E_KIND};

bool is_damage(zem_status st) { return st == bad_checksum || st == bad_kind; }

zem_status check_seal(std::span<const std::byte> block, std::byte kind) {
  const std::uint32_t stored = zem_stream_get_dword(&block[format::crc_at]);
  if (stored != zem_stream_crc32(block.subspan(format::kind_at))) return bad_checksum;
  return block[format::kind_at] == kind ? zem_ok : bad_kind;
}

// Whether `count` doc ids fall from one to the next.
bool ids_descend(const std::byte *ids, std::size_t count) {
  bool good = true;
  std::uint64_t before = zem_stream_get_lword(ids);
  for (std::size_t i = 1; i < count; ++i) {
    const std::uint64_t id = zem_stream_get_lword(ids + i * format::id_size);
    good &= id < before;
    before = id;
  }
  return good;
}

// Whether at `pos` a data group lies inside the block, with its ids in order and its term after
// that of the group before, unless that is null.
bool valid_group(const zem_block &block, std::size_t pos, const std::byte *before) {
  if (zem_block_size - pos < format::group_head_size) return false;
  const std::byte *group = &block.bytes[pos];
  const std::size_t count = zem_spx_get_count(group);
  const std::size_t room = (zem_block_size - pos - format::group_head_size) / format::id_size;
  if (count == 0 || count > room) return false;
  if (before != nullptr &&
      zem_xtree_compare(zem_spx_get_term(before), zem_spx_get_term(group)) >= 0)
    return false;
  return ids_descend(zem_spx_get_ids(group), count);
}

// Fills in the directory of a data block's groups. False when the block is not well formed.
bool build_directory(zem_block &block) {
  const std::size_t group_count = zem_stream_get_word(&block.bytes[format::group_count_at]);
  if (group_count == 0 || group_count > format::groups_max) return false;
  block.groups.resize(group_count);
  std::size_t pos = format::groups_at;
  std::size_t postings = 0;
  const std::byte *before = nullptr;
  for (std::uint16_t &group : block.groups) {
    if (!valid_group(block, pos, before)) return false;
    group = static_cast<std::uint16_t>(pos);
    before = &block.bytes[pos];
    const std::size_t count = zem_spx_get_count(before);
    postings += count;
    pos += format::group_head_size + count * format::id_size;
  }
  return postings == zem_stream_get_word(&block.bytes[format::posting_count_at]);
}

struct posting_key {
  zem_term term;
  std::uint64_t id;
};

posting_key first_key(const zem_block &block) {
  const std::byte *group = &block.bytes[block.groups.front()];
  return {zem_spx_get_term(group), zem_stream_get_lword(zem_spx_get_ids(group))};
}

posting_key last_key(const zem_block &block) {
  const std::byte *group = &block.bytes[block.groups.back()];
  const std::size_t last = zem_spx_get_count(group) - std::size_t{1};
  return {zem_spx_get_term(group),
          zem_stream_get_lword(zem_spx_get_ids(group) + last * format::id_size)};
}

bool key_follows(const zem_spx_node *before, const posting_key &key) {
  return before == nullptr || zem_xtree_key_compare(before->term, before->id, key.term, key.id) < 0;
}

// Whether a well-formed block is the one that the index describes.
bool matches_entry(const zem_block &block, const zem_spx_node &node) {
  const posting_key first = first_key(block);
  const posting_key last = last_key(block);
  const bool continues = node.prev != nullptr && zem_xtree_same(node.prev->term, first.term);
  return block.groups.size() == node.value->grp_num &&
         zem_stream_get_word(&block.bytes[format::posting_count_at]) == node.value->rec_num &&
         continues == (node.value->cont != 0) && zem_xtree_same(last.term, node.term) &&
         last.id == node.id && key_follows(node.prev, first);
}

}  // namespace

zem_status zem_spx_read_blk(const zem_spx &spx, const zem_spx_node &node, zem_block &block) {
  const std::uint64_t offset = zem_spx_offset(node.value->blk_no);
  if (zem_status st = zem_file_read(spx.file, offset, block.bytes); st < 0) return st;
  if (zem_status st = check_seal(block.bytes, format::kind_data); st < 0) return st;
  return build_directory(block) && matches_entry(block, node) ? zem_ok : bad_checksum;
}

namespace {

// What the walk over the index chain learned, for the rebuild to use when it failed.
struct index_walk {
  std::uint32_t blk_no = 0;       // of the block being read
  bool head_good = false;         // checksum and kind of the head are right
  std::uint32_t data_blocks = 0;  // N, from a good head
};

// Reads the entry at `pos` and moves behind it. False when it is cut off or describes no block.
bool read_entry(std::span<const std::byte> block, std::size_t &pos, std::uint64_t &id,
                zem_spx_val &val) {
  if (block.size() - pos < format::id_size) return false;
  id = zem_stream_get_lword(&block[pos]);
  pos += format::id_size;
  std::uint64_t blk_no = 0;
  std::uint64_t groups = 0;
  std::uint64_t postings = 0;
  if (!zem_stream_inflate_lword(block, pos, blk_no) ||
      !zem_stream_inflate_lword(block, pos, groups) ||
      !zem_stream_inflate_lword(block, pos, postings) || pos == block.size())
    return false;
  const auto cont = std::to_integer<std::uint16_t>(block[pos++]);
  if (blk_no > std::numeric_limits<std::uint32_t>::max() || groups == 0 || postings < groups ||
      postings > format::postings_max || cont > 1)
    return false;
  val = {static_cast<std::uint32_t>(blk_no), static_cast<std::uint16_t>(groups),
         static_cast<std::uint16_t>(postings), cont};
  return true;
}

// Whether an entry may follow those in the index. A block of one group which continues the term
// before is exactly a block whose last posting has that term, too.
bool fits_index(const zem_spx &spx, const posting_key &key, const zem_spx_val &val) {
  const zem_spx_node *before = zem_xtree_node_last(spx.tree);
  if (val.blk_no != static_cast<std::uint64_t>(spx.tree.count) + format::first_data_block)
    return false;
  if (before == nullptr) return val.cont == 0;
  const bool same_term = zem_xtree_same(before->term, key.term);
  return key_follows(before, key) && same_term == (val.cont == 1 && val.grp_num == 1);
}

// Enters what an index block holds in the index. False when it is not well formed.
bool read_entries(zem_spx &spx, std::span<const std::byte> block, std::size_t pos) {
  std::uint32_t left = zem_stream_get_tword(&block[format::entry_count_at]);
  while (left > 0) {
    if (block.size() - pos < format::group_head_size) return false;
    posting_key key{zem_spx_get_term(&block[pos]), 0};
    const std::uint16_t count = zem_spx_get_count(&block[pos]);
    pos += format::group_head_size;
    if (count == 0 || count > left) return false;
    for (std::uint16_t i = 0; i < count; ++i) {
      zem_spx_val val{};
      if (!read_entry(block, pos, key.id, val) || !fits_index(spx, key, val)) return false;
      zem_spx_add_blk(spx, key.term, key.id, val);
    }
    left -= count;
  }
  return true;
}

// Reads the chain of index blocks. The damage it meets lies in block `walk.blk_no`.
zem_status read_chain(zem_spx &spx, index_walk &walk, std::span<std::byte> block) {
  const std::uint64_t file_blocks = spx.file.size / zem_block_size;
  std::uint32_t chain_next = 0;
  while (true) {
    if (zem_status st = zem_file_read(spx.file, zem_spx_offset(walk.blk_no), block); st < 0)
      return st;
    if (zem_status st = check_seal(block, format::kind_index); st < 0) return st;
    const bool head = walk.blk_no == 0;
    if (head) {
      walk.head_good = true;
      walk.data_blocks = zem_stream_get_dword(&block[format::head_data_blocks_at]);
      if (walk.data_blocks >= file_blocks) return bad_checksum;
      chain_next = walk.data_blocks + format::first_data_block;
    }
    if (!read_entries(spx, block, head ? format::head_groups_at : format::chain_groups_at))
      return bad_checksum;
    const std::uint32_t next =
        zem_stream_get_dword(&block[head ? format::head_next_at : format::chain_next_at]);
    if (next == 0) break;
    if (next != chain_next || next >= file_blocks) return bad_checksum;
    walk.blk_no = chain_next++;
  }
  spx.blk_num = walk.data_blocks;
  return static_cast<std::uint64_t>(spx.tree.count) == walk.data_blocks ? zem_ok : bad_checksum;
}

bool all_zero(std::span<const std::byte> bytes) {
  return bytes[0] == std::byte{0} &&
         std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0;
}

// Data blocks that a rebuild could not take.
struct lost_blocks {
  std::uint64_t count = 0;
  std::uint32_t first = 0;

  void add(std::uint32_t blk_no, std::uint64_t more = 1) {
    if (count == 0) first = blk_no;
    count += more;
  }
};

// Enters a data block in the index that is being rebuilt. False when it is damaged.
bool take_block(zem_spx &spx, std::uint32_t blk_no, zem_block &block) {
  if (check_seal(block.bytes, format::kind_data) < 0 || !build_directory(block)) return false;
  const zem_spx_node *before = zem_xtree_node_last(spx.tree);
  const posting_key first = first_key(block);
  if (!key_follows(before, first)) return false;
  const std::uint16_t cont = before != nullptr && zem_xtree_same(before->term, first.term) ? 1 : 0;
  const posting_key last = last_key(block);
  zem_spx_add_blk(spx, last.term, last.id,
                  {blk_no, zem_stream_get_word(&block.bytes[format::group_count_at]),
                   zem_stream_get_word(&block.bytes[format::posting_count_at]), cont});
  spx.blk_num = blk_no;
  return true;
}

// Makes the index anew from the data blocks of the file.
//
// With a good head, a block up to N that is no valid data block is lost. Without one nobody knows
// N: the first good index block ends the data then, and zeros at the end were never written.
zem_status rebuild(zem_spx &spx, const index_walk &walk, zem_block &block, lost_blocks &lost) {
  const std::uint64_t file_blocks = (spx.file.size + zem_block_size - 1) / zem_block_size;
  const auto end = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(file_blocks, std::numeric_limits<std::uint32_t>::max()));
  bool index_seen = false;
  std::uint32_t zeros = 0;  // blocks in a row right before `blk_no`, while N is not known
  for (std::uint32_t blk_no = format::first_data_block; blk_no < end; ++blk_no) {
    if (zem_status st = zem_file_read(spx.file, zem_spx_offset(blk_no), block.bytes); st < 0)
      return st;
    if (take_block(spx, blk_no, block)) {
      if (zeros > 0) lost.add(blk_no - zeros, zeros);
      zeros = 0;
    } else if (walk.head_good) {
      if (blk_no <= walk.data_blocks) lost.add(blk_no);
    } else if (all_zero(block.bytes)) {
      ++zeros;
    } else {
      index_seen = index_seen || check_seal(block.bytes, format::kind_index) == zem_ok;
      if (!index_seen) lost.add(blk_no);
    }
  }
  if (walk.head_good && walk.data_blocks >= end)
    lost.add(end, std::uint64_t{walk.data_blocks} - end + 1);
  return zem_ok;
}

// Takes the place of a damaged index.
zem_status replace_index(zem_spx &spx, const index_walk &walk, zem_status damage, zem_block &block,
                         zem_err *err) {
  const char *name = spx.file.name.c_str();
  zem_err_log(err, 0, "%s, block %u: data index %s, rebuilding it from the data blocks", name,
              walk.blk_no, damage == bad_kind ? "of a wrong kind" : "damaged");
  zem_spx_shrink(spx);
  lost_blocks lost;
  if (zem_status st = rebuild(spx, walk, block, lost); st < 0) return st;
  spx.damaged = lost.count > 0;
  if (spx.damaged)
    zem_err_log(err, 0, "%s, block %u: first of %llu damaged data blocks, whose postings are lost",
                name, lost.first, static_cast<unsigned long long>(lost.count));
  return damage;
}

bool never_written(const zem_spx &spx, std::span<const std::byte> head) {
  return spx.file.size <= zem_block_size && all_zero(head);
}

}  // namespace

zem_status zem_spx_load(zem_spx &spx, zem_mkey &mkey, zem_err *err) {
  ZEM_ASSERT(spx.tree.count == 0);
  zem_on_exit empty([&] { zem_spx_shrink(spx); });
  const auto block = std::make_unique_for_overwrite<zem_block>();
  index_walk walk;
  zem_status st = read_chain(spx, walk, block->bytes);
  if (is_damage(st)) {
    if (walk.blk_no == 0 && never_written(spx, block->bytes)) return zem_ok;
    st = replace_index(spx, walk, st, *block, err);
  }
  if (st < 0 && !is_damage(st)) return st;

  empty.release();
  if (const zem_spx_node *last = zem_xtree_node_last(spx.tree); last != nullptr)
    zem_mkey_copy(mkey, last->term, last->id);
  return st;
}
