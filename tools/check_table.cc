#include "tools/check_table.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <string_view>

#include "base/xml.h"

#include "src/data_config.h"
#include "src/shard_files.h"
#include "src/table.h"
#include "tools/catalog.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t list_bytes_max = std::size_t{64} << 20;  // more than a list can need

std::string path_of(const check_table &table, const std::string &name) {
  return zem_dir_merge(table.directory, name);
}

bool exists(const check_table &table, const std::string &name) {
  return table.names.contains(name);
}

std::string_view trim(std::string_view text, std::string_view blanks) {
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// ---- settings ----

// Whether a text is a number from `least` to `most`, and nothing else.
bool is_number_within(std::string_view text, std::uint32_t least, std::uint32_t most) {
  std::uint32_t number = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  return parsed.ec == std::errc{} && parsed.ptr == text.data() + text.size() && number >= least &&
         number <= most;
}

void read_settings(check_run &run, const check_table &table) {
  const check_place place = {.file = zem_table_cfg_file};
  if (!exists(table, zem_table_cfg_file)) {
    return check_note(run, "settings", place, "there is no such file; the defaults apply");
  }
  std::string text;
  zem_cfg cfg;
  zem_xml xml;
  const std::string path = path_of(table, zem_table_cfg_file);
  const zem_status read = zem_file_get_string(path, zem_xml_size_max, text);
  if (read < 0 || !zem_xml_set(xml, text) || zem_cfg_read(cfg, path) < 0) {
    return check_damage(run, "settings", place, "the settings cannot be read; the defaults apply");
  }
  ++run.files;
  for (const zem_cfg_setting &each : zem_cfg_settings) {
    const zem_xml_item *element = zem_xml_find_name(zem_xml_root(xml), each.key);
    if (element == nullptr) continue;
    const std::string_view value = trim(zem_xml_text(*element), " \t\r\n");
    if (is_number_within(value, each.least, each.most)) continue;
    check_note(run, "setting", place,
               std::string(each.key) + " is '" + std::string(value) + "' and is taken as " +
                   std::to_string(cfg.*each.field));
  }
}

// ---- the list ----

struct shard_list {
  bool there = false;
  bool odd = false;   // it holds lines that are no shard numbers, or could not be read
  bool empty = true;  // it holds nothing
  std::set<std::uint32_t> numbers;
};

void read_line(check_run &run, std::string_view line, std::size_t at, shard_list &list) {
  const check_place place = {.file = zem_table_list_file, .byte = at};
  constexpr std::size_t shown = 60;
  const std::string quoted = "'" + std::string(line.substr(0, shown)) + "'";
  std::uint32_t number = 0;
  const auto parsed = std::from_chars(line.data(), line.data() + line.size(), number);
  if (parsed.ec != std::errc{} || parsed.ptr != line.data() + line.size() || number == 0) {
    list.odd = true;
    check_damage(run, "list-line", place,
                 quoted + " is no shard's number; an open skips the line and sets a copy aside");
    return;
  }
  const bool ascends = list.numbers.empty() || number > *list.numbers.rbegin();
  const bool fresh = list.numbers.insert(number).second;
  if (!fresh) check_note(run, "list-order", place, quoted + " is listed twice");
  if (fresh && !ascends) check_note(run, "list-order", place, quoted + " is out of order");
}

shard_list read_list(check_run &run, const check_table &table) {
  shard_list list;
  list.there = exists(table, zem_table_list_file);
  if (!list.there) return list;
  std::string text;
  const zem_status st =
      zem_file_get_string(path_of(table, zem_table_list_file), list_bytes_max, text);
  if (st < 0) {
    list.odd = true;
    list.empty = false;
    check_damage(run, "unreadable", {.file = zem_table_list_file},
                 tool_problem_errno("cannot be read", -st).sentence);
    return list;
  }
  ++run.files;
  list.empty = text.empty();
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const std::string_view line = trim(std::string_view(text).substr(at, end - at), " \t\r");
    if (!line.empty()) {
      read_line(run, line, static_cast<std::size_t>(line.data() - text.data()), list);
    }
    at = end + 1;
  }
  return list;
}

// ---- names ----

