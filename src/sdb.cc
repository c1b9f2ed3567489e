#include "src/sdb.h"

#include <cstring>
#include <memory>

#include "base/err.h"
#include "base/file.h"
#include "base/scope.h"
#include "base/var.h"

namespace {

constexpr const char *version = "0.1.0";

zem_status zem_sdb_load(zem_sdb &sdb) {
  std::vector<std::string> names;
  const zem_status st = zem_dir_list(sdb.path, names);
  if (st == -ENOENT) return zem_ok;
  if (st < 0) return st;
  zem_write_guard held(sdb.lock);
  for (const std::string &name : names)
    sdb.names.try_emplace(name);
  return zem_ok;
}

// A name becomes a directory below the root, and stands in log lines.
bool valid_name(std::string_view name) noexcept {
  if (name.empty() || name == "." || name == "..") return false;
  for (const char letter : name) {
    const auto code = static_cast<unsigned char>(letter);
    if (letter == '/' || code < 0x20 || code == 0x7f) return false;
  }
  return true;
}

// Fills a new table directory and makes it and its entry in the root durable.
zem_status furnish(const zem_sdb &sdb, const std::string &directory) {
  const zem_status written = zem_cfg_write(zem_dir_merge(directory, zem_table_cfg_file));
  if (written < 0) {  // the table works on defaults
    zem_err_log(sdb.err_log, 0, "%s in %s could not be written: %d", zem_table_cfg_file,
                directory.c_str(), written);
  }
  if (zem_status st = zem_dir_sync(directory); st < 0) return st;
  return zem_dir_sync(sdb.path);
}

zem_status create_table(zem_sdb &sdb, const std::string &name) {
  if (!valid_name(name)) return zem_status{-EINVAL};
  zem_write_guard held(sdb.lock);
  if (sdb.names.contains(name)) return zem_status{ZEM_SDB_E_NAME};
  const std::string directory = zem_dir_merge(sdb.path, name);
  if (zem_status st = zem_dir_make(sdb.path, name); st < 0) return st;
  zem_on_exit undo([&] { std::ignore = zem_dir_clear(directory); });
  if (zem_status st = furnish(sdb, directory); st < 0) return st;
  sdb.names.try_emplace(name);
  undo.release();
  return zem_ok;
}

zem_status drop_table(zem_sdb &sdb, const std::string &name) {
  zem_write_guard held(sdb.lock);
  const auto found = sdb.names.find(name);
  if (found == sdb.names.end() || found->second.obj != nullptr) return zem_status{ZEM_SDB_E_NAME};
  const std::string directory = zem_dir_merge(sdb.path, name);
  std::shared_ptr<zem_fd> lock;
  const zem_status locked = zem_dir_lock(directory, lock);
  if (locked == -EWOULDBLOCK) return zem_status{ZEM_SDB_E_NAME};
  if (locked < 0 && locked != -ENOENT) return locked;
  if (locked >= 0) {
    if (zem_status st = zem_dir_clear(directory); st < 0) return st;
    if (zem_status st = zem_dir_sync(sdb.path); st < 0) return st;
  }
  sdb.names.erase(found);
  return zem_ok;
}

void log_not_opened(const zem_sdb &sdb, const char *name, zem_status st) {
  if (st == -EWOULDBLOCK) {
    zem_err_log(
        sdb.err_log, 0,
        "table %s is open in another process or database: close it there, then open it here", name);
    return;
  }
  zem_err_log(sdb.err_log, 0, "table %s does not open: %s", name, zem_sdb_error(st));
}

// Builds the record of a table on its first open; null when it cannot be served.
std::unique_ptr<zem_table> open_record(const zem_sdb &sdb, const std::string &name) {
  auto table = std::make_unique<zem_table>();
  table->path = zem_dir_merge(sdb.path, name);
  table->name = name;
  table->err_log = sdb.err_log;
  table->callbacks = &sdb.callbacks;
  const std::string settings = zem_dir_merge(table->path, zem_table_cfg_file);
  if (zem_status st = zem_cfg_read(table->cfg, settings); st < 0) {
    zem_err_log(sdb.err_log, 0, "table %s: %s is not readable, defaults are used: %s", name.c_str(),
                settings.c_str(), zem_sdb_error(st));
  }
  bool served = false;
  const zem_status st = zem_table_open(*table, served);
  if (served) return table;
  log_not_opened(sdb, name.c_str(), st);
  return nullptr;
}

std::uint64_t open_table(zem_sdb &sdb, const std::string &name) {
  zem_write_guard held(sdb.lock);
  const auto found = sdb.names.find(name);
  if (found == sdb.names.end()) return 0;
  zem_ref<zem_table> &ref = found->second;
  if (ref.obj != nullptr) return zem_hmap_add(sdb.tables, ref);
  std::unique_ptr<zem_table> table = open_record(sdb, name);
  if (table == nullptr) return 0;
  ref.obj = table.get();
  zem_on_exit undo([&] { ref.obj = nullptr; });
  const std::uint64_t handle = zem_hmap_add(sdb.tables, ref);
  undo.release();
  std::ignore = table.release();  // the slot's, until the last handle goes
  return handle;
}

zem_status close_table(zem_sdb &sdb, std::uint64_t handle) {
  zem_write_guard held(sdb.lock);
  zem_ref<zem_table> *ref = nullptr;
  zem_table *record = zem_hmap_del(sdb.tables, handle, ref);
  if (record == nullptr) return zem_status{ZEM_SDB_E_HANDLE};
  if (ref->refs > 0) return zem_ok;
  const std::unique_ptr<zem_table> table(record);
  zem_table_close_begin(*table);
  zem_sdb_withdraw_loads(sdb, *table);
  zem_hmap_unpinned(sdb.tables, *ref);
  ref->obj = nullptr;
  const zem_status st = zem_boundary([&] { return zem_table_close(*table); });
  if (st < 0) zem_err_log(sdb.err_log, 0, "close error: %d", st);
  return st;
}

}  // namespace

