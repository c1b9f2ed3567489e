// A query walks the postings of one term in the live log, the frozen log and the data file side by
// side, newest id first. A posting that several of them hold is found once. Logs are walked as they
// are: a posting that a log marks deleted is found until a merge has dropped it.

#include "src/shard.h"

#include "base/var.h"

#include "src/shard_impl.h"
#include "src/spm_iter.h"
#include "src/spx_iter.h"

namespace {

struct term_walk {
  zem_iter log;
  zem_iter mlog;
  zem_xiter dat;
};

void add_id(zem_found &found, std::uint64_t id) {
  if (id == 0) return;  // reserved; the last id of its term, if stored at all
  if (found.list != nullptr) {
    zem_var_append_longs(*found.list, {&id, 1}, 1);
    return;
  }
  zem_idmap_reserve(found.counts, 1);
  zem_idmap_add(found.counts, id);
}

void add_run(zem_found &found, std::span<const std::byte> run) {
  if (run.empty()) return;
  if (zem_run_at(run, run.size() / zem_spx_format::id_size - 1) == 0)
    run = run.first(run.size() - zem_spx_format::id_size);
  if (found.list != nullptr) {
    zem_var_append_lwords(*found.list, run, 1);
    return;
  }
  zem_idmap_reserve(found.counts, run.size() / zem_spx_format::id_size);
  for (; !run.empty(); run = run.subspan(zem_spx_format::id_size))
    zem_idmap_add(found.counts, zem_stream_get_lword(run.data()));
}

// Takes from the data file what lies before `id`, and `id` itself when the file holds it too.
zem_status take_dat_to(const zem_spx &dat, zem_xiter &it, std::uint64_t id, zem_found &found) {
  while (zem_xiter_stands(it)) {
    const std::span<const std::byte> run = zem_xiter_run(it);
    const std::size_t count = run.size() / zem_spx_format::id_size;
    const std::size_t above = zem_run_above(run, id);
    add_run(found, run.first(above * zem_spx_format::id_size));
    const bool held = above < count && zem_run_at(run, above) == id;
    const std::size_t passed = above + (held ? 1 : 0);
    if (passed > 0) {
      if (zem_status st = zem_spx_iter_skip(dat, it, passed); st < 0) return st;
    }
    if (above < count) return zem_ok;
  }
  return zem_ok;
}

zem_status take_dat_rest(const zem_spx &dat, zem_xiter &it, zem_found &found) {
  while (zem_xiter_stands(it)) {
    const std::span<const std::byte> run = zem_xiter_run(it);
    add_run(found, run);
    const zem_status st = zem_spx_iter_skip(dat, it, run.size() / zem_spx_format::id_size);
    if (st < 0) return st;
  }
  return zem_ok;
}

zem_status walk_term(const zem_shard &shard, term_walk &walk, zem_found &found)
    ZEM_REQUIRES_SHARED(shard.lock) {
  while (zem_iter_stands(walk.log) || zem_iter_stands(walk.mlog)) {
    const bool live =
        zem_iter_stands(walk.log) && (!zem_iter_stands(walk.mlog) || walk.log.doc >= walk.mlog.doc);
    const std::uint64_t id = live ? walk.log.doc : walk.mlog.doc;
    if (zem_status st = take_dat_to(shard.dat, walk.dat, id, found); st < 0) return st;
    add_id(found, id);
    if (zem_iter_stands(walk.mlog) && walk.mlog.doc == id) zem_spm_iter_next(walk.mlog);
    if (live) zem_spm_iter_next(walk.log);
  }
  return take_dat_rest(shard.dat, walk.dat, found);
}

// Whether the item's own term lies inside its range, which a span that wraps around can deny.
bool counts(const zem_shard_item &item) noexcept {
  return zem_xtree_compare(item.low, item.high) <= 0 && item.low[1] <= item.high[1] &&
         item.low[2] <= item.high[2];
}

}  // namespace

zem_status zem_shard_query(const zem_shard &shard, const zem_shard_item &item, zem_found &found) {
  if (!counts(item)) return zem_ok;
  term_walk walk;
  zem_spm_iter_find_x(shard.log, walk.log, item.low, zem_id_first);
  if (zem_shard_frozen(shard)) zem_spm_iter_find_x(shard.mlog, walk.mlog, item.low, zem_id_first);
  const zem_status st = zem_spx_iter_find_x(shard.dat, walk.dat, item.low, zem_id_first);
  return st < 0 ? st : walk_term(shard, walk, found);
}