// The number in the name of a shard file; 0 for a name that is none.
std::uint32_t shard_number(const std::string &name) {
  constexpr std::size_t prefix = 4;  // "sdb_"
  if (!zem_shard_owns(name)) return 0;
  std::int32_t number = 0;
  std::from_chars(name.data() + prefix, name.data() + name.size(), number);
  const std::string suffix = name.substr(name.find_first_not_of("-0123456789", prefix));
  const auto wanted = static_cast<std::uint32_t>(number);
  // Other spellings of a number, as 007, are no names that the library looks for.
  return zem_shard_fname("", wanted, suffix.c_str()) == name ? wanted : 0;
}

bool holds_anything(const check_table &table, const std::string &name) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(path_of(table, name), error);
  return error || size > 0;
}

// The numbers whose files hold anything.
std::set<std::uint32_t> numbers_of_files(const check_table &table) {
  std::set<std::uint32_t> numbers;
  for (const std::string &name : table.names) {
    const std::uint32_t number = shard_number(name);
    if (number != 0 && holds_anything(table, name)) numbers.insert(number);
  }
  return numbers;
}

bool is_copy_aside(const std::string &name) {
  return name.starts_with("sdb") &&
         (name.find(".bad") != std::string::npos || name.find(".old") != std::string::npos);
}

// What a file is doing in the directory, for one that no shard of the list has.
void name_note(check_run &run, const std::string &name) {
  const check_place place = {.file = name};
  if (shard_number(name) != 0) {
    check_note(run, "stray", place,
               "no list names the shard: what a split, a load or a clear left that was cut short; "
               "when none of the table's postings is missing, remove it");
  } else if (is_copy_aside(name)) {
    check_note(run, "aside", place,
               "a copy that an open set aside before it gave up a damaged part; look into it, then "
               "remove it");
  } else if (name.starts_with("sdb") && name.ends_with(".tmp")) {
    check_note(run, "temporary", place, "a file whose writing was cut short; it is worth nothing");
  } else {
    check_note(run, "foreign", place, "no file of a table");
  }
}

bool is_known(const std::string &name) {
  return name == zem_table_cfg_file || name == zem_table_list_file || name == tool_catalog_name;
}

// ---- shards ----

struct shard_names {
  std::string log, frozen_log, dat, new_dat, old_dat;
};

shard_names names_of(std::uint32_t number) {
  const auto name = [number](const char *suffix) { return zem_shard_fname("", number, suffix); };
  return {.log = name(zem_suffix::log),
          .frozen_log = name(zem_suffix::frozen_log),
          .dat = name(zem_suffix::dat),
          .new_dat = name(zem_suffix::new_dat),
          .old_dat = name(zem_suffix::old_dat)};
}

void leftover(check_run &run, const check_table &table, const std::string &name,
              const char *words) {
  if (exists(table, name)) check_note(run, "leftover", {.file = name}, words);
}

// The merge had its new data file complete: an open finishes it.
void plan_finished_merge(check_run &run, const check_table &table, const shard_names &names,
                         check_shard &shard) {
  leftover(run, table, names.new_dat,
           "the data file of a merge that was cut short when it was complete; an open puts it in "
           "place");
  leftover(run, table, names.old_dat,
           "the former data file of a merge that was cut short; an open removes it");
  leftover(run, table, names.frozen_log,
           "the log of a merge that was cut short when its data file was complete; an open removes "
           "it");
  shard.dat = exists(table, names.new_dat) ? names.new_dat : names.dat;
}

// No data file is in place: an open gives the logs up.
void plan_without_data(check_run &run, const check_table &table, const shard_names &names,
                       check_shard &shard) {
  const bool nothing = !exists(table, names.new_dat) && !exists(table, names.log) &&
                       !exists(table, names.frozen_log);
  check_damage(run, "no-data-file", {.file = names.dat},
               nothing ? "the list names the shard, but none of its files is there"
                       : "the data file is gone; an open removes the shard's logs");
  if (exists(table, names.new_dat)) shard.dat = names.new_dat;
  if (exists(table, names.frozen_log)) shard.frozen_log = names.frozen_log;
}

