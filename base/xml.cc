#include "base/xml.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

namespace {

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
constexpr std::string_view declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
constexpr std::size_t indent_levels_max = 8;  // deeper elements keep the indent of this level
constexpr std::uint32_t code_point_max = 0x10FFFF;

struct named_reference {
  std::string_view name;
  char character;
};
constexpr std::array<named_reference, 5> named_references{
    {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}}};

// The input, of which `left` is still to be read. Every take_ function moves on only when it
// succeeds.
struct xml_reader {
  std::string_view left;
  zem_xml &xml;
  zem_xml_item *open = nullptr;  // the element being read, null outside the root
  bool has_root = false;
};

bool is_blank(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Control characters have no place in a document, not even as references.
bool is_character(std::uint32_t code) noexcept {
  if (code < 0x20) return code == '\t' || code == '\n' || code == '\r';
  return code <= code_point_max && (code < 0xD800 || code > 0xDFFF);
}

bool begins_name(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool continues_name(char c) noexcept {
  return begins_name(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

bool take(xml_reader &reader, std::string_view expected) noexcept {
  if (!reader.left.starts_with(expected)) return false;
  reader.left.remove_prefix(expected.size());
  return true;
}

// Takes everything up to and with `end`.
bool take_through(xml_reader &reader, std::string_view end) noexcept {
  const std::size_t at = reader.left.find(end);
  if (at == std::string_view::npos) return false;
  reader.left.remove_prefix(at + end.size());
  return true;
}

void take_blanks(xml_reader &reader) noexcept {
  while (!reader.left.empty() && is_blank(reader.left.front()))
    reader.left.remove_prefix(1);
}

bool take_name(xml_reader &reader, std::string_view &name) noexcept {
  if (reader.left.empty() || !begins_name(reader.left.front())) return false;
  std::size_t length = 1;
  while (length < reader.left.size() && continues_name(reader.left[length]))
    ++length;
  name = reader.left.substr(0, length);
  reader.left.remove_prefix(length);
  return true;
}

bool take_quoted(xml_reader &reader) noexcept {
  if (take(reader, "\"")) return take_through(reader, "\"");
  return take(reader, "'") && take_through(reader, "'");
}

// Takes the rest of a document type, whose opening is taken, with the declarations it may hold in
// brackets.
bool take_doctype(xml_reader &reader) noexcept {
  bool in_brackets = false;
  while (!reader.left.empty()) {
    const char c = reader.left.front();
    if (c == '"' || c == '\'') {
      if (!take_quoted(reader)) return false;
      continue;
    }
    if (take(reader, "<!--")) {
      if (!take_through(reader, "-->")) return false;
      continue;
    }
    reader.left.remove_prefix(1);
    if (c == '[') in_brackets = true;
    if (c == ']') in_brackets = false;
    if (c == '>' && !in_brackets) return true;
  }
  return false;
}

void append_utf8(std::string &text, std::uint32_t code) {
  const auto tail = [code](unsigned shift) {
    return static_cast<char>(0x80 | ((code >> shift) & 0x3f));
  };
  if (code < 0x80) {
    text += static_cast<char>(code);
  } else if (code < 0x800) {
    text += {static_cast<char>(0xC0 | (code >> 6)), tail(0)};
  } else if (code < 0x10000) {
    text += {static_cast<char>(0xE0 | (code >> 12)), tail(6), tail(0)};
  } else {
    text += {static_cast<char>(0xF0 | (code >> 18)), tail(12), tail(6), tail(0)};
  }
}

// The value of `digit` in that base, or nothing.
std::optional<std::uint32_t> digit_value(char digit, std::uint32_t base) noexcept {
  constexpr std::string_view digits = "0123456789abcdef";
  const char lower = digit >= 'A' && digit <= 'F' ? static_cast<char>(digit - 'A' + 'a') : digit;
  const std::size_t value = digits.substr(0, base).find(lower);
  if (value == std::string_view::npos) return std::nullopt;
  return static_cast<std::uint32_t>(value);
}

// Appends what the number of a reference, "38" or "x26", stands for.
bool append_numeric(std::string &text, std::string_view number) {
  std::uint32_t base = 10;
  if (number.starts_with('x')) {
    base = 16;
    number.remove_prefix(1);
  }
  if (number.empty()) return false;
  std::uint32_t code = 0;
  for (const char digit : number) {
    const std::optional<std::uint32_t> value = digit_value(digit, base);
    if (!value) return false;
    code = code * base + *value;
    if (code > code_point_max) return false;
  }
  if (!is_character(code)) return false;
  append_utf8(text, code);
  return true;
}

// Takes a reference such as "&lt;" and appends what it stands for.
bool take_reference(xml_reader &reader, std::string &text) {
  const std::size_t end = reader.left.find(';');
  if (end == std::string_view::npos) return false;
  const std::string_view name = reader.left.substr(1, end - 1);
  reader.left.remove_prefix(end + 1);
  if (name.starts_with('#')) return append_numeric(text, name.substr(1));
  const auto *const named =
      std::find_if(named_references.begin(), named_references.end(),
                   [name](const named_reference &reference) { return reference.name == name; });
  if (named == named_references.end()) return false;
  text += named->character;
  return true;
}

bool has_room(const xml_reader &reader) noexcept {
  return reader.xml.items.size() < zem_xml_items_max;
}

// Takes text up to the next markup. Blanks between elements leave no item.
bool take_text(xml_reader &reader) {
  std::string text;
  while (!reader.left.empty() && reader.left.front() != '<') {
    if (reader.left.front() == '&') {
      if (!take_reference(reader, text)) return false;
      continue;
    }
    const std::string_view run = reader.left.substr(0, reader.left.find_first_of("<&"));
    text += run;
    reader.left.remove_prefix(run.size());
  }
  if (std::all_of(text.begin(), text.end(), is_blank)) return true;
  if (reader.open == nullptr || !has_room(reader)) return false;
  zem_xml_append_text(reader.xml, *reader.open, text);
  return true;
}

bool take_attributes(xml_reader &reader) noexcept {
  while (true) {
    const std::size_t before = reader.left.size();
    take_blanks(reader);
    std::string_view name;
    if (!take_name(reader, name)) return true;
    if (reader.left.size() + name.size() == before) return false;  // no blank between two
    take_blanks(reader);
    if (!take(reader, "=")) return false;
    take_blanks(reader);
    if (!take_quoted(reader)) return false;
  }
}

// Takes an opening tag, whose "<" is taken.
bool take_opening(xml_reader &reader) {
  std::string_view name;
  if (!take_name(reader, name) || !take_attributes(reader)) return false;
  const bool closed = take(reader, "/");
  if (!take(reader, ">")) return false;

  if (reader.open != nullptr) {
    if (!has_room(reader)) return false;
    reader.open = &zem_xml_append_element(reader.xml, *reader.open, name);
  } else {
    if (reader.has_root) return false;
    reader.has_root = true;
    reader.open = &zem_xml_root(reader.xml);
    reader.open->name = name;
  }
  if (closed) reader.open = reader.open->parent;
  return true;
}

// Takes a closing tag, whose "</" is taken.
bool take_closing(xml_reader &reader) noexcept {
  std::string_view name;
  if (!take_name(reader, name)) return false;
  take_blanks(reader);
  if (!take(reader, ">") || reader.open == nullptr || reader.open->name != name) return false;
  reader.open = reader.open->parent;
  return true;
}

bool take_markup(xml_reader &reader) {
  if (take(reader, "<!--")) return take_through(reader, "-->");
  if (take(reader, "<?")) return take_through(reader, "?>");
  if (take(reader, "<!DOCTYPE")) return !reader.has_root && take_doctype(reader);
  if (take(reader, "</")) return take_closing(reader);
  return take(reader, "<") && take_opening(reader);
}

bool take_document(xml_reader &reader) {
  if (reader.left.size() > zem_xml_size_max) return false;
  const auto forbidden = [](char c) { return !is_character(static_cast<unsigned char>(c)); };
  if (std::any_of(reader.left.begin(), reader.left.end(), forbidden)) return false;
  take(reader, byte_order_mark);
  while (!reader.left.empty()) {
    if (!(reader.left.front() == '<' ? take_markup(reader) : take_text(reader))) return false;
  }
  return reader.has_root && reader.open == nullptr;
}

zem_xml_item &append_item(zem_xml &xml, zem_xml_item &parent, zem_xml_item &&item) {
  zem_xml_item &added = xml.items.emplace_back(std::move(item));
  added.parent = &parent;
  zem_xml_item *&link = parent.last_child != nullptr ? parent.last_child->next : parent.first_child;
  link = &added;
  parent.last_child = &added;
  return added;
}

void put_escaped(std::string &out, std::string_view text) {
  for (const char c : text) {
    const auto *const named =
        std::find_if(named_references.begin(), named_references.end(),
                     [c](const named_reference &reference) { return reference.character == c; });
    if (named == named_references.end()) {
      out += c;
    } else {
      out.append("&").append(named->name).append(";");
    }
  }
}

bool holds_text(const zem_xml_item &element) noexcept {
  for (const zem_xml_item *child = element.first_child; child != nullptr; child = child->next) {
    if (child->kind == zem_xml_kind::text) return true;
  }
  return false;
}

// The text of a document being put together.
struct xml_writer {
  std::string out;
  std::size_t depth = 0;
  // The outermost open element that holds text: blanks inside it would become part of its content.
  const zem_xml_item *mixed = nullptr;
};

void put_indent(xml_writer &writer) {
  if (writer.mixed == nullptr)
    writer.out.append(2 * std::min(writer.depth, indent_levels_max), ' ');
}

void put_line_end(xml_writer &writer) {
  if (writer.mixed == nullptr) writer.out += '\n';
}

void put_opening(xml_writer &writer, const zem_xml_item &element) {
  put_indent(writer);
  writer.out.append("<").append(element.name);
  if (element.first_child == nullptr) {
    writer.out += "/>";
  } else {
    writer.out += '>';
    if (writer.mixed == nullptr && holds_text(element)) writer.mixed = &element;
  }
  put_line_end(writer);
}

void put_closing(xml_writer &writer, const zem_xml_item &element) {
  put_indent(writer);
  writer.out.append("</").append(element.name).append(">");
  if (writer.mixed == &element) writer.mixed = nullptr;
  put_line_end(writer);
}

}  // namespace

bool zem_xml_set(zem_xml &xml, std::string_view source) {
  zem_xml parsed;
  zem_xml empty;
  xml.items.swap(empty.items);
  xml_reader reader{.left = source, .xml = parsed};
  if (!take_document(reader)) return false;
  xml.items.swap(parsed.items);
  return true;
}

std::string zem_xml_get(const zem_xml &xml) {
  xml_writer writer{.out = std::string(declaration)};
  const zem_xml_item *item = &zem_xml_root(xml);
  while (item != nullptr) {
    if (item->kind == zem_xml_kind::text) {
      put_escaped(writer.out, item->text);
    } else {
      put_opening(writer, *item);
      if (item->first_child != nullptr) {
        item = item->first_child;
        ++writer.depth;
        continue;
      }
    }
    while (item->next == nullptr && item->parent != nullptr) {
      item = item->parent;
      --writer.depth;
      put_closing(writer, *item);
    }
    item = item->next;
  }
  return std::move(writer.out);
}

zem_xml_item &zem_xml_root(zem_xml &xml) noexcept { return xml.items.front(); }

const zem_xml_item &zem_xml_root(const zem_xml &xml) noexcept { return xml.items.front(); }

zem_xml_item &zem_xml_append_element(zem_xml &xml, zem_xml_item &parent, std::string_view name) {
  return append_item(xml, parent, {.kind = zem_xml_kind::element, .name = std::string(name)});
}

void zem_xml_append_text(zem_xml &xml, zem_xml_item &parent, std::string_view text) {
  zem_xml_item *const last = parent.last_child;
  if (last != nullptr && last->kind == zem_xml_kind::text) {
    last->text += text;
  } else {
    append_item(xml, parent, {.kind = zem_xml_kind::text, .text = std::string(text)});
  }
}

const zem_xml_item *zem_xml_find_name(const zem_xml_item &parent, std::string_view name) noexcept {
  const zem_xml_item *child = parent.first_child;
  while (child != nullptr && (child->kind != zem_xml_kind::element || child->name != name))
    child = child->next;
  return child;
}

std::string_view zem_xml_text(const zem_xml_item &element) noexcept {
  const zem_xml_item *const child = element.first_child;
  if (child == nullptr || child->kind != zem_xml_kind::text) return {};
  return child->text;
}
