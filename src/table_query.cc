// Reads across the shards of a table. Each passes the gate as a reader, picks its shards under the
// table's lock, and works on one shard after the other under that shard's lock alone.

#include "src/table.h"

#include <algorithm>
#include <span>

#include "base/var.h"

#include "src/shard_key.h"
#include "src/table_impl.h"

namespace {

// Counts the caller as a reader for the length of a scope.
class [[nodiscard]] reader_pass {
 public:
  explicit reader_pass(zem_table &table)
      : table_(table), result_(zem_table_wait_lock(table, zem_table_role::reader)) {}
  ~reader_pass() {
    if (result_ >= 0) zem_table_wait_clear(table_, zem_table_role::reader);
  }
  reader_pass(const reader_pass &) = delete;
  reader_pass &operator=(const reader_pass &) = delete;
  zem_status result() const noexcept { return result_; }

 private:
  zem_table &table_;
  const zem_status result_;
};

zem_shard_item read_item(const zem_var &heads, const zem_var &thirds, std::int64_t i) {
  const zem_term low = zem_term_join(zem_var_get_long(&heads, i), zem_var_get_integer(&thirds, i));
  const std::uint32_t span01 = zem_var_get_buf(&heads, i);
  const std::uint32_t span2 = zem_var_get_buf(&thirds, i);
  return {low, {low[0] + span01, low[1] + span01, low[2] + span2}};
}

// The positions of the shards that an item reaches: the one that holds its start term and every
// following one, up to the first whose high-key term lies after its end. There is at least one shard.
struct zem_treach {
  std::size_t first;
  std::size_t last;
};
zem_treach zem_table_term_shard(const zem_table &table, const zem_shard_item &item)
    ZEM_REQUIRES_SHARED(table.lock) {
  const std::size_t first = zem_table_find(table, item.low, zem_id_first);
  const std::size_t end = zem_arrx_count(table.shards) - 1;
  std::size_t last = first;
  while (last < end &&
         zem_xtree_compare(zem_arrx_get_at(table.shards, last)->mkey.term, item.high) <= 0)
    ++last;
  return {first, last};
}

// The shard that answers an item alone, if one does.
zem_shard *only_shard(const zem_table &table, const zem_shard_item &item) {
  zem_read_guard held(table.lock);
  if (zem_arrx_count(table.shards) == 0) return nullptr;
  const zem_treach reach = zem_table_term_shard(table, item);
  return reach.first == reach.last ? zem_arrx_get_at(table.shards, reach.first) : nullptr;
}

// An item that falls on a shard.
struct zem_tshard {
  std::size_t place;  // of the shard, in high-key order
  zem_shard *shard;
  zem_shard_item item;
};

// Distributes the items over the shards, in the order of these.
std::vector<zem_tshard> zem_table_term_shards(const zem_table &table, const zem_var &heads,
                                              const zem_var &thirds, std::int64_t count) {
  std::vector<zem_tshard> parts;
  parts.reserve(static_cast<std::size_t>(count));
  zem_read_guard held(table.lock);
  if (zem_arrx_count(table.shards) == 0) return parts;
  for (std::int64_t i = 0; i < count; ++i) {
    const zem_shard_item item = read_item(heads, thirds, i);
    const zem_treach reach = zem_table_term_shard(table, item);
    for (std::size_t place = reach.first; place <= reach.last; ++place)
      parts.push_back({place, zem_arrx_get_at(table.shards, place), item});
  }
  std::stable_sort(parts.begin(), parts.end(),
                   [](const zem_tshard &a, const zem_tshard &b) { return a.place < b.place; });
  return parts;
}

// Asks the shard of the first part for this and all further parts that fall on it.
zem_status query_shard(std::span<const zem_tshard> &parts, zem_found &found) {
  const zem_shard &shard = *parts.front().shard;
  zem_read_guard held(shard.lock);
  zem_status st = zem_ok;
  while (st >= 0 && !parts.empty() && parts.front().shard == &shard) {
    st = zem_shard_query(shard, parts.front().item, found);
    parts = parts.subspan(1);
  }
  return st;
}

void zem_table_docids(const zem_found &found, zem_var &ids) {
  zem_var_reserve(ids, found.counts.used);
  for (const zem_idmap_slot &slot : found.counts.slots) {
    if (slot.id != 0)
      zem_var_append_longs(ids, {&slot.id, 1}, static_cast<std::uint32_t>(slot.count));
  }
}

}  // namespace

