// The ordered tree: the one in-memory ordered map of the library. It keeps posting keys (a term and
// a doc id) in order and hangs a record of the owner's type on each.
//
// Keys run by term ascending and, within one term, by doc id descending. The tree is a B+-tree of
// fan-out 32: an entry of level 0 holds nodes, one for each key, and an entry of level n holds
// entries of level n - 1. An insertion that fills an entry splits it into two of 16. Every node is
// also chained to its neighbours, so a scan follows `next` and never returns to the entries, and
// the first node of each term is marked.
//
// Keys are only added; the tree is emptied as a whole, by letting its pools go. Nodes and values
// stay where they are until then.
//
// Takes no locks. The owner serialises access: readers may run together while nobody writes.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "base/assert.h"
#include "base/pool.h"

#include "src/xarray.h"

using zem_term = std::array<std::uint32_t, 3>;

// A search with this id stands before every key of its term. As a stored id it is one like any
// other: the largest, hence its term's first.
inline constexpr std::uint64_t zem_id_first = ~std::uint64_t{0};

// The order of terms: word 0 decides, then word 1, then word 2. -1, 0 or 1.
inline int zem_xtree_compare(const zem_term &a, const zem_term &b) noexcept;

// Whether two terms are equal, word by word: the array's own comparison would call memcmp.
inline bool zem_xtree_same(const zem_term &a, const zem_term &b) noexcept {
  return ((a[0] ^ b[0]) | (a[1] ^ b[1]) | (a[2] ^ b[2])) == 0;
}

// The order of keys, in which every id, all ones too, is compared as it is. -1, 0 or 1.
inline int zem_xtree_key_compare(const zem_term &term_a, std::uint64_t id_a, const zem_term &term_b,
                                 std::uint64_t id_b) noexcept;

// One key of the tree. All but `value` belongs to the tree.
template <class Value>
struct zem_xnode {
  zem_term term;
  std::uint16_t first;  // 1 when the first node of its term, else 0
  std::uint64_t id;
  zem_xnode *prev;  // null for the tree's first node
  zem_xnode *next;  // null for its last
  Value *value;     // null until the owner hangs a record of `value_pool` here
};

template <class Value>
struct zem_xentry;

// What an entry holds: nodes at level 0, entries above.
template <class Value>
union zem_xitem {
  zem_xnode<Value> *node;
  zem_xentry<Value> *entry;
};

template <class Value>
struct zem_xentry {
  std::uint32_t level = 0;
  zem_xentry *parent = nullptr;  // null for the root
  // Between operations 16 to 31; in the root 1 to 31, at level 1 and up 2 to 31. The key beside an
  // entry is that of the last node in it, but at the end of the tree the greatest key there can be,
  // so that what is added there moves no key above.
  zem_xarray<zem_xitem<Value>> items;
};

template <class Value>
struct zem_xtree {
  // An entry holds 16 items or more, as a rule more than 20, so a twentieth as many a block keep pace
  // with the nodes.
  explicit zem_xtree(std::size_t units_a_block)
      : entry_pool(units_a_block < 20 ? 1 : units_a_block / 20),
        node_pool(units_a_block),
        value_pool(units_a_block) {}

  std::int64_t count = 0;               // nodes
  zem_xentry<Value> *root = nullptr;    // null while there are none
  zem_xentry<Value> *finger = nullptr;  // the level-0 entry to look in first, null like `root`
  zem_pool<zem_xentry<Value>> entry_pool;
  zem_pool<zem_xnode<Value>> node_pool;
  zem_pool<Value> value_pool;  // the owner takes its values here
};

// Finds or makes the node of a key. True when it is new; its value is null then, and `alone`, if given,
// tells whether it is the only one of its term.
//
// Throws std::bad_alloc, which leaves the tree as it was.
template <class Value>
bool zem_xtree_node_set(zem_xtree<Value> &tree, const zem_term &term, std::uint64_t id,
                        zem_xnode<Value> *&node, bool *alone = nullptr);

// For a walk: starts fetching what lies behind the node. The nodes of a batch were made in key order and
// lie side by side, so a walk, which goes through many batches by turns, is to come to them.
template <class Value>
void zem_xtree_prefetch_behind(const zem_xnode<Value> &node) noexcept {
  constexpr std::size_t line = 64;
  __builtin_prefetch(reinterpret_cast<const char *>(&node) + 2 * line);
  __builtin_prefetch(reinterpret_cast<const char *>(node.value) + line);
}

