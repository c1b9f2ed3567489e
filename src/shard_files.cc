#include "src/shard_files.h"

#include <charconv>
#include <cstdio>
#include <string_view>

#include "base/err.h"
#include "base/file.h"

std::string zem_shard_fname(const std::string &directory, std::uint32_t id, const char *suffix) {
  std::array<char, 40> name{};
  std::snprintf(name.data(), name.size(), "sdb_%d%s", static_cast<std::int32_t>(id), suffix);
  return zem_dir_merge(directory, name.data());
}

bool zem_shard_owns(const std::string &name) noexcept {
  constexpr std::string_view prefix = "sdb_";
  std::string_view rest = name;
  if (!rest.starts_with(prefix)) return false;
  rest.remove_prefix(prefix.size());
  std::int32_t number = 0;
  const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
  if (error != std::errc{}) return false;
  rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
  for (const char *suffix : zem_suffix::all) {
    if (rest == suffix) return true;
  }
  return false;
}

zem_status zem_shard_purge(const std::string &directory, std::uint32_t id) {
  zem_status first = zem_ok;
  for (const char *suffix : zem_suffix::all) {
    const zem_status removed = zem_file_remove_if_exists(zem_shard_fname(directory, id, suffix));
    first = zem_status_first(first, removed);
  }
  return first < 0 ? first : zem_ok;
}

namespace {

// The five names of one shard and which of them exist.
struct shard_names {
  std::string log, frozen_log, dat, new_dat, old_dat;
  bool has_log = false, has_frozen_log = false, has_dat = false, has_new_dat = false,
       has_old_dat = false;
};

zem_status look(const std::string &name, bool &exists) {
  const zem_status found = zem_file_exist(name);
  exists = found > 0;
  return found < 0 ? found : zem_ok;
}

zem_status look_at_all(const std::string &directory, std::uint32_t id, shard_names &names) {
  names.log = zem_shard_fname(directory, id, zem_suffix::log);
  names.frozen_log = zem_shard_fname(directory, id, zem_suffix::frozen_log);
  names.dat = zem_shard_fname(directory, id, zem_suffix::dat);
  names.new_dat = zem_shard_fname(directory, id, zem_suffix::new_dat);
  names.old_dat = zem_shard_fname(directory, id, zem_suffix::old_dat);
  if (zem_status st = look(names.log, names.has_log); st < 0) return st;
  if (zem_status st = look(names.frozen_log, names.has_frozen_log); st < 0) return st;
  if (zem_status st = look(names.dat, names.has_dat); st < 0) return st;
  if (zem_status st = look(names.new_dat, names.has_new_dat); st < 0) return st;
  return look(names.old_dat, names.has_old_dat);
}

// The merge had its new data file complete when it set the old one aside: its last steps are done
// again. Each removal may be repeated, so a crash in here is met by the same row.
zem_status finish_merge(const std::string &directory, const shard_names &names) {
  if (names.has_new_dat) {
    if (zem_status st = zem_file_rename(names.new_dat, names.dat); st < 0) return st;
  }
  if (zem_status st = zem_dir_sync(directory); st < 0) return st;
  if (zem_status st = zem_file_remove_if_exists(names.frozen_log); st < 0) return st;
  return zem_file_remove(names.old_dat);
}

zem_status empty_without_data(std::uint32_t id, const shard_names &names, zem_err *err_log) {
  zem_err_log(err_log, 0, "shard %d has no data file %s: its logs are removed",
              static_cast<std::int32_t>(id), names.dat.c_str());
  if (zem_status st = zem_file_remove_if_exists(names.frozen_log); st < 0) return st;
  const zem_status removed = zem_file_remove_if_exists(names.log);
  return removed < 0 ? removed : zem_ok;
}

}  // namespace

zem_status zem_shard_recover(const std::string &directory, std::uint32_t id, zem_err *err_log) {
  shard_names names;
  if (zem_status st = look_at_all(directory, id, names); st < 0) return st;
  if (names.has_old_dat) {
    if (!names.has_dat && !names.has_new_dat) return zem_file_rename(names.old_dat, names.dat);
    return finish_merge(directory, names);
  }
  if (!names.has_dat) return empty_without_data(id, names, err_log);
  if (names.has_frozen_log && names.has_new_dat) return zem_file_remove(names.new_dat);
  return zem_ok;
}