zem_status zem_table_query(zem_table &table, const zem_var &heads, const zem_var &thirds,
                           zem_var &ids) {
  const reader_pass pass(table);
  if (pass.result() < 0) return pass.result();
  const std::int64_t count = std::min(zem_var_size(&heads), zem_var_size(&thirds));
  if (count == 1) {
    const zem_shard_item item = read_item(heads, thirds, 0);
    if (const zem_shard *shard = only_shard(table, item)) {
      zem_found found;
      found.list = &ids;
      zem_read_guard held(shard->lock);
      return zem_shard_query(*shard, item, found);
    }
  }
  const std::vector<zem_tshard> plan = zem_table_term_shards(table, heads, thirds, count);
  std::span<const zem_tshard> parts(plan);
  zem_found found;
  zem_status st = zem_ok;
  while (st >= 0 && !parts.empty())
    st = query_shard(parts, found);
  zem_table_docids(found, ids);
  return st;
}

zem_status zem_table_shards(zem_table &table, zem_keys &keys) {
  const reader_pass pass(table);
  if (pass.result() < 0) return pass.result();
  std::vector<zem_shard *> by_number;
  {
    zem_read_guard held(table.lock);
    by_number = table.shard_ids;
  }
  for (const zem_shard *shard : by_number) {
    zem_read_guard held(shard->lock);
    zem_mkey_add(shard->mkey, shard->id, keys);
  }
  return zem_ok;
}

namespace {

// Works on the shard of this number, under its lock: the analysis does not see that through a template.
template <class Operation>
zem_status with_shard(zem_table &table, std::uint32_t number, Operation &&operation) {
  const reader_pass pass(table);
  if (pass.result() < 0) return pass.result();
  const zem_shard *shard = nullptr;
  {
    zem_read_guard held(table.lock);
    shard = zem_table_find_id(table, number);
  }
  if (shard == nullptr) return zem_status{ZEM_SDB_E_SHARD};
  zem_read_guard held(shard->lock);
  return operation(*shard);
}

}  // namespace

zem_status zem_table_key_count(zem_table &table, std::uint32_t number, std::uint64_t &log_count,
                               std::uint64_t &dat_count) {
  if (!table.open) return zem_status{ZEM_SDB_E_CLOSED};
  log_count = 0;
  dat_count = 0;
  return with_shard(table, number, [&](const zem_shard &shard) ZEM_UNCHECKED_LOCKS {
    log_count = shard.log.sum_terms;
    dat_count = shard.dat.key_num;
    return zem_ok;
  });
}

zem_status zem_table_find_term(zem_table &table, zem_table_source source, const zem_term &term,
                               std::uint32_t &number, std::uint64_t &position) {
  const reader_pass pass(table);
  if (pass.result() < 0) return pass.result();
  number = 0;
  position = ~std::uint64_t{0};
  const zem_shard *shard = nullptr;
  {
    zem_read_guard held(table.lock);
    if (zem_arrx_count(table.shards) == 0) return zem_status{ZEM_SDB_E_SHARD};
    shard = zem_arrx_get_at(table.shards, zem_table_find(table, term, zem_id_first));
  }
  zem_read_guard held(shard->lock);
  number = shard->id;
  const auto find = source == zem_table_source::log ? zem_shard_log_find : zem_shard_dat_find;
  return find(*shard, term, position);
}

zem_status zem_table_keys(zem_table &table, zem_table_source source, std::uint32_t number,
                          const zem_shard_page &page, zem_shard_terms &terms) {
  return with_shard(table, number, [&](const zem_shard &shard) ZEM_UNCHECKED_LOCKS {
    const auto list = source == zem_table_source::log ? zem_shard_log_keys : zem_shard_dat_keys;
    return list(shard, page, terms);
  });
}

zem_status zem_table_ids(zem_table &table, zem_table_source source, std::uint32_t number,
                         const zem_term &term, const zem_shard_page &page, zem_var &ids) {
  return with_shard(table, number, [&](const zem_shard &shard) ZEM_UNCHECKED_LOCKS {
    const auto list = source == zem_table_source::log ? zem_shard_log_ids : zem_shard_dat_ids;
    return list(shard, term, page, ids);
  });
}

zem_status zem_table_count(zem_table &table, zem_table_totals &totals) {
  const reader_pass pass(table);
  if (pass.result() < 0) return pass.result();
  for (const zem_shard *shard : zem_table_shard_list(table)) {
    zem_read_guard held(shard->lock);
    totals.count += zem_shard_count(*shard);
    totals.xcount += zem_shard_xcount(*shard);
    totals.fsize += zem_shard_fsize(*shard);
    totals.msize += zem_shard_msize(*shard);
  }
  return zem_ok;
}
