// The frame that the exported functions on a table share: pin the table by its handle, run the
// operation, tell the host's log of a failure.
#pragma once

#include "base/err.h"
#include "base/status.h"

#include "src/sdb.h"

// `message` is a printf format for the code, or null when the function logs nothing. An unknown
// handle is no failure worth a line.
template <class Operation>
std::int32_t zem_sdb_call(zem_sdb *sdb, std::uint64_t handle, const char *message,
                          Operation &&operation) {
  if (sdb == nullptr) return -EINVAL;
  const zem_pin<zem_table> table = zem_hmap_get(sdb->tables, handle);
  if (!table) return ZEM_SDB_E_HANDLE;
  const zem_status st = zem_boundary([&] { return operation(*table); });
  if (st < 0 && message != nullptr) zem_err_log(sdb->err_log, 0, message, st);
  return st;
}
