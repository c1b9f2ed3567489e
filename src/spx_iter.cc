#include "src/spx_iter.h"

#include <algorithm>
#include <utility>

#include "src/spx_impl.h"

namespace format = zem_spx_format;

namespace {

void stand_on_nothing(zem_xiter &it) {
  it.at = nullptr;
  it.end = nullptr;
}

// Stands on posting `index` of a group.
void stand_in(zem_xiter &it, const zem_spx_group &group, std::size_t index) {
  const std::byte *ids = zem_spx_get_ids(group.head);
  it.at = ids + index * format::id_size;
  it.end = ids + zem_spx_get_count(group.head) * format::id_size;
  it.term = zem_spx_get_term(group.head);
  it.doc = zem_stream_get_lword(it.at);
  it.first = index == 0 && (!group.first || it.node->value->cont == 0);
  it.last_group = group.last;
}

// The same for group `group` of the current block.
void stand_on(zem_xiter &it, std::size_t group, std::size_t index) {
  const auto &groups = it.block->groups;
  it.group = static_cast<std::uint32_t>(group);
  stand_in(it, {&it.block->bytes[groups[group]], group == 0, group + 1 == groups.size()}, index);
}

bool fetch_cached(const zem_spx &spx, zem_xiter &it, const zem_spx_node &node) {
  it.node = &node;
  it.block = zem_cache_read(spx.cache, node.value->blk_no);
  return it.block != nullptr;
}

zem_status fetch_from_file(const zem_spx &spx, zem_xiter &it, const zem_spx_node &node) {
  auto block = std::make_shared_for_overwrite<zem_block>();
  if (zem_status st = zem_spx_read_blk(spx, node, *block); st < 0) return st;
  zem_spx_part_learn(spx, node, *block);
  zem_cache_write(spx.cache, node.value->blk_no, block);
  zem_cache_trim(spx.cache);  // a walk of a whole file must not keep it all
  it.block = std::move(block);
  return zem_ok;
}

// Gets the block of `node` from the cache, or from the file into the cache.
zem_status fetch(const zem_spx &spx, zem_xiter &it, const zem_spx_node &node) {
  return fetch_cached(spx, it, node) ? zem_ok : fetch_from_file(spx, it, node);
}

// Reads the block of `node` into the cursor's own buffer and stands on its first posting. After a
// failure `it.node` tells which block it was.
zem_status scan_block(const zem_spx &spx, zem_xiter &it, const zem_spx_node *node) {
  stand_on_nothing(it);
  if (node == nullptr) return zem_ok;
  if (it.buffer == nullptr) it.buffer = std::make_shared_for_overwrite<zem_block>();
  it.node = node;
  if (zem_status st = zem_spx_read_blk(spx, *node, *it.buffer); st < 0) return st;
  it.block = it.buffer;
  stand_on(it, 0, 0);
  return zem_ok;
}

// The first group whose term is not before `term`.
std::size_t find_group(const zem_block &block, const zem_term &term) {
  const auto found =
      std::lower_bound(block.groups.begin(), block.groups.end(), term,
                       [&](std::uint16_t group, const zem_term &key) {
                         return zem_xtree_compare(zem_spx_get_term(&block.bytes[group]), key) < 0;
                       });
  return static_cast<std::size_t>(found - block.groups.begin());
}

// The term's group in the current block.
zem_spx_group group_of(const zem_xiter &it, const zem_term &term) {
  const auto &groups = it.block->groups;
  const std::size_t group = find_group(*it.block, term);
  if (group == groups.size()) return {};
  const std::byte *head = &it.block->bytes[groups[group]];
  if (!zem_xtree_same(zem_spx_get_term(head), term)) return {};
  return {head, group == 0, group + 1 == groups.size()};
}

// Finds the term's group in a block that can hold it: in the cached block, in a part of it read from the
// file, or in the whole block, which is cached then.
zem_status fetch_group(const zem_spx &spx, zem_xiter &it, const zem_spx_node &node,
                       const zem_term &term, zem_spx_group &group) {
  if (!fetch_cached(spx, it, node)) {
    std::size_t part = 0;
    if (zem_spx_part_find(node, term, part))
      return zem_spx_part_read(spx, node, part, term, it.part, group);
    if (zem_status st = fetch_from_file(spx, it, node); st < 0) return st;
  }
  group = group_of(it, term);
  return zem_ok;
}

// The first of `count` descending ids that is not above `id`, or `count`.
std::size_t find_id(const std::byte *ids, std::size_t count, std::uint64_t id) {
  std::size_t low = 0;
  while (low < count) {
    const std::size_t middle = (low + count) / 2;
    if (zem_stream_get_lword(ids + middle * format::id_size) > id) {
      low = middle + 1;
    } else {
      count = middle;
    }
  }
  return low;
}

}  // namespace

zem_status zem_spx_iter_first(const zem_spx &spx, zem_xiter &it) {
  stand_on_nothing(it);
  const zem_spx_node *node = zem_xtree_node_first(spx.tree);
  if (node == nullptr) return zem_ok;
  if (zem_status st = fetch(spx, it, *node); st < 0) return st;
  stand_on(it, 0, 0);
  return zem_yes;
}

