// The exported functions of bulk loads, and the registry of those that are open.
//
// A call pins its load. Whoever takes the load's handle out waits for the pins, ends the load if nobody
// has, and strikes it off the registry; the table waits until none of its loads is there.

#include <algorithm>
#include <cstring>

#include "base/scope.h"

#include "src/sdb_call.h"

namespace {

std::uint64_t issue(zem_sdb &sdb, std::unique_ptr<zem_exec> exec) {
  zem_lock_guard held(sdb.loads_mutex);
  // Whoever withdraws the table's loads sets one of these first, and looks at the registry afterwards.
  if (exec->table->closing || !exec->table->open) return 0;
  sdb.loads.reserve(sdb.loads.size() + 1);
  exec->ref.obj = exec.get();
  const std::uint64_t handle = zem_hmap_add(sdb.execs, exec->ref);
  if (handle == 0) return 0;
  exec->handle = handle;
  sdb.loads.push_back(std::move(exec));
  return handle;
}

zem_status open_load(zem_sdb &sdb, zem_table &table, std::uint64_t &handle, std::uint32_t &number) {
  if (zem_status st = zem_table_hold(table); st < 0) return st;
  zem_on_exit unhold([&] { zem_table_unhold(table); });
  auto exec = std::make_unique<zem_exec>();
  if (zem_status st = zem_exec_open(*exec, table); st < 0) return st;
  const std::uint32_t id = exec->shard->id;
  const std::uint64_t issued = issue(sdb, std::move(exec));
  if (issued == 0) return zem_status{ZEM_SDB_E_CLOSED};
  handle = issued;
  number = id;
  return zem_ok;
}

// Lets an ended load go, or one to be given up, whose handle the caller has taken out.
void retire(zem_sdb &sdb, zem_exec &exec) {
  zem_hmap_unpinned(sdb.execs, exec.ref);
  zem_exec_close(exec);
  std::unique_ptr<zem_exec> gone;
  zem_lock_guard held(sdb.loads_mutex);
  const auto place = std::find_if(sdb.loads.begin(), sdb.loads.end(),
                                  [&](const auto &load) { return load.get() == &exec; });
  gone = std::move(*place);
  sdb.loads.erase(place);
  sdb.loads_changed.wake_all();
}

// Runs an operation on a load, whose table is neither cleared nor released meanwhile.
template <class Operation>
std::int32_t call_load(zem_sdb *sdb, std::uint64_t handle, Operation &&operation) {
  if (sdb == nullptr) return -EINVAL;
  const zem_pin<zem_exec> exec = zem_hmap_get(sdb->execs, handle);
  if (!exec) return ZEM_SDB_E_HANDLE;
  return zem_boundary([&] {
    zem_table &table = *exec->table;
    if (zem_status st = zem_table_hold(table); st < 0) return st;
    zem_on_exit unhold([&] { zem_table_unhold(table); });
    return operation(*exec);
  });
}

void retire_handle(zem_sdb &sdb, std::uint64_t handle) {
  zem_ref<zem_exec> *ref = nullptr;
  if (zem_exec *exec = zem_hmap_del(sdb.execs, handle, ref)) retire(sdb, *exec);
}

zem_exec *find_load(zem_sdb &sdb, const zem_table &table) ZEM_REQUIRES(sdb.loads_mutex) {
  const auto found = std::find_if(sdb.loads.begin(), sdb.loads.end(),
                                  [&](const auto &load) { return load->table == &table; });
  return found == sdb.loads.end() ? nullptr : found->get();
}

// Takes out the handle of one of the table's loads. Where a call of the host's has done so, waits until
// that has retired it. Null: no load is left.
zem_exec *take_load(zem_sdb &sdb, const zem_table &table) {
  zem_lock_guard held(sdb.loads_mutex);
  while (zem_exec *exec = find_load(sdb, table)) {
    zem_ref<zem_exec> *ref = nullptr;
    if (zem_hmap_del(sdb.execs, exec->handle, ref) != nullptr) return exec;
    sdb.loads_changed.wait(sdb.loads_mutex);
  }
  return nullptr;
}

}  // namespace

void zem_sdb_withdraw_loads(zem_sdb &sdb, const zem_table &table) {
  while (zem_exec *exec = take_load(sdb, table))
    retire(sdb, *exec);
}

int32_t zem_sdb_exec_open(zem_sdb *sdb, uint64_t table, uint64_t *load, uint32_t *shard) {
  if (load == nullptr || shard == nullptr) return -EINVAL;
  return zem_sdb_call(sdb, table, nullptr,
                      [&](zem_table &opened) { return open_load(*sdb, opened, *load, *shard); });
}

int32_t zem_sdb_exec_load(zem_sdb *sdb, uint64_t load, zem_doc *batch, int to_data) {
  if (batch == nullptr) return -EINVAL;
  return call_load(sdb, load, [&](zem_exec &exec) {
    return to_data != 0 ? zem_exec_load(exec, *batch) : zem_exec_load_x(exec, *batch);
  });
}

int32_t zem_sdb_exec_commit(zem_sdb *sdb, uint64_t load, int to_data) {
  return call_load(sdb, load, [&](zem_exec &exec) {
    return to_data != 0 ? zem_exec_commit(exec) : zem_exec_commit_x(exec);
  });
}

int32_t zem_sdb_exec_close(zem_sdb *sdb, uint64_t load, uint64_t *id, uint32_t term[3]) {
  if (id == nullptr || term == nullptr) return -EINVAL;
  const std::int32_t st = call_load(sdb, load, [&](zem_exec &exec) {
    zem_mkey key;
    if (zem_status appended = zem_exec_append(exec, key); appended < 0) return appended;
    *id = key.id;
    std::memcpy(term, key.term.data(), sizeof key.term);
    return zem_ok;
  });
  if (st >= 0) retire_handle(*sdb, load);
  return st;
}

int32_t zem_sdb_exec_cancel(zem_sdb *sdb, uint64_t load) {
  const std::int32_t st = call_load(sdb, load, [&](zem_exec &exec) {
    zem_exec_close(exec);
    return zem_ok;
  });
  if (st >= 0) retire_handle(*sdb, load);
  return st;
}
