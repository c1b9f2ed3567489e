// A database: the registry of table names, the handles of opened tables, the host's callbacks.
//
// Every subdirectory of the root is a table. A name stays registered until the table is dropped. The
// first open of a table builds its record, every further one adds a handle to it; the close of the
// last handle takes the record apart. Opening, the last close, create and drop run under the
// registry's lock for writing, so none of them meets another on the same table.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"

#include "src/data_handles.h"
#include "src/exec_load.h"
#include "src/table.h"

struct zem_sdb {
  zem_sdb() = default;
  zem_sdb(const zem_sdb &) = delete;
  zem_sdb &operator=(const zem_sdb &) = delete;

  static constexpr std::uint32_t first_slot = ZEM_SDB_SPLIT_OPEN;
  static constexpr std::uint32_t last_slot = ZEM_SDB_PEER_COMMIT;

  std::string path;            // the root; set once
  zem_err *err_log = nullptr;  // the host's, or null
  zem_hmap<zem_table> tables;
  zem_sdb_slots callbacks{};

  zem_hmap<zem_exec> execs;
  zem_mutex loads_mutex{zem_lock_rank::loads};
  zem_cond loads_changed;  // a load was struck off
  std::vector<std::unique_ptr<zem_exec>> loads ZEM_GUARDED_BY(loads_mutex);

  zem_rwlock lock{zem_lock_rank::registry};
  std::unordered_map<std::string, zem_ref<zem_table>> names ZEM_GUARDED_BY(lock);
};

// Takes the bulk loads of a table out of the host's hands and gives them up. No more can begin: the table
// is closing, or is not open. On return no call on one of them is in progress.
void zem_sdb_withdraw_loads(zem_sdb &sdb, const zem_table &table);