// Where keys that are about to be inserted belong, entries of level 0; null in a tree without nodes.
inline constexpr std::size_t zem_xtree_flight = 8;
template <class Value>
using zem_xtree_places = std::array<zem_xentry<Value> *, zem_xtree_flight>;

// Looks for the places of these keys, zem_xtree_flight at most, side by side, and starts fetching what
// their insertions are going to touch, so that their cache misses overlap instead of following one
// another. Places hold until the tree is emptied; insertions meanwhile may move a key's own a little on.
template <class Value>
zem_xtree_places<Value> zem_xtree_prefetch(const zem_xtree<Value> &tree,
                                           std::span<const zem_xkey> keys) noexcept;

// The next insertion looks near this place first.
template <class Value>
void zem_xtree_turn_to(zem_xtree<Value> &tree, zem_xentry<Value> *place) noexcept {
  ZEM_ASSERT(place == nullptr || place->level == 0);
  if (place != nullptr) tree.finger = place;
}

// The node of exactly this key, or null.
template <class Value>
zem_xnode<Value> *zem_xtree_node_get(const zem_xtree<Value> &tree, const zem_term &term,
                                     std::uint64_t id) noexcept;

// The first node that is not before the key. When all are before it, the tree's last node, and
// `past_end`, if given, becomes true (it is never set to false). Null when the tree is empty.
template <class Value>
zem_xnode<Value> *zem_xtree_node_bfind(const zem_xtree<Value> &tree, const zem_term &term,
                                       std::uint64_t id, bool *past_end = nullptr) noexcept;

// The first and the last node in key order, null when the tree is empty.
template <class Value>
zem_xnode<Value> *zem_xtree_node_first(const zem_xtree<Value> &tree) noexcept;
template <class Value>
zem_xnode<Value> *zem_xtree_node_last(const zem_xtree<Value> &tree) noexcept;

// Empties the tree and gives the pools' blocks back. It stays usable.
template <class Value>
void zem_xtree_free_all(zem_xtree<Value> &tree) noexcept;

// Empties the tree and keeps a block of each pool, for one that is about to be filled again.
template <class Value>
void zem_xtree_clear(zem_xtree<Value> &tree) noexcept;

// Exchanges all contents. Nodes and values stay where they are.
template <class Value>
void zem_xtree_swap(zem_xtree<Value> &a, zem_xtree<Value> &b) noexcept;

// Bytes of the three pools' blocks.
template <class Value>
std::uint64_t zem_xtree_msize(const zem_xtree<Value> &tree) noexcept;

// Walks everything: shape, order, links, marks. For tests.
template <class Value>
bool zem_xtree_valid(const zem_xtree<Value> &tree);

// From here on, how it is done.

inline int zem_xtree_compare(const zem_term &a, const zem_term &b) noexcept {
  const std::uint64_t head_a = std::uint64_t{a[0]} << 32 | a[1];
  const std::uint64_t head_b = std::uint64_t{b[0]} << 32 | b[1];
  if (head_a != head_b) return head_a < head_b ? -1 : 1;
  return a[2] < b[2] ? -1 : static_cast<int>(a[2] > b[2]);
}

inline int zem_xtree_key_compare(const zem_term &term_a, std::uint64_t id_a, const zem_term &term_b,
                                 std::uint64_t id_b) noexcept {
  if (const int order = zem_xtree_compare(term_a, term_b); order != 0) return order;
  return id_a > id_b ? -1 : static_cast<int>(id_a < id_b);
}

inline zem_xkey zem_xtree_key(const zem_term &term, std::uint64_t id) noexcept {
  return {std::uint64_t{term[0]} << 32 | term[1], id, term[2]};
}

// The level-0 entry below `entry` where the key is or would be.
template <class Value>
zem_xentry<Value> *zem_xtree_descend(zem_xentry<Value> *entry, const zem_xkey &key) noexcept {
  for (std::uint32_t level = entry->level; level > 0; --level) {
    entry = entry->items.items[zem_xarray_lower_bound(entry->items, key)].entry;
    zem_xarray_prefetch(entry->items);
  }
  return entry;
}

