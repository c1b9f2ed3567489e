// The exported functions on document batches and key lists. A null record, term or list is answered
// with nothing, 0 or null, and an out argument may be null. Where memory runs out, additions answer
// -ENOMEM, constructors null, and a dump leaves the value list as it was.
#include <cerrno>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "base/status.h"
#include "base/var.h"

#include "include/zem_sdb.h"
#include "src/data_keys.h"
#include "src/doc.h"

namespace {

// The two numbers of a batch that the host reads and sets, by the `which` of the interface.
enum class doc_number { count = 1, time = 2 };

// The host walks a batch by its tree's nodes, whose type the interface keeps opaque: it is never
// defined, and these two alone pass from one to the other.
zem_xtree_node *to_host(zem_xnode<zem_doc_val> *node) noexcept {
  return reinterpret_cast<zem_xtree_node *>(node);
}
const zem_xnode<zem_doc_val> *from_host(const zem_xtree_node *node) noexcept {
  return reinterpret_cast<const zem_xnode<zem_doc_val> *>(node);
}

zem_term term_of(const std::uint32_t *words) noexcept { return {words[0], words[1], words[2]}; }

void copy_out(std::uint32_t *words, const zem_term &term) noexcept {
  if (words != nullptr) std::memcpy(words, term.data(), sizeof term);
}

template <class Value>
void copy_out(Value *out, Value value) noexcept {
  if (out != nullptr) *out = value;
}

bool has_row(const zem_keys *keys, std::int64_t index) noexcept {
  return keys != nullptr && index >= 0 && static_cast<std::uint64_t>(index) < zem_keys_size(*keys);
}

}  // namespace

zem_doc *zem_sdb_doc_new(void) {
  return zem_boundary<zem_doc *>(nullptr, [] { return std::make_unique<zem_doc>().release(); });
}

void zem_sdb_doc_free(zem_doc *batch) { delete batch; }

uint32_t zem_sdb_doc_get_val(const zem_doc *batch, int which) {
  if (batch == nullptr) return 0;
  if (which == static_cast<int>(doc_number::count)) return batch->count;
  if (which == static_cast<int>(doc_number::time)) return batch->time;
  return 0;
}

void zem_sdb_doc_set_val(zem_doc *batch, int which, uint32_t value) {
  if (batch == nullptr) return;
  if (which == static_cast<int>(doc_number::count)) batch->count = value;
  if (which == static_cast<int>(doc_number::time)) batch->time = value;
}

int zem_sdb_doc_add(zem_doc *batch, uint64_t id, const uint32_t term[3], uint32_t flag) {
  if (batch == nullptr || term == nullptr) return 0;
  return zem_boundary(-ENOMEM,
                      [&] { return zem_doc_load_term(*batch, id, term_of(term), flag) ? 1 : 0; });
}

void zem_sdb_doc_clear(zem_doc *batch) {
  if (batch != nullptr) zem_doc_clear(*batch);
}

zem_xtree_node *zem_sdb_doc_iter(const zem_doc *batch) {
  return batch == nullptr ? nullptr : to_host(zem_xtree_node_first(batch->tree));
}

zem_xtree_node *zem_sdb_doc_next(const zem_doc * /*batch*/, zem_xtree_node *node, uint64_t *id,
                                 uint32_t term[3], uint32_t *flag) {
  if (node == nullptr) return nullptr;
  const zem_xnode<zem_doc_val> &position = *from_host(node);
  copy_out(id, position.id);
  copy_out(term, position.term);
  copy_out(flag, position.value->flag);
  return to_host(position.next);
}

void zem_sdb_doc_dumps(const zem_doc *batch, zem_var *out) {
  if (batch == nullptr || out == nullptr) return;
  zem_boundary(0, [&] {
    std::string stream(zem_doc_length(*batch), '\0');
    zem_doc_to_stream(*batch, std::as_writable_bytes(std::span(stream)));
    out->text = std::move(stream);
    return 0;
  });
}

void zem_sdb_doc_loads(zem_doc *batch, const zem_var *in) {
  if (batch == nullptr || in == nullptr || !in->text) return;
  zem_boundary(0, [&] {
    zem_doc_from_stream(*batch, std::as_bytes(std::span(*in->text)));
    return 0;
  });
}

zem_keys *zem_sdb_keys_new(void) {
  return zem_boundary<zem_keys *>(nullptr, [] { return std::make_unique<zem_keys>().release(); });
}

void zem_sdb_keys_free(zem_keys *keys) { delete keys; }

int zem_sdb_keys_add(zem_keys *keys, uint64_t id, const uint32_t term[3], uint32_t attribute) {
  if (keys == nullptr || term == nullptr) return 0;
  return zem_boundary(-ENOMEM, [&] {
    zem_keys_add(*keys, id, term_of(term), attribute);
    return 1;
  });
}

void zem_sdb_keys_clear(zem_keys *keys) {
  if (keys != nullptr) zem_keys_clear(*keys);
}

int64_t zem_sdb_keys_size(const zem_keys *keys) {
  return keys == nullptr ? 0 : static_cast<std::int64_t>(zem_keys_size(*keys));
}

uint32_t zem_sdb_keys_fetch(const zem_keys *keys, int64_t index, uint64_t *id, uint32_t term[3],
                            uint32_t *attribute) {
  if (!has_row(keys, index)) return 0;
  const auto row = static_cast<std::size_t>(index);
  copy_out(id, keys->ids[row]);
  copy_out(term, zem_term{keys->term0[row], keys->term1[row], keys->term2[row]});
  copy_out(attribute, keys->attrs[row]);
  return keys->attrs[row];
}

int zem_sdb_keys_sid(zem_keys *keys, int64_t index, uint16_t sid) {
  if (!has_row(keys, index)) return 0;
  std::uint32_t &attribute = keys->attrs[static_cast<std::size_t>(index)];
  attribute = std::uint32_t{sid} << 16 | (attribute & 0xffff);
  return 1;
}