void plan_unfinished_merge(check_run &run, const check_table &table, const shard_names &names,
                           check_shard &shard) {
  shard.dat = names.dat;
  leftover(run, table, names.new_dat,
           "the data file of a merge that was cut short; it is removed, and the merge done again");
  leftover(run, table, names.frozen_log,
           "the log of a merge that has not ended; an open loads it and merges it");
  if (exists(table, names.frozen_log)) shard.frozen_log = names.frozen_log;
}

// Which files an open takes, by the rows of zem_shard_recover.
check_shard plan_shard(check_run &run, const check_table &table, std::uint32_t number) {
  const shard_names names = names_of(number);
  check_shard shard;
  shard.number = number;
  const bool old_dat = exists(table, names.old_dat);
  const bool dat = exists(table, names.dat);
  if (old_dat && !dat && !exists(table, names.new_dat)) {
    leftover(run, table, names.old_dat,
             "the data file of a merge that was cut short; an open gives it its name back");
    plan_unfinished_merge(run, table, names, shard);
    shard.dat = names.old_dat;
  } else if (old_dat) {
    plan_finished_merge(run, table, names, shard);
  } else if (!dat) {
    plan_without_data(run, table, names, shard);
  } else {
    plan_unfinished_merge(run, table, names, shard);
  }
  if (exists(table, names.log)) {
    shard.log = names.log;
  } else if (dat && !old_dat && !exists(table, names.frozen_log)) {
    check_damage(run, "no-log", {.file = names.log}, "the log is gone; an open makes an empty one");
  }
  return shard;
}

// Says what an open makes of a table whose list names no shard, and whether its files mean anything.
bool judge_no_list(check_run &run, const shard_list &list, bool any_files) {
  const check_place place = {.file = zem_table_list_file};
  if (list.there && list.empty) {
    if (any_files)
      check_note(run, "list-empty", place,
                 "a clear of the table was cut short; an open starts it anew");
    return false;
  }
  if (list.there || any_files) {
    check_damage(run, "list", place,
                 list.there ? "the list names no shard; an open renames all shard files aside"
                            : "the list is gone; an open renames all shard files aside");
  }
  return true;
}

}  // namespace

tool_problem check_table_open(check_table &table, const std::string &root,
                              const std::string &name) {
  table.directory = (fs::path(root) / name).string();
  std::error_code error;
  const bool plain =
      !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
  std::vector<std::string> names;
  if (!plain || !fs::is_directory(table.directory, error))
    return {"there is no table " + name + " in " + root};
  const zem_status locked = zem_dir_lock(table.directory, table.lock);
  if (locked == -EWOULDBLOCK)
    return {"table " + name + " is open in another process: wait until that ends and try again"};
  if (locked < 0) return tool_problem_errno("locking " + table.directory, -locked);
  if (zem_status st = zem_dir_files(table.directory, names); st < 0)
    return tool_problem_errno("reading " + table.directory, -st);
  table.names = {names.begin(), names.end()};
  const bool any = std::any_of(names.begin(), names.end(), [](const std::string &each) {
    return is_known(each) || shard_number(each) != 0;
  });
  if (!any) return {table.directory + " is no table: it holds no file of one"};
  return {};
}

void check_table_read(check_run &run, check_table &table, bool salvage) {
  read_settings(run, table);
  shard_list list = read_list(run, table);
  const std::set<std::uint32_t> found = numbers_of_files(table);
  bool by_files = false;
  if (list.numbers.empty()) by_files = judge_no_list(run, list, !found.empty());
  if (by_files || (salvage && list.odd)) list.numbers.insert(found.begin(), found.end());

  for (const std::string &name : table.names) {
    const std::uint32_t number = shard_number(name);
    const bool listed = number != 0 && list.numbers.contains(number);
    if (!listed && !is_known(name)) name_note(run, name);
  }
  for (const std::uint32_t number : list.numbers)
    table.shards.push_back(plan_shard(run, table, number));
}

std::uint64_t check_table_bytes(const check_table &table) {
  std::uint64_t bytes = 1;
  for (const check_shard &shard : table.shards) {
    for (const std::string *name : {&shard.dat, &shard.frozen_log, &shard.log}) {
      std::error_code error;
      const std::uintmax_t size = name->empty() ? 0 : fs::file_size(path_of(table, *name), error);
      if (!error) bytes += size;
    }
  }
  return bytes;
}