// The same from the root, by way of the finger: keys that arrive sorted land in or right after the
// entry of the one before, so most need only the lowest levels.
template <class Value>
zem_xentry<Value> *zem_xtree_descend_near(const zem_xtree<Value> &tree,
                                          const zem_xkey &key) noexcept {
  zem_xentry<Value> *entry = tree.finger;
  if (zem_xkey_before(key, zem_xarray_key_at(entry->items, 0))) {
    return zem_xtree_descend(tree.root, key);
  }
  const auto reaches = [&](const zem_xentry<Value> &candidate) {
    return !zem_xkey_before(zem_xarray_key_at(candidate.items, candidate.items.count - 1), key);
  };
  if (reaches(*entry)) return entry;
  if (entry->items.items[entry->items.count - 1].node->next == nullptr) return entry;
  do {
    entry = entry->parent;
  } while (!reaches(*entry));
  return zem_xtree_descend(entry, key);
}

// Chains a node in at its place in a level-0 entry and keeps the marks right. Neighbours in the same
// entry are written but not read, their terms are known from the keys: so nothing waits for their
// memory. True when the node is the only one of its term.
template <class Value>
bool zem_xtree_link(const zem_xentry<Value> &entry, std::uint32_t index) noexcept {
  const zem_xarray<zem_xitem<Value>> &array = entry.items;
  zem_xnode<Value> *node = array.items[index].node;
  // A key goes into the first entry that ends after it, so only the tree's last node is the last of
  // an entry when it comes.
  const bool at_end = index + 1 == array.count;
  if (!at_end) node->next = array.items[index + 1].node;
  if (index > 0) {
    node->prev = array.items[index - 1].node;
  } else if (!at_end) {
    node->prev = node->next->prev;
  }

  node->first = 1;
  if (node->prev != nullptr) {
    node->prev->next = node;
    const bool same_term = index > 0 ? zem_xarray_same_term(array, index - 1)
                                     : zem_xtree_same(node->prev->term, node->term);
    if (same_term) node->first = 0;
  }
  if (at_end) return node->first != 0;
  node->next->prev = node;
  if (!zem_xarray_same_term(array, index)) return node->first != 0;
  node->next->first = 0;
  return false;
}

// How many entries an insertion into a level-0 entry will take from the pool for its splits.
template <class Value>
std::size_t zem_xtree_splits_ahead(const zem_xentry<Value> *entry) noexcept {
  std::size_t needed = 0;
  for (; entry != nullptr && entry->items.count == zem_xarray_capacity - 1; entry = entry->parent) {
    ++needed;
    if (entry->parent == nullptr) ++needed;  // a new root
  }
  return needed;
}

// Splits a full entry in two halves, then its parent if that is full now, and so on. The entry pool
// must hold what zem_xtree_splits_ahead() said.
template <class Value>
void zem_xtree_split(zem_xtree<Value> &tree, zem_xentry<Value> *lower) noexcept {
  for (; lower->items.count == zem_xarray_capacity; lower = lower->parent) {
    zem_xentry<Value> *upper = zem_pool_take(tree.entry_pool);
    upper->level = lower->level;
    zem_xarray_move_upper(lower->items, zem_xarray_capacity / 2, upper->items);
    if (upper->level > 0) {
      for (std::uint32_t i = 0; i < upper->items.count; ++i) {
        upper->items.items[i].entry->parent = upper;
      }
    }
    zem_xentry<Value> *parent = lower->parent;
    if (parent == nullptr) {
      parent = zem_pool_take(tree.entry_pool);
      parent->level = lower->level + 1;
      zem_xarray_insert_at(parent->items, 0, zem_xkey_greatest, {.entry = lower});
      lower->parent = parent;
      tree.root = parent;
    }
    upper->parent = parent;
    const zem_xkey greatest = zem_xarray_key_at(lower->items, lower->items.count - 1);
    const std::uint32_t index = zem_xarray_lower_bound(parent->items, greatest);
    // The key that stood beside the lower half now stands beside the upper one.
    zem_xarray_insert_at(parent->items, index, greatest, {.entry = lower});
    parent->items.items[index + 1].entry = upper;
  }
}

