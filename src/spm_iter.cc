#include "src/spm_iter.h"

bool zem_spm_iter_find_x(const zem_spm &spm, zem_iter &iter, const zem_term &term,
                         std::uint64_t id) noexcept {
  bool past_end = false;
  const auto *node = zem_xtree_node_bfind(spm.tree, term, id, &past_end);
  if (past_end || (node != nullptr && !zem_xtree_same(node->term, term))) node = nullptr;
  return zem_spm_iter_proc(iter, node);
}
