#include "src/doc.h"

#include <algorithm>
#include <utility>

#include "base/assert.h"
#include "base/clock.h"
#include "base/stream.h"

#include "src/shard_key.h"

namespace format = zem_doc_format;

void zem_doc_swap(zem_doc &a, zem_doc &b) noexcept {
  zem_xtree_swap(a.tree, b.tree);
  std::swap(a.count, b.count);
  std::swap(a.time, b.time);
}

void zem_doc_clear(zem_doc &doc) noexcept {
  zem_xtree_clear(doc.tree);
  doc.count = 0;
  doc.time = 0;
}

bool zem_doc_load_term(zem_doc &doc, std::uint64_t id, const zem_term &term, std::uint32_t flag) {
  zem_pool_reserve(doc.tree.value_pool, 1);  // so that no node is ever left without a value
  zem_xnode<zem_doc_val> *node = nullptr;
  if (!zem_xtree_node_set(doc.tree, term, id, node)) return false;
  node->value = zem_pool_new(doc.tree.value_pool);
  *node->value = {.term = term, .flag = flag, .id = id};
  return true;
}

void zem_doc_restore_term(zem_doc &doc, std::uint64_t id, const zem_term &term,
                          std::uint32_t flag) {
  if (zem_doc_load_term(doc, id, term, flag)) return;
  zem_xtree_node_get(doc.tree, term, id)->value->flag = flag;
}

void zem_doc_load(zem_doc &doc, std::uint64_t id, std::uint64_t head, std::uint32_t third,
                  std::uint32_t flag) {
  zem_doc_load_term(doc, id, zem_term_join(head, third), flag);
  ++doc.count;
  doc.time = zem_time();
}

void zem_doc_loads(zem_doc &doc, const zem_var &ids, const zem_var &heads, const zem_var &thirds,
                   std::uint32_t flag) {
  const std::size_t size = std::min({ids.values.size(), heads.values.size(), thirds.values.size()});
  if (size == 0) return;
  doc.time = zem_time();
  for (std::size_t i = 0; i < size; ++i) {
    const auto third = static_cast<std::uint32_t>(thirds.values[i]);
    zem_doc_load_term(doc, ids.values[i], zem_term_join(heads.values[i], third), flag);
    ++doc.count;
  }
}

void zem_doc_update(zem_doc &doc, const zem_doc &from) {
  for (const auto *node = zem_xtree_node_first(from.tree); node != nullptr; node = node->next) {
    const zem_doc_val &posting = *node->value;
    zem_doc_load_term(doc, posting.id, posting.term, posting.flag);
  }
  doc.count += from.count;
  doc.time = zem_time();
}

namespace {

// Whether a posting cannot join the group of the postings before it, of which there are `in_group`.
bool opens_group(const zem_xnode<zem_doc_val> &node, std::uint32_t in_group) noexcept {
  return node.first != 0 || in_group == format::group_postings_max;
}

std::uint64_t total_postings(const zem_doc &doc) noexcept {
  return static_cast<std::uint64_t>(doc.tree.count);
}

void write_group_head(std::byte *at, const zem_term &term) noexcept {
  for (std::size_t word = 0; word < term.size(); ++word)
    zem_stream_set_dword(at + format::group_term_at + word * sizeof term[0], term[word]);
}

zem_term read_group_term(const std::byte *at) noexcept {
  zem_term term{};
  for (std::size_t word = 0; word < term.size(); ++word)
    term[word] = zem_stream_get_dword(at + format::group_term_at + word * sizeof term[0]);
  return term;
}

}  // namespace

std::size_t zem_doc_length(const zem_doc &doc) noexcept {
  std::size_t groups = 0;
  std::uint32_t in_group = 0;
  for (const auto *node = zem_xtree_node_first(doc.tree); node != nullptr; node = node->next) {
    if (opens_group(*node, in_group)) {
      ++groups;
      in_group = 0;
    }
    ++in_group;
  }
  const std::uint64_t total = total_postings(doc);
  return zem_stream_deflate_lword_length(doc.count) + zem_stream_deflate_lword_length(total) +
         groups * format::group_head_size + total * format::posting_size;
}

void zem_doc_to_stream(const zem_doc &doc, std::span<std::byte> stream) noexcept {
  std::byte *at = stream.data();
  at += zem_stream_deflate_lword(at, doc.count);
  at += zem_stream_deflate_lword(at, total_postings(doc));

  std::byte *group = at;  // the head of the group being written
  std::uint32_t in_group = 0;
  for (const auto *node = zem_xtree_node_first(doc.tree); node != nullptr; node = node->next) {
    if (opens_group(*node, in_group)) {
      group = at;
      in_group = 0;
      write_group_head(group, node->term);
      at += format::group_head_size;
    }
    ++in_group;
    zem_stream_set_word(group + format::group_count_at, static_cast<std::uint16_t>(in_group));
    zem_stream_set_lword(at + format::posting_id_at, node->id);
    at[format::posting_op_at] = node->value->flag != 0 ? format::op_insert : format::op_delete;
    at += format::posting_size;
  }
  ZEM_ASSERT(at == stream.data() + stream.size());
}

void zem_doc_from_stream(zem_doc &doc, std::span<const std::byte> stream) {
  std::size_t pos = 0;
  std::uint64_t count = 0;
  std::uint64_t total = 0;
  if (!zem_stream_inflate_lword(stream, pos, count)) return;
  if (!zem_stream_inflate_lword(stream, pos, total)) return;
  doc.count = static_cast<std::uint32_t>(count);

  std::uint64_t read = 0;
  while (read < total && stream.size() - pos >= format::group_head_size) {
    const std::byte *group = stream.data() + pos;
    const zem_term term = read_group_term(group);
    const std::uint16_t promised = zem_stream_get_word(group + format::group_count_at);
    pos += format::group_head_size;
    const std::size_t present =
        std::min<std::size_t>(promised, (stream.size() - pos) / format::posting_size);
    for (std::size_t i = 0; i < present; ++i, pos += format::posting_size) {
      const std::byte *posting = stream.data() + pos;
      const bool deleted = (posting[format::posting_op_at] & format::op_delete_bit) != std::byte{};
      zem_doc_load_term(doc, zem_stream_get_lword(posting + format::posting_id_at), term,
                        deleted ? 0 : 1);
    }
    read += promised;  // a group cut short leaves less than a posting, which ends the loop
  }
}
