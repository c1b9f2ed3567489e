// The settings of a table, kept in the file "sdb.xml" of its directory.
//
// The file is written once, with the defaults, when the table is created, and read at every first
// open; between the two it is the administrator's to edit. Its root element "table" holds one
// element a setting, named as the fields below, with the value as decimal text:
//
//   <table> <thread_num>2</thread_num> <cache_log>8</cache_log> ... </table>
//
// A reader takes the elements in any order and ignores others. A number is read as optional blanks,
// an optional sign and digits; what follows the digits is ignored. A setting that is missing or has
// no digits takes its default; the low 32 bits of the number count and are clamped to the range
// given below, so that no value can starve a queue or divide by zero.
//
// Takes no locks: the settings stay as they are while the table is open.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "base/status.h"

struct zem_cfg {
  std::uint32_t thread_num = 2;     // worker threads, and loader threads of an open; 1 to 256
  std::uint32_t cache_log = 8;      // MiB of cached blocks a log map; 0 to 4095, 0: unlimited
  std::uint32_t cache_key = 16;     // MiB of cached blocks a data index; 0 to 4095, 0: unlimited
  std::uint32_t cache_val = 16;     // kept for hosts that set it; nothing uses it
  std::uint32_t commit_num = 8192;  // postings at which a pending batch is routed; at least 1
  std::uint32_t merge_num = 8;      // MiB of log at which a shard asks for a merge; 1 to 4095
  std::uint32_t split_num = 512;    // MiB of data at which a merge becomes a split; 1 to 4095
  std::uint32_t flush_time = 60;    // quiet seconds after which the timer routes and commits
  std::uint32_t commit_time = 50;   // ms of one sleep of a writer that is slowed down
  std::uint32_t merge_time = 20;    // ms of pause after every 256 data blocks written; 0: none
};

// One setting as the file names it. Values outside of its range take the nearest one in it.
struct zem_cfg_setting {
  static constexpr std::uint32_t any = std::numeric_limits<std::uint32_t>::max();
  static constexpr std::uint32_t mib_max = 4095;
  static constexpr std::uint32_t threads_max = 256;
  std::string_view key;
  std::uint32_t zem_cfg::*field;
  std::uint32_t least;
  std::uint32_t most;
};

// In the order in which they are written.
inline constexpr std::array zem_cfg_settings{
    zem_cfg_setting{"thread_num", &zem_cfg::thread_num, 1, zem_cfg_setting::threads_max},
    zem_cfg_setting{"cache_log", &zem_cfg::cache_log, 0, zem_cfg_setting::mib_max},
    zem_cfg_setting{"cache_key", &zem_cfg::cache_key, 0, zem_cfg_setting::mib_max},
    zem_cfg_setting{"cache_val", &zem_cfg::cache_val, 0, zem_cfg_setting::any},
    zem_cfg_setting{"commit_num", &zem_cfg::commit_num, 1, zem_cfg_setting::any},
    zem_cfg_setting{"merge_num", &zem_cfg::merge_num, 1, zem_cfg_setting::mib_max},
    zem_cfg_setting{"split_num", &zem_cfg::split_num, 1, zem_cfg_setting::mib_max},
    zem_cfg_setting{"flush_time", &zem_cfg::flush_time, 0, zem_cfg_setting::any},
    zem_cfg_setting{"commit_time", &zem_cfg::commit_time, 0, zem_cfg_setting::any},
    zem_cfg_setting{"merge_time", &zem_cfg::merge_time, 0, zem_cfg_setting::any},
};

// A setting in MiB as bytes; 64 bits, so nothing wraps at 4 GiB.
inline constexpr std::uint64_t zem_cfg_bytes(std::uint32_t mib) noexcept {
  return std::uint64_t{mib} << 20;
}

// Writes the defaults to the file at `path`, which is replaced as a whole. The caller syncs the
// directory.
zem_status zem_cfg_write(const std::string &path);

// Reads the file at `path`. Every field of `cfg` is set in any case, to its default where the file
// gives none; a failure only tells the caller why the administrator's values are not in force.
//
// A missing file is no failure. Errors: -EINVAL for a file that is no XML, or the file's own.
zem_status zem_cfg_read(zem_cfg &cfg, const std::string &path);
