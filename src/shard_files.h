// The files of one shard: their names, and what a crash in the middle of a merge left of them.
//
//   name             file
//   sdb_N.log        live log
//   sdb_N_m.log      log set aside while a merge or split runs
//   sdb_N.dat        data file
//   sdb_N_m.dat      data file that a merge is writing
//   sdb_N_t.dat      the former data file during the last steps of a merge
//
// N is the shard's number, in the table's directory.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "base/status.h"

namespace zem_suffix {
inline constexpr const char *log = ".log";
inline constexpr const char *frozen_log = "_m.log";
inline constexpr const char *dat = ".dat";
inline constexpr const char *new_dat = "_m.dat";
inline constexpr const char *old_dat = "_t.dat";
inline constexpr std::array<const char *, 5> all = {log, frozen_log, dat, new_dat, old_dat};
}  // namespace zem_suffix

std::string zem_shard_fname(const std::string &directory, std::uint32_t id, const char *suffix);

// Whether `name` (without directory) is a shard file's.
bool zem_shard_owns(const std::string &name) noexcept;

// Removes every file of a shard number, so that nothing stray can come back. Goes on past a failure
// and returns the first.
zem_status zem_shard_purge(const std::string &directory, std::uint32_t id);

// Completes or undoes the merge that a crash cut short, before the shard's files are opened:
//
//   "_t.dat"  ".dat"  "_m.dat"  "_m.log"
//   yes       no      no        any       the old data file goes back to ".dat"
//   yes       any     yes       any       "_m.dat" becomes ".dat"; then as below
//   yes       yes     no        any       "_m.log" and "_t.dat" are removed
//   no        no      any       any       "_m.log" and ".log" are removed, with an error line
//   no        yes     any       yes       "_m.dat" is removed; "_m.log" stays and is loaded
//   no        yes     any       no        nothing
//
// Stops at the first step that fails; the shard must not be opened then. The directory is durable
// as found before the first step, and as renamed before the first removal.
zem_status zem_shard_recover(const std::string &directory, std::uint32_t id, zem_err *err_log);
