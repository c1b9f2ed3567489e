// Reads across the shards of a table. Each passes the gate as a reader, picks its shards under the
// table's lock, and works on one shard after the other under that shard's lock alone.

#include "src/table.h"

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

// The items of a query that fall on one shard.
struct zem_tshard {
  zem_shard *shard;
  std::vector<std::size_t> items;
};

struct query_plan {
  std::vector<zem_shard_item> items;
  std::vector<zem_tshard> shards;  // in high-key order; those that no item reaches are left out
};

std::vector<zem_shard_item> read_items(const zem_var &heads, const zem_var &thirds) {
  const std::int64_t count = std::min(zem_var_size(&heads), zem_var_size(&thirds));
  std::vector<zem_shard_item> items;
  items.reserve(static_cast<std::size_t>(count));
  for (std::int64_t i = 0; i < count; ++i) {
    const zem_term low =
        zem_term_join(zem_var_get_long(&heads, i), zem_var_get_integer(&thirds, i));
    const std::uint32_t span01 = zem_var_get_buf(&heads, i);
    const std::uint32_t span2 = zem_var_get_buf(&thirds, i);
    items.push_back({low, {low[0] + span01, low[1] + span01, low[2] + span2}});
  }
  return items;
}

// Distributes the items over the shards: each goes to the shard that holds its start term and to
// every following one, up to the first whose high-key term lies after its end.
void zem_table_term_shards(const zem_table &table, query_plan &plan)
    ZEM_REQUIRES_SHARED(table.lock) {
  const std::size_t count = zem_arrx_count(table.shards);
  if (count == 0) return;
  std::vector<std::vector<std::size_t>> reached(count);
  for (std::size_t item = 0; item < plan.items.size(); ++item) {
    const zem_shard_item &range = plan.items[item];
    for (std::size_t i = zem_table_find(table, range.low, zem_id_first); i < count; ++i) {
      reached[i].push_back(item);
      const bool last = i + 1 == count;
      if (last || zem_xtree_compare(zem_arrx_get_at(table.shards, i)->mkey.term, range.high) > 0)
        break;
    }
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (!reached[i].empty())
      plan.shards.push_back({zem_arrx_get_at(table.shards, i), std::move(reached[i])});
  }
}

zem_status query_shard(const query_plan &plan, const zem_tshard &part, zem_found &found) {
  const zem_shard &shard = *part.shard;
  zem_read_guard held(shard.lock);
  zem_status st = zem_ok;
  for (std::size_t i = 0; st >= 0 && i < part.items.size(); ++i)
    st = zem_shard_query(shard, plan.items[part.items[i]], found);
  zem_shard_trim(shard);
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
  query_plan plan;
  plan.items = read_items(heads, thirds);
  {
    zem_read_guard held(table.lock);
    zem_table_term_shards(table, plan);
  }
  zem_found found;
  if (plan.items.size() == 1 && plan.shards.size() == 1) found.list = &ids;
  zem_status st = zem_ok;
  for (std::size_t i = 0; st >= 0 && i < plan.shards.size(); ++i)
    st = query_shard(plan, plan.shards[i], found);
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
  const zem_status st = operation(*shard);
  zem_shard_trim(*shard);
  return st;
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
  const zem_status st = find(*shard, term, position);
  zem_shard_trim(*shard);
  return st;
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