zem_sdb *zem_sdb_new(const char *root, zem_err *log) {
  if (root == nullptr) return nullptr;
  return zem_boundary<zem_sdb *>(nullptr, [&] {
    auto sdb = std::make_unique<zem_sdb>();
    sdb->path = root;
    sdb->err_log = log;
    if (zem_status st = zem_sdb_load(*sdb); st < 0)
      zem_err_log(log, 0, "the tables of %s cannot be listed: %s", root, zem_sdb_error(st));
    return sdb.release();
  });
}

void zem_sdb_free(zem_sdb *sdb) {
  if (sdb == nullptr) return;
  // A failed close is logged by close_table and the table is closed all the same.
  while (const std::uint64_t handle = zem_hmap_any(sdb->tables))
    std::ignore = zem_boundary([&] { return close_table(*sdb, handle); });
  delete sdb;
}

void zem_sdb_callback(zem_sdb *sdb, uint32_t slot, zem_sdb_function function) {
  if (sdb == nullptr || slot < zem_sdb::first_slot || slot > zem_sdb::last_slot) return;
  sdb->callbacks[slot] = function;
}

int32_t zem_sdb_table_create(zem_sdb *sdb, const char *name) {
  if (sdb == nullptr || name == nullptr) return -EINVAL;
  return zem_boundary([&] { return create_table(*sdb, name); });
}

int32_t zem_sdb_table_drop(zem_sdb *sdb, const char *name) {
  if (sdb == nullptr || name == nullptr) return -EINVAL;
  return zem_boundary([&] { return drop_table(*sdb, name); });
}

void zem_sdb_table_list(zem_sdb *sdb, zem_var *names) {
  if (sdb == nullptr || names == nullptr) return;
  zem_var_shrink(names, 0);
  zem_read_guard held(sdb->lock);
  for (const auto &[name, ref] : sdb->names)
    zem_var_add_string(names, name.data(), static_cast<std::int64_t>(name.size()));
}

uint64_t zem_sdb_table_open(zem_sdb *sdb, const char *name) {
  if (sdb == nullptr || name == nullptr) return 0;
  std::uint64_t handle = 0;
  const zem_status st = zem_boundary([&] {
    handle = open_table(*sdb, name);
    return zem_ok;
  });
  if (st < 0) log_not_opened(*sdb, name, st);
  return handle;
}

int32_t zem_sdb_table_close(zem_sdb *sdb, uint64_t table) {
  if (sdb == nullptr) return -EINVAL;
  return zem_boundary([&] { return close_table(*sdb, table); });
}

const char *zem_sdb_error(int32_t code) {
  if (code >= 0) return "success";
  switch (code) {
    case ZEM_SDB_E_NAME:
      return "the table name is taken, unknown, or in use";
    case ZEM_SDB_E_HANDLE:
      return "unknown handle";
    case ZEM_SDB_E_CLOSED:
      return "the table is being cleared or closed";
    case ZEM_SDB_E_SHARD:
      return "no such shard";
    case ZEM_SDB_E_CHECKSUM:
      return "a block does not match its checksum: the file is damaged";
    case ZEM_SDB_E_KIND:
      return "a block is of the wrong kind: the file is damaged";
    default:
      break;
  }
  // The smallest number has no positive counterpart.
  const char *words = code == INT32_MIN ? nullptr : strerrordesc_np(-code);
  return words != nullptr ? words : "unknown error";
}

const char *zem_sdb_version(void) { return version; }
