// A small part of XML: what a settings file needs.
//
// A document is a tree of elements and text. Reading skips the declaration, processing
// instructions, the document type, comments and attributes, drops text of nothing but blanks, and
// takes the five named and all numeric character references. Text that a comment interrupts is one
// item. CDATA sections and entities of the document's own are refused.
//
// Writing gives each element a line of its own, indented by two blanks a level, unless its parent
// holds text; an element with text stands on one line with it.
//
// Works on any bytes: input is bounded in size and in items, and nothing recurses with its depth.
// Names and texts are bytes in UTF-8, which is not verified. Takes no locks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

inline constexpr std::size_t zem_xml_size_max = std::size_t{1} << 20;  // bytes that are read
inline constexpr std::size_t zem_xml_items_max = std::size_t{1}
                                                 << 16;  // elements and texts of them

enum class zem_xml_kind : std::uint8_t { element, text };

// An element or a piece of text; lives as long as its document keeps its content.
struct zem_xml_item {
  zem_xml_kind kind = zem_xml_kind::element;
  std::string name{};              // of an element
  std::string text{};              // of a text
  zem_xml_item *parent = nullptr;  // null at the root
  zem_xml_item *next = nullptr;    // the following child of `parent`
  zem_xml_item *first_child = nullptr;
  zem_xml_item *last_child = nullptr;
};

// A document owns its items. A new one is empty: a root element without name or children.
struct zem_xml {
  zem_xml() { items.emplace_back(); }
  zem_xml(const zem_xml &) = delete;
  zem_xml &operator=(const zem_xml &) = delete;

  std::deque<zem_xml_item> items;  // the root first; items never move
};

// Replaces the document by what `source` holds. False, with the document empty, when that is no
// document in the sense above, longer than zem_xml_size_max or of more than zem_xml_items_max items.
bool zem_xml_set(zem_xml &xml, std::string_view source);
std::string zem_xml_get(const zem_xml &xml);

zem_xml_item &zem_xml_root(zem_xml &xml) noexcept;
const zem_xml_item &zem_xml_root(const zem_xml &xml) noexcept;

// Append a last child. Text that follows text joins it, so that no two texts stand side by side.
zem_xml_item &zem_xml_append_element(zem_xml &xml, zem_xml_item &parent, std::string_view name);
void zem_xml_append_text(zem_xml &xml, zem_xml_item &parent, std::string_view text);

// The first child element of that name, or null.
const zem_xml_item *zem_xml_find_name(const zem_xml_item &parent, std::string_view name) noexcept;

// The text of an element whose first child is a text, else empty.
std::string_view zem_xml_text(const zem_xml_item &element) noexcept;
