// The exported functions that change a table.

#include "src/sdb_call.h"

namespace {

constexpr std::uint32_t flag_delete = 0;
constexpr std::uint32_t flag_insert = 1;
constexpr const char *insert_message = "insert error: %d";
constexpr const char *delete_message = "delete error: %d";

std::int32_t add_one(zem_sdb *sdb, std::uint64_t table, std::uint64_t id, std::uint64_t head,
                     std::uint32_t third, std::uint32_t flag, const char *message) {
  return zem_sdb_call(sdb, table, message, [&](zem_table &opened) {
    return zem_table_add(opened, [&](zem_doc &doc) { zem_doc_load(doc, id, head, third, flag); });
  });
}

std::int32_t add_all(zem_sdb *sdb, std::uint64_t table, const zem_var *ids, const zem_var *heads,
                     const zem_var *thirds, std::uint32_t flag, const char *message) {
  if (ids == nullptr || heads == nullptr || thirds == nullptr) return -EINVAL;
  return zem_sdb_call(sdb, table, message, [&](zem_table &opened) {
    return zem_table_add(opened,
                         [&](zem_doc &doc) { zem_doc_loads(doc, *ids, *heads, *thirds, flag); });
  });
}

}  // namespace

int32_t zem_sdb_insert(zem_sdb *sdb, uint64_t table, uint64_t id, uint64_t head, uint32_t third) {
  return add_one(sdb, table, id, head, third, flag_insert, insert_message);
}

int32_t zem_sdb_inserts(zem_sdb *sdb, uint64_t table, const zem_var *ids, const zem_var *heads,
                        const zem_var *thirds) {
  return add_all(sdb, table, ids, heads, thirds, flag_insert, insert_message);
}

int32_t zem_sdb_delete(zem_sdb *sdb, uint64_t table, uint64_t id, uint64_t head, uint32_t third) {
  return add_one(sdb, table, id, head, third, flag_delete, delete_message);
}

int32_t zem_sdb_deletes(zem_sdb *sdb, uint64_t table, const zem_var *ids, const zem_var *heads,
                        const zem_var *thirds) {
  return add_all(sdb, table, ids, heads, thirds, flag_delete, delete_message);
}

int32_t zem_sdb_update(zem_sdb *sdb, uint64_t table, zem_doc *batch, zem_keys *keys) {
  if (batch == nullptr) return -EINVAL;
  return zem_sdb_call(sdb, table, "update error: %d", [&](zem_table &opened) {
    if (keys != nullptr) return zem_table_update_x(opened, *batch, keys);
    return zem_table_add(opened, [&](zem_doc &doc) { zem_doc_update(doc, *batch); });
  });
}

int32_t zem_sdb_commit(zem_sdb *sdb, uint64_t table) {
  return zem_sdb_call(sdb, table, "commit error: %d", zem_table_commit);
}

int32_t zem_sdb_merge(zem_sdb *sdb, uint64_t table) {
  return zem_sdb_call(sdb, table, "merge error: %d", zem_table_merge);
}

int32_t zem_sdb_table_clear(zem_sdb *sdb, uint64_t table) {
  return zem_sdb_call(sdb, table, "clear error: %d", [&](zem_table &opened) {
    return zem_table_clear(opened, [&] { zem_sdb_withdraw_loads(*sdb, opened); });
  });
}

int32_t zem_sdb_sync(zem_sdb *sdb, uint64_t table) {
  return zem_sdb_call(sdb, table, "sync error: %d", zem_table_sync);
}

int32_t zem_sdb_wait(zem_sdb *sdb, uint64_t table, uint32_t millis) {
  return zem_sdb_call(sdb, table, nullptr,
                      [&](zem_table &opened) { return zem_table_wait(opened, millis); });
}
