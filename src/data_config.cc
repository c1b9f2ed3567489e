#include "src/data_config.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>
#include <system_error>

#include "base/file.h"
#include "base/xml.h"

namespace {

// The number that a text starts with, the nearest one of 64 bits when it is longer.
std::int64_t number_of(std::string_view text, std::int64_t otherwise) noexcept {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
  text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);

  std::uint64_t magnitude = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  if (parsed.ec == std::errc::invalid_argument) return otherwise;
  if (parsed.ec != std::errc{} || magnitude > static_cast<std::uint64_t>(most))
    return negative ? least : most;
  const auto value = static_cast<std::int64_t>(magnitude);
  return negative ? -value : value;
}

}  // namespace

zem_status zem_cfg_write(const std::string &path) {
  const zem_cfg defaults;
  zem_xml xml;
  zem_xml_item &table = zem_xml_root(xml);
  table.name = "table";
  for (const zem_cfg_setting &each : zem_cfg_settings) {
    zem_xml_item &element = zem_xml_append_element(xml, table, each.key);
    zem_xml_append_text(xml, element, std::to_string(defaults.*each.field));
  }
  return zem_file_set_string(path, zem_xml_get(xml));
}

zem_status zem_cfg_read(zem_cfg &cfg, const std::string &path) {
  cfg = zem_cfg{};
  std::string text;
  if (zem_status st = zem_file_get_string(path, zem_xml_size_max, text); st < 0)
    return st == -ENOENT ? zem_ok : st;
  zem_xml xml;
  if (!zem_xml_set(xml, text)) return zem_status{-EINVAL};

  for (const zem_cfg_setting &each : zem_cfg_settings) {
    const zem_xml_item *element = zem_xml_find_name(zem_xml_root(xml), each.key);
    if (element == nullptr) continue;
    const std::int64_t number = number_of(zem_xml_text(*element), cfg.*each.field);
    cfg.*each.field = std::clamp(static_cast<std::uint32_t>(number), each.least, each.most);
  }
  return zem_ok;
}
