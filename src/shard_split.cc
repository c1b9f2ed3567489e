#include "src/shard_split.h"

#include <utility>

#include "base/clock.h"
#include "base/file.h"

#include "src/shard_files.h"
#include "src/shard_impl.h"
#include "src/shard_walk.h"
#include "src/spm_blk.h"

namespace {

// ---- the pipe

zem_status send(zem_pipe &pipe, zem_pipe_to to) {
  if (pipe.batch.count == 0) return zem_ok;
  const zem_status st = pipe.peer_batch(pipe.batch, to);
  zem_doc_clear(pipe.batch);
  return st;
}

zem_status add_to_batch(zem_pipe &pipe, const zem_term &term, std::uint64_t id, bool inserted,
                        zem_pipe_to to) {
  zem_doc_load_term(pipe.batch, id, term, inserted ? 1 : 0);
  ++pipe.batch.count;
  return pipe.batch.count >= pipe.commit_num ? send(pipe, to) : zem_ok;
}

zem_status finish_at_peer(zem_pipe &pipe, zem_pipe_to to) {
  if (zem_status st = send(pipe, to); st < 0) return st;
  return pipe.peer_commit(to);
}

// Adds postings of one term to the upper half's data file.
zem_status zem_pipe_insert_x(zem_pipe &pipe, zem_xblk &out, const zem_term &term,
                             std::span<const std::byte> ids,
                             std::uint32_t pause_ms) ZEM_UNCHECKED_LOCKS {
  if (pipe.shard != nullptr)
    return zem_spx_insert_run(pipe.shard->dat, out, term, ids, pipe.shard->mkey, pause_ms);
  for (std::size_t i = 0; i < ids.size() / zem_spx_format::id_size; ++i) {
    const zem_status st = add_to_batch(pipe, term, zem_run_at(ids, i), true, zem_pipe_to::dat);
    if (st < 0) return st;
  }
  return zem_ok;
}

zem_status zem_pipe_commit_x(zem_pipe &pipe, zem_xblk &out) ZEM_UNCHECKED_LOCKS {
  return pipe.shard != nullptr ? zem_spx_finish(pipe.shard->dat, out)
                               : finish_at_peer(pipe, zem_pipe_to::dat);
}

zem_status commit_log(zem_shard &shard) ZEM_UNCHECKED_LOCKS {
  shard.stamp = zem_time();
  return zem_spm_commit(shard.log);
}

zem_status zem_pipe_commit(zem_pipe &pipe) {
  return pipe.shard != nullptr ? commit_log(*pipe.shard) : finish_at_peer(pipe, zem_pipe_to::log);
}

// ---- the main pass

// Divides what a walk visits. The upper half begins with the first posting behind the middle.
class split_sink {
 public:
  split_sink(zem_shard &low, zem_pipe &pipe, std::uint64_t total, std::uint32_t pause_ms)
      : low_(low), pipe_(pipe), middle_((total + 1) / 2), pause_ms_(pause_ms) {}

  // A run ends at the middle; once low has to get its first posting, behind that.
  std::size_t most() const noexcept {
    if (half_ != half::lower) return ~std::size_t{0};
    return steps_ < middle_ ? middle_ - steps_ : 1;
  }
  void passed(std::size_t count) noexcept {
    steps_ += count;
    if (half_ == half::lower && steps_ >= middle_ && low_holds_) half_ = half::turning;
  }
  zem_status put(const zem_term &term, std::uint64_t id) {
    std::array<std::byte, zem_spx_format::id_size> bytes{};
    zem_stream_set_lword(bytes.data(), id);
    return put_run(term, bytes);
  }
  zem_status put_run(const zem_term &term, std::span<const std::byte> ids) ZEM_UNCHECKED_LOCKS {
    if (half_ == half::turning) {
      if (zem_status st = zem_spx_finish(low_.dat, out_); st < 0) return st;
      zem_xblk_shrink(out_);
      half_ = half::upper;
    }
    if (half_ == half::upper) return zem_pipe_insert_x(pipe_, out_, term, ids, pause_ms_);
    low_holds_ = true;
    return zem_spx_insert_run(low_.dat, out_, term, ids, low_.mkey, pause_ms_);
  }
  // zem_yes: both halves hold something.
  zem_status finish() {
    if (half_ != half::upper) return zem_ok;
    const zem_status st = zem_pipe_commit_x(pipe_, out_);
    return st < 0 ? st : zem_yes;
  }

 private:
  enum class half : std::uint8_t { lower, turning, upper };

  zem_shard &low_;
  zem_pipe &pipe_;
  const std::uint64_t middle_;  // postings of either source to be passed before the turn
  const std::uint32_t pause_ms_;
  std::uint64_t steps_ = 0;
  half half_ = half::lower;
  bool low_holds_ = false;
  zem_xblk out_;
};

// ---- rest and parked pass

// Passes on the logged changes of one kind of source, each to its half.
struct log_sink {
  zem_shard &low;
  zem_pipe &pipe;
  zem_proc proc{};  // of low's log

