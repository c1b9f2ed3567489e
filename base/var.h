// Value lists: the carriers of every list that crosses the public interface (zem_sdb.h documents
// the operations).
//
// An item is a 64-bit number (a 32-bit integer has a zero upper half) or a text. A number has no
// text, a text has the number 0; setting the text of an item makes it a text. The list's own
// string value lies beside the items and is untouched by whatever is done to them. Texts are
// bytes: a NUL inside is kept, and one stands behind the end.
//
// Every operation takes any argument. A null list is one without items, a negative capacity or size
// is 0. An index below -1 or past the end gives 0, or does nothing, and so does -1, the last item,
// in a list without items. What an operation returns as int is 1 when it was done and 0 when not:
// the index names no item, a text is null or of a negative length other than -1 (null with length 0
// is the empty text), the list takes no tags, memory is short. What was not done has changed
// nothing.
//
// Takes no locks: a list belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "include/zem_sdb.h"

// Allocates numbers that a resize leaves as they are: whoever grows a list writes them next.
template <class Number>
struct zem_raw_allocator : std::allocator<Number> {
  template <class Other>
  struct rebind {
    using other = zem_raw_allocator<Other>;
  };
  template <class At>
  void construct(At *at) noexcept {
    ::new (static_cast<void *>(at)) At;
  }
  template <class At, class... Arguments>
  void construct(At *at, Arguments &&...arguments) {
    ::new (static_cast<void *>(at)) At(std::forward<Arguments>(arguments)...);
  }
};

struct zem_var {
  std::vector<std::uint64_t, zem_raw_allocator<std::uint64_t>> values;  // 0 for a text
  std::vector<std::uint32_t> tags;                // one an item in a tagged list, else empty
  std::vector<std::optional<std::string>> texts;  // one an item once any was a text, else empty
  std::optional<std::string> text;                // the list's own string value, once set
  bool tagged = false;
};

// A list of value lists, such as the first doc ids of each term of a page. Only the library adds to it.
struct zem_xvars {
  std::vector<zem_var> lists;
};

// For lists that the library fills with numbers. An allocation failure leaves the list as it was.
void zem_var_reserve(zem_var &list, std::size_t more);
// Appends values, each with the same tag.
void zem_var_append_longs(zem_var &list, std::span<const std::uint64_t> values, std::uint32_t tag);
// The same for values as they lie in a file: 8 bytes each, little-endian.
void zem_var_append_lwords(zem_var &list, std::span<const std::byte> bytes, std::uint32_t tag);
