// The shard list file "sdb.lst", and what a table does when it is missing or makes no sense.

#include "src/table.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "base/err.h"
#include "base/file.h"

#include "src/shard_files.h"
#include "src/table_impl.h"

namespace {

constexpr char list_separator = '\n';
constexpr std::size_t list_bytes_max = 64 << 20;  // more than a list can need
constexpr const char *aside_suffix = ".old";

// What the text of a list comes to.
struct list_content {
  std::vector<std::uint32_t> numbers;  // in the order of the file, each once
  bool odd = false;                    // it holds lines that are no numbers
};

std::string_view trim(std::string_view line) noexcept {
  constexpr std::string_view blanks = " \t\r";
  const std::size_t first = line.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(blanks) - first + 1);
}

bool parse_number(std::string_view line, std::uint32_t &number) noexcept {
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
  return error == std::errc{} && end == line.data() + line.size();
}

void skip_line(const zem_table &table, std::string_view line, const char *why) {
  constexpr int shown = 60;
  zem_err_log(table.err_log, 0, "table %s: %s: \"%.*s\" is skipped: %s", table.name.c_str(),
              zem_table_list_file, std::min(static_cast<int>(line.size()), shown), line.data(),
              why);
}

void parse_line(const zem_table &table, std::string_view line, list_content &content) {
  std::uint32_t number = 0;
  if (!parse_number(line, number)) {
    content.odd = true;
    skip_line(table, line, "no shard number");
  } else if (number == 0) {
    skip_line(table, line, "no shard has number 0");
  } else {
    content.numbers.push_back(number);
  }
}

// Sorts the numbers and drops those that came before.
void sort_numbers(const zem_table &table, std::vector<std::uint32_t> &numbers) {
  std::sort(numbers.begin(), numbers.end());
  for (std::size_t i = 1; i < numbers.size(); ++i) {
    if (numbers[i] == numbers[i - 1]) skip_line(table, std::to_string(numbers[i]), "listed twice");
  }
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
}

list_content parse_list(const zem_table &table, std::string_view text) {
  list_content content;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(list_separator), text.size());
    const std::string_view line = trim(text.substr(0, end));
    if (!line.empty()) parse_line(table, line, content);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  sort_numbers(table, content.numbers);
  return content;
}

// Renames a shard file that holds anything aside; an empty one is worth nothing.
zem_status set_aside(const zem_table &table, const std::string &name) {
  zem_file file;
  file.name = zem_dir_merge(table.path, name);
  if (zem_status st = zem_file_open(file, zem_file_mode::existing); st < 0) return st;
  if (file.size == 0) return zem_ok;
  std::string aside;
  if (zem_status st = zem_file_free_name(file.name + aside_suffix, aside); st < 0) return st;
  zem_err_log(table.err_log, 0, "table %s: no shard list names %s: renamed to %s",
              table.name.c_str(), file.name.c_str(), aside.c_str());
  return zem_file_rename(file.name, aside);
}

zem_status set_all_aside(const zem_table &table) {
  std::vector<std::string> names;
  if (zem_status st = zem_dir_files(table.path, names); st < 0) return st;
  for (const std::string &name : names) {
    if (!zem_shard_owns(name)) continue;
    if (zem_status st = set_aside(table, name); st < 0) return st;
  }
  return zem_dir_sync(table.path);
}

std::string list_text(const std::vector<std::uint32_t> &numbers) {
  std::string text;
  for (const std::uint32_t number : numbers) {
    if (!text.empty()) text += list_separator;
    text += std::to_string(number);
  }
  return text;
}

zem_status copy_aside(const zem_table &table, const std::string &list) {
  std::string aside;
  if (zem_status st = zem_file_free_name(list + aside_suffix, aside); st < 0) return st;
  zem_err_log(table.err_log, 0, "table %s: %s holds lines that are no shard numbers: copied to %s",
              table.name.c_str(), list.c_str(), aside.c_str());
  if (zem_status st = zem_file_copy(list, aside); st < 0) return st;
  return zem_dir_sync(table.path);  // the copy has its name before the list loses its content
}

}  // namespace

zem_status zem_table_read(zem_table &table, std::vector<std::uint32_t> &numbers) {
  const std::string list = zem_dir_merge(table.path, zem_table_list_file);
  std::string text;
  const zem_status read = zem_file_get_string(list, list_bytes_max, text);
  const bool missing = read == -ENOENT;
  if (read < 0 && !missing) return read;
  list_content content = parse_list(table, text);
  table.list_odd = content.odd;
  numbers.swap(content.numbers);
  if (!numbers.empty()) return zem_yes;
  // An empty list is what a clear leaves when it is cut short: its shards' files mean nothing. A
  // list that is gone, or has become something else, must not cost the files that it named.
  return missing || !text.empty() ? set_all_aside(table) : zem_ok;
}

zem_status zem_table_write(zem_table &table, const std::vector<std::uint32_t> &numbers) {
  if (table.incomplete) return zem_status{ZEM_SDB_E_SHARD};
  const std::string list = zem_dir_merge(table.path, zem_table_list_file);
  if (table.list_odd) {
    if (zem_status st = copy_aside(table, list); st < 0) return st;
    table.list_odd = false;
  }
  std::string text = list_text(numbers);
  if (zem_status st = zem_file_set_string(list, text); st < 0) return st;
  table.list_owed.reset();
  if (zem_status st = zem_dir_sync(table.path); st < 0) {
    zem_err_log(table.err_log, 0, "table %s: %s may not survive a power cut: %d",
                table.name.c_str(), list.c_str(), st);
    table.list_owed = std::move(text);
  }
  return zem_ok;
}

void zem_table_owe(zem_table &table) {
  zem_read_guard held(table.lock);
  table.list_owed = list_text(zem_table_numbers(table));
}

zem_status zem_table_restore(zem_table &table) {
  if (!table.list_owed) return zem_ok;
  const std::string list = zem_dir_merge(table.path, zem_table_list_file);
  zem_status st = zem_file_set_string(list, *table.list_owed);
  if (st >= 0) st = zem_dir_sync(table.path);
  if (st >= 0) {
    table.list_owed.reset();
  } else {
    zem_err_log(table.err_log, 0, "table %s: %s still may not survive a power cut: %d",
                table.name.c_str(), list.c_str(), st);
  }
  return st;
}

zem_status zem_table_write_empty(zem_table &table, std::vector<std::uint32_t> &numbers) {
  const std::string list = zem_dir_merge(table.path, zem_table_list_file);
  std::string former;
  if (table.list_owed) {
    former = *table.list_owed;
  } else {
    const zem_status read = zem_file_get_string(list, list_bytes_max, former);
    if (read < 0 && read != -ENOENT) return read;
  }
  numbers = parse_list(table, former).numbers;
  if (zem_status st = zem_file_set_string(list, std::string()); st < 0) return st;
  if (zem_status st = zem_dir_sync(table.path); st < 0) {
    table.list_owed = std::move(former);
    std::ignore = zem_table_restore(table);
    return st;
  }
  table.list_owed.reset();
  table.incomplete = false;  // a shard that did not open goes as well
  table.list_odd = false;
  return zem_ok;
}