  zem_status put(const zem_term &term, std::uint64_t id, bool inserted) ZEM_UNCHECKED_LOCKS {
    if (zem_mkey_compare(low.mkey, term, id) >= 0)
      return zem_shard_log(low, proc, term, id, inserted);
    if (pipe.shard != nullptr) return zem_shard_log(*pipe.shard, pipe.proc, term, id, inserted);
    return add_to_batch(pipe, term, id, inserted, zem_pipe_to::log);
  }
};

zem_status zem_shard_split_blk(zem_block_view block, std::uint32_t postings, log_sink &sink) {
  zem_blk reader;
  zem_blk_read(reader, block, postings);
  while (zem_blk_next(reader)) {
    const zem_status st = sink.put(reader.term, reader.id, !reader.deleted);
    if (st < 0) return st;
  }
  return zem_ok;
}

}  // namespace

zem_status zem_shard_split_begin(zem_shard &shard, zem_pipe &pipe, zem_shard &low) {
  if (shard.refused < 0) return shard.refused;
  if (zem_status st = zem_spm_failure(shard.log); st < 0) return st;
  if (zem_status st = zem_shard_tidy(shard); st < 0) return st;
  const auto create = [&]() ZEM_UNCHECKED_LOCKS {
    const zem_status st = zem_shard_open_new(low);
    return st >= 0 && pipe.shard != nullptr ? zem_shard_open_new(*pipe.shard) : st;
  };
  if (zem_status st = zem_shard_unpark(shard); st < 0) return st;
  return zem_shard_freeze(shard, create);
}

zem_status zem_shard_split(const zem_shard &shard, zem_pipe &pipe, zem_shard &low) {
  const std::uint64_t total = static_cast<std::uint64_t>(shard.mlog.tree.count) + shard.dat.doc_num;
  split_sink sink(low, pipe, total, shard.cfg->merge_time);
  if (zem_status st = zem_shard_walk(shard, sink); st < 0) return st;
  return sink.finish();
}

namespace {

// What the new logs hold by now is synced while writers go on, and no more in the parked pass.
zem_status sync_early(const zem_pipe &pipe, zem_shard &low) ZEM_UNCHECKED_LOCKS {
  if (zem_status st = zem_spm_commit(low.log); st < 0) return st;
  return pipe.shard != nullptr ? zem_spm_commit(pipe.shard->log) : zem_ok;
}

}  // namespace

zem_status zem_shard_split_x(const zem_shard &shard, zem_pipe &pipe, zem_shard &low) {
  log_sink sink{.low = low, .pipe = pipe};
  const auto block = std::make_unique<zem_spm_buf>();
  for (std::uint32_t index = 0; index < shard.log.blk_no; ++index) {
    if (zem_status st = zem_spm_read_blk(shard.log, index, block->bytes); st < 0) return st;
    const std::uint32_t postings =
        zem_stream_get_word(&block->bytes[zem_spm_format::posting_count_at]);
    if (zem_status st = zem_shard_split_blk(block->bytes, postings, sink); st < 0) return st;
  }
  const zem_status st = zem_shard_split_blk(shard.log.buf->bytes, shard.log.blk_recs, sink);
  return st < 0 ? st : sync_early(pipe, low);
}

zem_status zem_shard_split_m(const zem_shard &shard, zem_pipe &pipe, zem_shard &low) {
  log_sink sink{.low = low, .pipe = pipe};
  for (const auto *node = zem_xtree_node_first(shard.doc.tree); node != nullptr;
       node = node->next) {
    const zem_status st = sink.put(node->term, node->id, node->value->flag != 0);
    if (st < 0) return st;
  }
  if (zem_status st = commit_log(low); st < 0) return st;
  return zem_pipe_commit(pipe);
}

namespace {

void swap_log(zem_spm &a, zem_spm &b) noexcept {
  zem_spm_swap(a, b);
  std::swap(a.file.name, b.file.name);
}

void swap_dat(zem_spx &a, zem_spx &b) noexcept {
  zem_spx_swap(a, b);
  std::swap(a.file.name, b.file.name);
}

// Exchanges the numbers and the four stores with their names.
void zem_shard_swap(zem_shard &a, zem_shard &b) noexcept ZEM_UNCHECKED_LOCKS {
  std::swap(a.id, b.id);
  swap_log(a.log, b.log);
  swap_log(a.mlog, b.mlog);
  swap_dat(a.dat, b.dat);
  swap_dat(a.mdat, b.mdat);
}

}  // namespace

void zem_shard_split_end(zem_shard &shard, zem_shard &low) noexcept {
  zem_shard_swap(shard, low);
  zem_mkey_swap(shard.mkey, low.mkey);
  zem_doc_clear(shard.doc);
  shard.parked = false;
}

void zem_shard_split_cancel(zem_shard &shard, zem_pipe &pipe, zem_shard &low) {
  {
    zem_write_guard held(shard.lock);
    shard.parked = false;
    // What the log does not take stays in `doc`, and the next update or commit tells why.
    std::ignore = zem_boundary([&]() ZEM_UNCHECKED_LOCKS { return zem_shard_unpark(shard); });
  }
  // Files that stay behind are named by no list; whoever gets their number removes them.
  const auto drop = [](zem_shard &half)
                        ZEM_UNCHECKED_LOCKS { std::ignore = zem_shard_clear(half); };
  drop(low);
  if (pipe.shard != nullptr) drop(*pipe.shard);
}

zem_status zem_shard_split_release(zem_shard &low, bool remove_files) {
  if (remove_files) return zem_shard_clear(low);
  zem_status st = zem_spm_close(low.log);
  st = zem_status_first(st, zem_spm_close(low.mlog));
  return zem_status_first(st, zem_spx_close(low.dat));
}
