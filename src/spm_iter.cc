#include "src/spm_iter.h"

bool zem_spm_iter_find_x(const zem_spm &spm, zem_iter &iter, const zem_term &term,
                         std::uint64_t id) noexcept {
  bool past_end = false;
  const auto *node = zem_xtree_node_bfind(spm.tree, term, id, &past_end);
  if (past_end || (node != nullptr && !zem_xtree_same(node->term, term))) node = nullptr;
  return zem_spm_iter_proc(iter, node);
}

void zem_spm_iterd_find_x(const zem_spm &spm, zem_iter &iter, std::uint64_t index) noexcept {
  const auto *node = zem_xtree_node_first(spm.tree);
  for (; node != nullptr; node = node->next) {
    if (node->first != 0 && index-- == 0) break;
  }
  zem_spm_iter_proc(iter, node);
}

bool zem_spm_iterd_next_x(zem_iter &iter, std::uint64_t &count, zem_var *ids, std::size_t most) {
  count = 0;
  while (zem_iter_stands(iter)) {
    if (ids != nullptr && count < most) zem_var_append_longs(*ids, {&iter.doc, 1}, 0);
    ++count;
    zem_spm_iterd_next(iter);
    if (zem_iter_stands(iter) && iter.node->first != 0) return true;
  }
  return false;
}
