// The walk over a log file: every block that was written, in the order of the file, also those that
// an open would not reach.
#pragma once

#include <cstdint>
#include <functional>

#include "src/spm.h"
#include "tools/check_file.h"

// A block whose postings can be read.
struct check_log_block {
  std::uint32_t number = 0;
  zem_block_view bytes;        // cut back, where a write was torn
  std::uint32_t postings = 0;  // in it
  bool reached = false;        // by an open: it lies before the end of the log
};

// Tells of every fault of the file, and shows `visit` every block that can be read. Ends early when a
// stop is wanted.
void check_log_walk(check_run &run, const check_file &file,
                    const std::function<void(const check_log_block &)> &visit);

// Brings a block's postings into a map as a replay does: the last record of a posting counts.
void check_log_apply(zem_spm &log, const check_log_block &block);

// The same, and tells of records that a log never holds and of a wrong count of terms. `log` holds
// what all blocks before this one do.
void check_log_replay(check_run &run, const check_file &file, zem_spm &log,
                      const check_log_block &block);
