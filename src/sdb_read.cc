// The exported functions that read a table.

#include "src/sdb_call.h"

int32_t zem_sdb_table_count(zem_sdb *sdb, uint64_t table, uint64_t *count, uint64_t *xcount,
                            uint64_t *fsize, uint64_t *msize) {
  if (count == nullptr || xcount == nullptr || fsize == nullptr || msize == nullptr) return -EINVAL;
  zem_table_totals totals;
  const std::int32_t st = zem_sdb_call(
      sdb, table, nullptr, [&](zem_table &opened) { return zem_table_count(opened, totals); });
  if (st < 0) totals = zem_table_totals{};
  *count = totals.count;
  *xcount = totals.xcount;
  *fsize = totals.fsize;
  *msize = totals.msize;
  return st;
}

int32_t zem_sdb_query(zem_sdb *sdb, uint64_t table, const zem_var *heads, const zem_var *thirds,
                      zem_var *ids) {
  if (heads == nullptr || thirds == nullptr || ids == nullptr) return -EINVAL;
  return zem_sdb_call(sdb, table, "rs next error: %d", [&](zem_table &opened) {
    return zem_table_query(opened, *heads, *thirds, *ids);
  });
}

int32_t zem_sdb_shards(zem_sdb *sdb, uint64_t table, zem_keys *keys) {
  if (keys == nullptr) return -EINVAL;
  return zem_sdb_call(sdb, table, "shards error: %d",
                      [&](zem_table &opened) { return zem_table_shards(opened, *keys); });
}

int32_t zem_sdb_key_count(zem_sdb *sdb, uint64_t table, uint32_t shard, uint64_t *log_count,
                          uint64_t *dat_count) {
  if (log_count == nullptr || dat_count == nullptr) return -EINVAL;
  return zem_sdb_call(sdb, table, "term count error: %d", [&](zem_table &opened) {
    return zem_table_key_count(opened, shard, *log_count, *dat_count);
  });
}
