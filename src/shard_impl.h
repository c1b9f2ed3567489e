// What the shard's sources share and nobody else needs.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "base/stream.h"

#include "src/shard.h"
#include "src/spx.h"

// Where a log that holds damage is copied before anything of it may be overwritten.
inline constexpr const char *zem_shard_bad = ".bad";

// Sets the live log aside as the frozen one and starts a new live log, unless an earlier attempt's
// frozen log is still there. `create_rest` creates the other files that the work needs, so that one
// sync makes them durable. The maps change hands last.
zem_status zem_shard_freeze(zem_shard &shard, const std::function<zem_status()> &create_rest)
    ZEM_REQUIRES(shard.lock);

// Logs one change in the live log and raises the high key: zem_spm_insert or zem_spm_delete.
inline zem_status zem_shard_log(zem_shard &shard, zem_proc &proc, const zem_term &term,
                                std::uint64_t id, bool inserted) ZEM_REQUIRES(shard.lock) {
  return inserted ? zem_spm_insert(shard.log, proc, id, term, shard.mkey)
                  : zem_spm_delete(shard.log, proc, id, term, shard.mkey);
}

// Applies to the live log what a cancelled split left in `doc`; what was applied leaves it.
zem_status zem_shard_unpark(zem_shard &shard) ZEM_REQUIRES(shard.lock);

// Doc id `index` of a run.
inline std::uint64_t zem_run_at(std::span<const std::byte> run, std::size_t index) noexcept {
  return zem_stream_get_lword(run.data() + index * zem_spx_format::id_size);
}

// How many doc ids of a run lie above `id`, that is, before it. The run descends.
inline std::size_t zem_run_above(std::span<const std::byte> run, std::uint64_t id) noexcept {
  std::size_t low = 0;
  std::size_t high = run.size() / zem_spx_format::id_size;
  // The answer is small as a rule, so the range to search is found by doubling first.
  std::size_t step = 1;
  while (low + step <= high && zem_run_at(run, low + step - 1) > id) {
    low += step;
    step *= 2;
  }
  high = std::min(high, low + step - 1);
  while (low < high) {
    const std::size_t mid = (low + high) / 2;
    if (zem_run_at(run, mid) > id) {
      low = mid + 1;
    } else {
      high = mid;
    }
  }
  return low;
}
