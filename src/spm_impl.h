// What the log's sources share.
#pragma once

#include "src/spm.h"

using zem_spm_node = zem_xnode<zem_spm_val>;

// Finds or makes the node of a posting. True when it is new; it has a value in any case.
// Throws std::bad_alloc, which leaves the map as it was.
inline bool zem_spm_node_set(zem_spm &spm, const zem_term &term, std::uint64_t id,
                             zem_spm_node *&node) {
  zem_pool_reserve(spm.tree.value_pool, 1);  // first: a node without a value must never be seen
  if (!zem_xtree_node_set(spm.tree, term, id, node)) return false;
  node->value = zem_pool_new(spm.tree.value_pool);
  return true;
}
