// What the log's sources share.
#pragma once

#include "src/spm.h"

using zem_spm_node = zem_xnode<zem_spm_val>;

// Finds or makes the node of a posting, which has a value in any case; otherwise as zem_xtree_node_set.
inline bool zem_spm_node_set(zem_spm &spm, const zem_term &term, std::uint64_t id,
                             zem_spm_node *&node, bool *alone = nullptr) {
  zem_pool_reserve(spm.tree.value_pool, 1);  // first: a node without a value must never be seen
  if (!zem_xtree_node_set(spm.tree, term, id, node, alone)) return false;
  node->value = zem_pool_new(spm.tree.value_pool);
  return true;
}