zem_status zem_spx_iter_find_x(const zem_spx &spx, zem_xiter &it, const zem_term &term,
                               std::uint64_t id) {
  stand_on_nothing(it);
  bool past_end = false;
  const zem_spx_node *node = zem_xtree_node_bfind(spx.tree, term, id, &past_end);
  if (node == nullptr || past_end) return zem_ok;
  zem_spx_group group;
  if (zem_status st = fetch_group(spx, it, *node, term, group); st < 0) return st;
  if (group.head == nullptr) return zem_ok;
  const std::size_t count = zem_spx_get_count(group.head);
  const std::size_t index = find_id(zem_spx_get_ids(group.head), count, id);
  if (index == count) return zem_ok;  // the term ends with this group: the key is in this block
  stand_in(it, group, index);
  return zem_yes;
}

zem_status zem_spx_iterd_first(const zem_spx &spx, zem_xiter &it) {
  return scan_block(spx, it, zem_xtree_node_first(spx.tree));
}

namespace {

// Whether the term of the block before goes on in the whole of this one.
bool is_continuation(const zem_spx_node &node) noexcept {
  return node.value->cont != 0 && node.value->grp_num <= 1;
}

std::size_t run_size(const zem_xiter &it) noexcept {
  return zem_xiter_run(it).size() / format::id_size;
}

}  // namespace

zem_status zem_spx_iter_next_group(const zem_spx &spx, zem_xiter &it) {
  return zem_spx_iter_pass(spx, it, run_size(it));
}

zem_status zem_spx_iter_pass(const zem_spx &spx, zem_xiter &it, std::uint64_t count) {
  while (zem_xiter_stands(it) && count > 0) {
    const std::size_t run = run_size(it);
    if (count < run) {
      zem_xiter_move(it, count);
      break;
    }
    count -= run;
    const bool last_group = it.last_group;
    stand_on_nothing(it);
    const zem_spx_node *next = it.node->next;
    if (!last_group) return zem_ok;
    for (; next != nullptr && is_continuation(*next) && count >= next->value->rec_num;
         next = next->next)
      count -= next->value->rec_num;
    if (next == nullptr || next->value->cont == 0) return zem_ok;
    if (zem_status st = fetch(spx, it, *next); st < 0) return st;
    stand_on(it, 0, 0);
  }
  return zem_xiter_stands(it) ? zem_yes : zem_ok;
}

namespace {

// Terms that begin in the block.
std::uint64_t terms_begun(const zem_spx_node &node) noexcept {
  return std::uint64_t{node.value->grp_num} - (node.value->cont != 0 ? 1 : 0);
}

}  // namespace

zem_status zem_spx_iterd_find_x(const zem_spx &spx, zem_xiter &it, std::uint64_t index) {
  stand_on_nothing(it);
  const zem_spx_node *node = zem_xtree_node_first(spx.tree);
  for (; node != nullptr && terms_begun(*node) <= index; node = node->next)
    index -= terms_begun(*node);
  if (node == nullptr) return zem_ok;
  if (zem_status st = fetch(spx, it, *node); st < 0) return st;
  stand_on(it, index + (node->value->cont != 0 ? 1 : 0), 0);
  return zem_ok;
}

zem_status zem_spx_iterd_next_x(const zem_spx &spx, zem_xiter &it, std::uint64_t &count,
                                zem_var *ids, std::size_t most) {
  count = 0;
  while (zem_xiter_stands(it)) {
    const std::size_t run = run_size(it);
    if (ids != nullptr && count < most) {
      const std::size_t shown = std::min<std::size_t>(run, most - count);
      zem_var_append_lwords(*ids, zem_xiter_run(it).first(shown * format::id_size), 0);
    }
    count += run;
    if (!it.last_group) {
      stand_on(it, it.group + 1, 0);
      return zem_yes;
    }
    stand_on_nothing(it);
    const zem_spx_node *next = it.node->next;
    for (; next != nullptr && is_continuation(*next) && (ids == nullptr || count >= most);
         next = next->next)
      count += next->value->rec_num;
    if (next == nullptr) return zem_ok;
    if (zem_status st = fetch(spx, it, *next); st < 0) return st;
    stand_on(it, 0, 0);
    if (it.first) return zem_yes;
  }
  return zem_ok;
}

zem_status zem_spx_term_index(const zem_spx &spx, const zem_term &term, std::uint64_t &index) {
  bool past_end = false;
  const zem_spx_node *found = zem_xtree_node_bfind(spx.tree, term, zem_id_first, &past_end);
  if (found == nullptr || past_end) return zem_ok;
  std::uint64_t before = 0;
  for (const zem_spx_node *node = zem_xtree_node_first(spx.tree); node != found; node = node->next)
    before += terms_begun(*node);
  zem_xiter it;
  if (zem_status st = fetch(spx, it, *found); st < 0) return st;
  index = before + find_group(*it.block, term) - (found->value->cont != 0 ? 1 : 0);
  return zem_yes;
}

zem_status zem_spx_iterd_next_group(const zem_spx &spx, zem_xiter &it) {
  if (it.last_group) return scan_block(spx, it, it.node->next);
  stand_on(it, it.group + 1, 0);
  return zem_ok;
}
