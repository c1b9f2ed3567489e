// The walk that merges and splits share: frozen log and data file side by side, in key order, less what
// the log deletes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>

#include "base/assert.h"
#include "base/err.h"

#include "src/shard.h"
#include "src/shard_impl.h"
#include "src/spm_iter.h"
#include "src/spx_iter.h"

struct zem_shard_sources {
  zem_iter log;
  zem_xiter dat;
};

// Copies what the data file has before the log's posting: the rest of the current run when that is
// of an earlier term, else the part of it above the log's id. False when it has nothing there.
template <class Sink>
zem_status zem_shard_walk_dat(const zem_shard &shard, zem_shard_sources &from, Sink &sink,
                              bool &copied) ZEM_UNCHECKED_LOCKS {
  const std::span<const std::byte> run = zem_xiter_run(from.dat);
  std::size_t count = run.size() / zem_spx_format::id_size;
  if (zem_iter_stands(from.log)) {
    const int order = zem_xtree_compare(from.dat.term, from.log.term);
    if (order > 0) count = 0;
    if (order == 0) count = zem_run_above(run, from.log.doc);
  }
  count = std::min(count, sink.most());
  copied = count > 0;
  if (!copied) return zem_ok;
  const zem_status st = sink.put_run(from.dat.term, run.first(count * zem_spx_format::id_size));
  if (st < 0) return st;
  sink.passed(count);
  return zem_spx_iterd_skip(shard.dat, from.dat, count);
}

// Takes the log's posting: a live one is written, a deleted one is not, and the data file's copy of
// either is passed over.
template <class Sink>
zem_status zem_shard_walk_log(const zem_shard &shard, zem_shard_sources &from,
                              Sink &sink) ZEM_UNCHECKED_LOCKS {
  ZEM_ASSERT(from.log.val != nullptr);  // the data file has nothing before it, or nothing at all
  if (from.log.val->flag >= 0) {
    if (zem_status st = sink.put(from.log.term, from.log.doc); st < 0) return st;
  }
  const bool both = zem_xiter_stands(from.dat) && from.dat.doc == from.log.doc &&
                    zem_xtree_same(from.dat.term, from.log.term);
  sink.passed(both ? 2 : 1);
  if (both) {
    if (zem_status st = zem_spx_iterd_next(shard.dat, from.dat); st < 0) return st;
  }
  zem_spm_iterd_next(from.log);
  return zem_ok;
}

template <class Sink>
zem_status zem_shard_walk_all(const zem_shard &shard, zem_shard_sources &from,
                              Sink &sink) ZEM_UNCHECKED_LOCKS {
  zem_spm_iterd_first(shard.mlog, from.log);
  if (zem_status st = zem_spx_iterd_first(shard.dat, from.dat); st < 0) return st;
  while (zem_iter_stands(from.log) || zem_xiter_stands(from.dat)) {
    bool copied = false;
    if (zem_xiter_stands(from.dat)) {
      if (zem_status st = zem_shard_walk_dat(shard, from, sink, copied); st < 0) return st;
    }
    if (copied) continue;
    if (zem_status st = zem_shard_walk_log(shard, from, sink); st < 0) return st;
  }
  return zem_ok;
}

// Walks all postings that a new data file is to hold. A sink takes them by put(term, id) and
// put_run(term, ids), is asked by most() how many a run may have (at least one), and told by passed()
// how many postings of either source are behind.
//
// Holds no lock: between begin and end of a merge or split nothing writes `mlog` or `dat`.
template <class Sink>
zem_status zem_shard_walk(const zem_shard &shard, Sink &sink) ZEM_UNCHECKED_LOCKS {
  zem_shard_sources from;
  const zem_status st = zem_shard_walk_all(shard, from, sink);
  if (zem_status_damage(st) && from.dat.node != nullptr && !zem_xiter_stands(from.dat)) {
    zem_err_log(shard.err_log, 0, "%s, block %u: damaged, so nothing is merged: %d",
                shard.dat.file.name.c_str(), from.dat.node->value->blk_no, st);
  }
  return st;
}
