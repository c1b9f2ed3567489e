// Walks of the log map: through the postings of one term (iter) or of all (iterd), in key order,
// deleted ones included.
//
// An iterator stays valid while postings are added; the owner of the log holds its lock meanwhile.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/var.h"

#include "src/spm.h"
#include "src/xtree.h"

// Where a walk stands; the caller's.
struct zem_iter {
  const zem_xnode<zem_spm_val> *node = nullptr;  // null: on nothing
  const zem_spm_val *val = nullptr;              // of `node`; null without one
  zem_term term{};                               // of `node`, for as long as it stands on one
  std::uint64_t doc = 0;                         // likewise
};

inline bool zem_iter_stands(const zem_iter &iter) noexcept { return iter.node != nullptr; }

// Stands on `node`, or on nothing. True when it stands on a posting.
inline bool zem_spm_iter_proc(zem_iter &iter, const zem_xnode<zem_spm_val> *node) noexcept {
  iter.node = node;
  iter.val = nullptr;
  if (node == nullptr) return false;
  iter.val = node->value;
  iter.term = node->term;
  iter.doc = node->id;
  return true;
}

// On the first posting of the map. False: the map is empty.
inline bool zem_spm_iter_first(const zem_spm &spm, zem_iter &iter) noexcept {
  return zem_spm_iter_proc(iter, zem_xtree_node_first(spm.tree));
}

// On the term's first posting whose doc id is not above `id`; zem_id_first asks for its very first
// one. False: the term has none.
bool zem_spm_iter_find_x(const zem_spm &spm, zem_iter &iter, const zem_term &term,
                         std::uint64_t id) noexcept;

// On the next posting if it is of the same term. False: the term has ended, and the iterator
// stands on nothing.
inline bool zem_spm_iter_next(zem_iter &iter) noexcept {
  if (iter.node == nullptr) return false;
  const auto *next = iter.node->next;
  return zem_spm_iter_proc(iter, next != nullptr && next->first == 0 ? next : nullptr);
}

// On the first posting of the map, or on nothing when it is empty.
inline void zem_spm_iterd_first(const zem_spm &spm, zem_iter &iter) noexcept {
  zem_spm_iter_proc(iter, zem_xtree_node_first(spm.tree));
}

// On the next posting, whatever its term, or on nothing behind the last.
inline void zem_spm_iterd_next(zem_iter &iter) noexcept {
  if (iter.node == nullptr) return;
  zem_xtree_prefetch_behind(*iter.node);
  zem_spm_iter_proc(iter, iter.node->next);
}

// On the first posting of the `index`-th term, counting from 0, or on nothing when there are fewer.
void zem_spm_iterd_find_x(const zem_spm &spm, zem_iter &iter, std::uint64_t index) noexcept;

// On the first posting of the next term. `count` becomes the number of postings passed, deleted ones
// included; the first of their ids, `most` at most, are appended to `ids` unless that is null. False:
// no term follows, and the iterator stands on nothing.
bool zem_spm_iterd_next_x(zem_iter &iter, std::uint64_t &count, zem_var *ids, std::size_t most);