template <class Value>
bool zem_xtree_node_set(zem_xtree<Value> &tree, const zem_term &term, std::uint64_t id,
                        zem_xnode<Value> *&node, bool *alone) {
  const zem_xkey key = zem_xtree_key(term, id);
  zem_xentry<Value> *entry = nullptr;
  std::uint32_t index = 0;
  if (tree.root != nullptr) {
    entry = zem_xtree_descend_near(tree, key);
    tree.finger = entry;
    index = zem_xarray_lower_bound(entry->items, key);
    if (index < entry->items.count && zem_xarray_key_at(entry->items, index) == key) {
      node = entry->items.items[index].node;
      return false;
    }
  }

  // All that can fail comes before the first change.
  if (entry == nullptr) {
    zem_pool_reserve(tree.entry_pool, 1);
  } else if (entry->items.count == zem_xarray_capacity - 1) {
    zem_pool_reserve(tree.entry_pool, zem_xtree_splits_ahead(entry));
  }
  node = zem_pool_new(tree.node_pool);

  if (entry == nullptr) {
    entry = zem_pool_take(tree.entry_pool);
    tree.root = entry;
    tree.finger = entry;
  }
  node->term = term;
  node->id = id;
  zem_xarray_insert_at(entry->items, index, key, {.node = node});
  const bool only = zem_xtree_link(*entry, index);
  if (alone != nullptr) *alone = only;
  ++tree.count;
  if (entry->items.count == zem_xarray_capacity) zem_xtree_split(tree, entry);
  return true;
}

template <class Value>
zem_xtree_places<Value> zem_xtree_prefetch(const zem_xtree<Value> &tree,
                                           std::span<const zem_xkey> keys) noexcept {
  ZEM_ASSERT(keys.size() <= zem_xtree_flight);
  zem_xtree_places<Value> at{};
  if (tree.root == nullptr) return at;
  std::fill_n(at.begin(), keys.size(), tree.root);
  for (std::uint32_t level = tree.root->level; level > 0; --level) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      at[i] = at[i]->items.items[zem_xarray_lower_bound(at[i]->items, keys[i])].entry;
      zem_xarray_prefetch(at[i]->items);
    }
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const std::uint32_t index = zem_xarray_lower_bound(at[i]->items, keys[i]);
    if (index < at[i]->items.count) __builtin_prefetch(at[i]->items.items[index].node, 1);
    if (index > 0) __builtin_prefetch(at[i]->items.items[index - 1].node, 1);
  }
  return at;
}

template <class Value>
zem_xnode<Value> *zem_xtree_node_get(const zem_xtree<Value> &tree, const zem_term &term,
                                     std::uint64_t id) noexcept {
  if (tree.root == nullptr) return nullptr;
  const zem_xkey key = zem_xtree_key(term, id);
  const auto &items = zem_xtree_descend(tree.root, key)->items;
  const std::uint32_t index = zem_xarray_lower_bound(items, key);
  if (index == items.count || zem_xarray_key_at(items, index) != key) return nullptr;
  return items.items[index].node;
}

template <class Value>
zem_xnode<Value> *zem_xtree_node_bfind(const zem_xtree<Value> &tree, const zem_term &term,
                                       std::uint64_t id, bool *past_end) noexcept {
  if (tree.root == nullptr) return nullptr;
  const zem_xkey key = zem_xtree_key(term, id);
  const auto &items = zem_xtree_descend(tree.root, key)->items;
  const std::uint32_t index = zem_xarray_lower_bound(items, key);
  if (index < items.count) return items.items[index].node;
  // Only the tree's last level-0 entry is ever reached with a key that is after all it holds.
  if (past_end != nullptr) *past_end = true;
  return items.items[items.count - 1].node;
}

template <class Value>
zem_xnode<Value> *zem_xtree_node_first(const zem_xtree<Value> &tree) noexcept {
  const zem_xentry<Value> *entry = tree.root;
  if (entry == nullptr) return nullptr;
  while (entry->level > 0)
    entry = entry->items.items[0].entry;
  return entry->items.items[0].node;
}

template <class Value>
zem_xnode<Value> *zem_xtree_node_last(const zem_xtree<Value> &tree) noexcept {
  const zem_xentry<Value> *entry = tree.root;
  if (entry == nullptr) return nullptr;
  while (entry->level > 0)
    entry = entry->items.items[entry->items.count - 1].entry;
  return entry->items.items[entry->items.count - 1].node;
}

