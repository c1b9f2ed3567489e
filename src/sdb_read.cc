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

namespace {

std::int32_t find_term(zem_sdb *sdb, std::uint64_t table, const char *message,
                       zem_table_source source, const zem_term &term, std::uint32_t *shard,
                       std::uint64_t *position) {
  if (shard == nullptr || position == nullptr) return -EINVAL;
  return zem_sdb_call(sdb, table, message, [&](zem_table &opened) {
    return zem_table_find_term(opened, source, term, *shard, *position);
  });
}

std::int32_t list_terms(zem_sdb *sdb, std::uint64_t table, const char *message,
                        zem_table_source source, std::uint32_t shard, const zem_shard_page &page,
                        zem_var *heads, zem_var *thirds, zem_xvars *ids) {
  zem_xvars_shrink(ids, 0);
  if (heads == nullptr || thirds == nullptr || ids == nullptr) return -EINVAL;
  zem_shard_terms terms{.heads = *heads, .thirds = *thirds, .ids = *ids};
  return zem_sdb_call(sdb, table, message, [&](zem_table &opened) {
    return zem_table_keys(opened, source, shard, page, terms);
  });
}

std::int32_t list_ids(zem_sdb *sdb, std::uint64_t table, const char *message,
                      zem_table_source source, std::uint32_t shard, const zem_term &term,
                      const zem_shard_page &page, zem_var *ids) {
  zem_var_shrink(ids, 0);
  if (ids == nullptr) return -EINVAL;
  return zem_sdb_call(sdb, table, message, [&](zem_table &opened) {
    return zem_table_ids(opened, source, shard, term, page, *ids);
  });
}

}  // namespace

int32_t zem_sdb_log_find(zem_sdb *sdb, uint64_t table, uint64_t head, uint32_t third,
                         uint32_t *shard, uint64_t *position) {
  return find_term(sdb, table, "log find error: %d", zem_table_source::log,
                   zem_term_join(head, third), shard, position);
}

int32_t zem_sdb_log_keys(zem_sdb *sdb, uint64_t table, uint32_t shard, int64_t first, int64_t limit,
                         zem_var *heads, zem_var *thirds, zem_xvars *ids) {
  return list_terms(sdb, table, "log keys error: %d", zem_table_source::log, shard, {first, limit},
                    heads, thirds, ids);
}

int32_t zem_sdb_log_ids(zem_sdb *sdb, uint64_t table, uint32_t shard, uint64_t head, uint32_t third,
                        int64_t offset, int64_t limit, zem_var *ids) {
  return list_ids(sdb, table, "log ids error: %d", zem_table_source::log, shard,
                  zem_term_join(head, third), {offset, limit}, ids);
}

int32_t zem_sdb_dat_find(zem_sdb *sdb, uint64_t table, uint64_t head, uint32_t third,
                         uint32_t *shard, uint64_t *position) {
  return find_term(sdb, table, "dat find error: %d", zem_table_source::dat,
                   zem_term_join(head, third), shard, position);
}

int32_t zem_sdb_dat_keys(zem_sdb *sdb, uint64_t table, uint32_t shard, int64_t first, int64_t limit,
                         zem_var *heads, zem_var *thirds, zem_xvars *ids) {
  return list_terms(sdb, table, "dat keys error: %d", zem_table_source::dat, shard, {first, limit},
                    heads, thirds, ids);
}

int32_t zem_sdb_dat_ids(zem_sdb *sdb, uint64_t table, uint32_t shard, uint64_t head, uint32_t third,
                        int64_t offset, int64_t limit, zem_var *ids) {
  return list_ids(sdb, table, "dat ids error: %d", zem_table_source::dat, shard,
                  zem_term_join(head, third), {offset, limit}, ids);
}
