// Which shards a table has: making them, filing them by high key and by number, lending the first.

#include "src/table.h"

#include <algorithm>

#include "src/table_impl.h"

std::unique_ptr<zem_shard> zem_table_shard(zem_table &table, std::uint32_t number) {
  auto shard = std::make_unique<zem_shard>();
  shard->id = number;
  shard->directory = table.path;
  shard->cfg = &table.cfg;
  shard->task = &table.task;
  shard->err_log = table.err_log;
  zem_write_guard held(shard->lock);
  shard->dat.cache.limit = table.cfg.cache_key;
  shard->mdat.cache.limit = table.cfg.cache_key;
  return shard;
}

std::unique_ptr<zem_shard> zem_table_next_shard(zem_table &table) {
  std::uint32_t number = 0;
  {
    zem_write_guard held(table.lock);
    number = ++table.shard_seq;
  }
  return zem_table_shard(table, number);
}

zem_shard *zem_table_lend(zem_table &table) {
  zem_write_guard table_held(table.lock);
  if (table.lent || zem_arrx_count(table.shards) != 1) return nullptr;
  zem_shard *shard = zem_arrx_get_at(table.shards, 0);
  zem_write_guard held(shard->lock);
  if (!zem_shard_lend(*shard)) return nullptr;
  table.lent = true;
  return shard;
}

std::vector<std::uint32_t> zem_table_numbers(const zem_table &table) {
  std::vector<std::uint32_t> numbers;
  numbers.reserve(table.shard_ids.size());
  for (const zem_shard *shard : table.shard_ids)
    numbers.push_back(shard->id);
  return numbers;
}

void zem_table_make_room(zem_table &table) {
  zem_arrx_expand(table.shards, zem_arrx_count(table.shards) + 1);
  table.shard_ids.reserve(table.shard_ids.size() + 1);
}

namespace {

void file_by_key(zem_table &table, zem_shard &shard) ZEM_REQUIRES(table.lock) {
  zem_arrx_insert(table.shards, &shard,
                  [&](const zem_shard &other) { return zem_table_compare_x(other, shard); });
}

}  // namespace

void zem_table_append(zem_table &table, std::unique_ptr<zem_shard> shard) {
  zem_table_make_room(table);
  file_by_key(table, *shard);
  const auto place = std::upper_bound(
      table.shard_ids.begin(), table.shard_ids.end(), shard->id,
      [](std::uint32_t number, const zem_shard *other) { return number < other->id; });
  table.shard_ids.insert(place, shard.release());
}

void zem_table_raise(zem_table &table, zem_shard &shard, const zem_mkey &key) {
  std::size_t place = 0;
  while (zem_arrx_get_at(table.shards, place) != &shard)
    ++place;
  zem_arrx_remove_at(table.shards, place);
  zem_mkey_copy(shard.mkey, key.term, key.id);
  file_by_key(table, shard);
}