template <class Value>
void zem_xtree_shrink(zem_xtree<Value> &tree, std::size_t kept_blocks) noexcept {
  zem_pool_shrink(tree.entry_pool, kept_blocks);
  zem_pool_shrink(tree.node_pool, kept_blocks);
  zem_pool_shrink(tree.value_pool, kept_blocks);
  tree.root = nullptr;
  tree.finger = nullptr;
  tree.count = 0;
}

template <class Value>
void zem_xtree_free_all(zem_xtree<Value> &tree) noexcept {
  zem_xtree_shrink(tree, 0);
}

template <class Value>
void zem_xtree_clear(zem_xtree<Value> &tree) noexcept {
  zem_xtree_shrink(tree, 1);
}

template <class Value>
void zem_xtree_swap(zem_xtree<Value> &a, zem_xtree<Value> &b) noexcept {
  std::swap(a.count, b.count);
  std::swap(a.root, b.root);
  std::swap(a.finger, b.finger);
  zem_pool_swap(a.entry_pool, b.entry_pool);
  zem_pool_swap(a.node_pool, b.node_pool);
  zem_pool_swap(a.value_pool, b.value_pool);
}

template <class Value>
std::uint64_t zem_xtree_msize(const zem_xtree<Value> &tree) noexcept {
  return zem_pool_msize(tree.entry_pool) + zem_pool_msize(tree.node_pool) +
         zem_pool_msize(tree.value_pool);
}

// Whether a node stands in the list right behind `last`, which is null before the first one.
template <class Value>
bool zem_xtree_node_valid(const zem_xnode<Value> &node, const zem_xnode<Value> *last) noexcept {
  if (node.prev != last) return false;
  if (last == nullptr) return node.first == 1;
  if (last->next != &node) return false;
  if (zem_xtree_key_compare(last->term, last->id, node.term, node.id) >= 0) return false;
  return node.first == (zem_xtree_same(last->term, node.term) ? 0 : 1);
}

// Whether an entry's count is one that the tree allows, and its unused slots hold the greatest head.
template <class Value>
bool zem_xtree_slots_valid(const zem_xentry<Value> &entry, bool root) noexcept {
  const std::uint32_t count = entry.items.count;
  const std::uint32_t least = root ? 1 + (entry.level > 0) : 16;
  if (count < least || count >= zem_xarray_capacity) return false;
  for (std::uint32_t i = count; i < zem_xarray_capacity; ++i) {
    if (entry.items.heads[i] != zem_xkey_greatest.head) return false;
  }
  return true;
}

// Walks the entries below (and with) `entry` in key order; `last` is the node visited last.
template <class Value>
bool zem_xtree_entry_valid(const zem_xtree<Value> &tree, const zem_xentry<Value> &entry,
                           const zem_xnode<Value> *&last) {
  const bool root = entry.parent == nullptr;
  if (root != (&entry == tree.root) || !zem_xtree_slots_valid(entry, root)) return false;
  for (std::uint32_t i = 0; i < entry.items.count; ++i) {
    const zem_xkey key = zem_xarray_key_at(entry.items, i);
    if (entry.level == 0) {
      const zem_xnode<Value> &node = *entry.items.items[i].node;
      if (zem_xtree_key(node.term, node.id) != key || !zem_xtree_node_valid(node, last))
        return false;
      last = &node;
      continue;
    }
    const zem_xentry<Value> &child = *entry.items.items[i].entry;
    if (child.parent != &entry || child.level + 1 != entry.level) return false;
    if (!zem_xtree_entry_valid(tree, child, last)) return false;
    const bool at_end = last->next == nullptr;
    if (key != (at_end ? zem_xkey_greatest : zem_xtree_key(last->term, last->id))) return false;
  }
  return true;
}

template <class Value>
bool zem_xtree_valid(const zem_xtree<Value> &tree) {
  if (tree.root == nullptr) return tree.count == 0 && tree.finger == nullptr;
  const zem_xnode<Value> *last = nullptr;
  if (!zem_xtree_entry_valid(tree, *tree.root, last)) return false;
  if (last->next != nullptr || last != zem_xtree_node_last(tree)) return false;

  std::int64_t count = 0;
  for (const auto *node = zem_xtree_node_first(tree); node != nullptr; node = node->next)
    ++count;
  if (count != tree.count) return false;

  const zem_xentry<Value> *above = tree.finger;
  if (above == nullptr || above->level != 0) return false;
  while (above->parent != nullptr)
    above = above->parent;
  return above == tree.root;
}
