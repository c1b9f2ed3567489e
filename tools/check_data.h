// The walk over a data file: its index, then every data block against the index and the block before.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

#include "base/stream.h"

#include "src/spx.h"
#include "src/spx_impl.h"
#include "tools/check_file.h"

// What a data file holds, as far as it can be read.
struct check_data {
  std::uint64_t postings = 0;
  std::uint64_t terms = 0;
  std::optional<check_key> low;  // of the postings
  std::optional<check_key> high;
  std::uint64_t low_block = 0;
};

// Tells of every fault of the file, and shows `visit` every data block whose postings can be read.
// Ends early when a stop is wanted.
check_data check_data_walk(check_run &run, const check_file &file,
                           const std::function<void(zem_block_view block)> &visit);

// Calls `take(term, id)` for every posting of a block that was shown by the walk.
template <class Take>
void check_data_postings(zem_block_view block, Take &&take) {
  namespace format = zem_spx_format;
  std::size_t left = zem_stream_get_word(&block[format::posting_count_at]);
  const std::byte *group = &block[format::groups_at];
  while (left > 0) {
    const zem_term term = zem_spx_get_term(group);
    const std::size_t count = zem_spx_get_count(group);
    const std::byte *ids = zem_spx_get_ids(group);
    for (std::size_t i = 0; i < count; ++i)
      take(term, zem_stream_get_lword(ids + i * format::id_size));
    group = ids + count * format::id_size;
    left -= count;
  }
}
