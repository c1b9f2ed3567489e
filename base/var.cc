#include "base/var.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "base/status.h"
#include "base/stream.h"

namespace {

constexpr std::int64_t last_item = -1;
constexpr std::int64_t own_text = -1;   // of the two string functions
constexpr std::int64_t until_nul = -1;  // a text's length
constexpr std::size_t no_item = ~std::size_t{0};

std::size_t count_of(const zem_var *list) noexcept {
  return list == nullptr ? 0 : list->values.size();
}

// The position that `index` means, or no_item.
std::size_t position_of(const zem_var *list, std::int64_t index) noexcept {
  const std::size_t count = count_of(list);
  if (index == last_item && count > 0) return count - 1;
  return index >= 0 && static_cast<std::uint64_t>(index) < count ? static_cast<std::size_t>(index)
                                                                 : no_item;
}

// Room for `count` items, growing as push_back does.
template <class Items>
void make_room(Items &items, std::size_t count) {
  if (items.capacity() < count) items.reserve(std::max(count, 2 * items.capacity()));
}

// Takes all memory before it changes anything, so that a list's vectors never differ in length.
void add_item(zem_var &list, std::uint64_t value, std::optional<std::string> text) {
  const std::size_t count = list.values.size();
  const bool with_texts = text.has_value() || !list.texts.empty();
  make_room(list.values, count + 1);
  if (list.tagged) make_room(list.tags, count + 1);
  if (with_texts) make_room(list.texts, count + 1);

  list.values.push_back(value);
  if (list.tagged) list.tags.push_back(0);
  if (with_texts) {
    list.texts.resize(count);  // the first text of a list of numbers
    list.texts.push_back(std::move(text));
  }
}

// The bytes of a host's text, or nothing when the arguments name none.
std::optional<std::string_view> text_argument(const char *text, std::int64_t length) noexcept {
  if (length == 0) return std::string_view{};
  if (text == nullptr || length < until_nul) return std::nullopt;
  if (length == until_nul) return std::string_view(text);
  return std::string_view(text, static_cast<std::size_t>(length));
}

// The text that `index` means, the list's own included, or null.
const std::string *find_text(const zem_var *list, std::int64_t index) noexcept {
  if (list == nullptr) return nullptr;
  if (index == own_text) return list->text ? &*list->text : nullptr;
  const std::size_t position = position_of(list, index);
  if (position >= list->texts.size() || !list->texts[position]) return nullptr;
  return &*list->texts[position];
}

}  // namespace

zem_var *zem_var_new(int64_t capacity, int tagged) {
  return zem_boundary<zem_var *>(nullptr, [&] {
    auto list = std::make_unique<zem_var>();
    list->tagged = tagged != 0;
    const auto count = static_cast<std::size_t>(std::max<std::int64_t>(capacity, 0));
    list->values.reserve(count);
    if (list->tagged) list->tags.reserve(count);
    return list.release();
  });
}

void zem_var_free(zem_var *list) { delete list; }

int64_t zem_var_size(const zem_var *list) { return static_cast<std::int64_t>(count_of(list)); }

void zem_var_shrink(zem_var *list, int64_t size) {
  const auto kept = static_cast<std::uint64_t>(std::max<std::int64_t>(size, 0));
  if (kept >= count_of(list)) return;
  list->values.resize(kept);
  if (list->tagged) list->tags.resize(kept);
  if (!list->texts.empty()) list->texts.resize(kept);
}

int zem_var_add_long(zem_var *list, uint64_t value) {
  if (list == nullptr) return 0;
  return zem_boundary<int>(0, [&] {
    add_item(*list, value, std::nullopt);
    return 1;
  });
}

int zem_var_add_integer(zem_var *list, uint32_t value) { return zem_var_add_long(list, value); }

int zem_var_add_string(zem_var *list, const char *text, int64_t length) {
  const std::optional<std::string_view> bytes = text_argument(text, length);
  if (list == nullptr || !bytes) return 0;
  return zem_boundary<int>(0, [&] {
    add_item(*list, 0, std::string(*bytes));
    return 1;
  });
}

uint64_t zem_var_get_long(const zem_var *list, int64_t index) {
  const std::size_t position = position_of(list, index);
  return position == no_item ? 0 : list->values[position];
}

uint32_t zem_var_get_integer(const zem_var *list, int64_t index) {
  return static_cast<std::uint32_t>(zem_var_get_long(list, index));
}

int zem_var_get_string(const zem_var *list, int64_t index, const char **text, int64_t *length) {
  const std::string *const found = find_text(list, index);
  if (text != nullptr) *text = found == nullptr ? nullptr : found->c_str();
  if (length != nullptr) *length = found == nullptr ? 0 : static_cast<std::int64_t>(found->size());
  return found == nullptr ? 0 : 1;
}

int zem_var_set_string(zem_var *list, int64_t index, const char *text, int64_t length) {
  const std::optional<std::string_view> bytes = text_argument(text, length);
  const std::size_t position = position_of(list, index);
  if (list == nullptr || !bytes || (index != own_text && position == no_item)) return 0;
  return zem_boundary<int>(0, [&] {
    std::string copy(*bytes);
    if (index == own_text) {
      list->text = std::move(copy);
      return 1;
    }
    list->texts.resize(list->values.size());
    list->texts[position] = std::move(copy);
    list->values[position] = 0;
    return 1;
  });
}

uint32_t zem_var_get_buf(const zem_var *list, int64_t index) {
  const std::size_t position = position_of(list, index);
  return position == no_item || !list->tagged ? 0 : list->tags[position];
}

int zem_var_set_buf(zem_var *list, int64_t index, uint32_t tag) {
  const std::size_t position = position_of(list, index);
  if (position == no_item || !list->tagged) return 0;
  list->tags[position] = tag;
  return 1;
}

int64_t zem_var_longs(const zem_var *list, const uint64_t **values, const uint32_t **tags) {
  const std::size_t count = count_of(list);
  if (values != nullptr) *values = count > 0 ? list->values.data() : nullptr;
  if (tags != nullptr) *tags = count > 0 && list->tagged ? list->tags.data() : nullptr;
  return static_cast<std::int64_t>(count);
}

zem_xvars *zem_xvars_new(void) {
  return zem_boundary<zem_xvars *>(nullptr, [] { return std::make_unique<zem_xvars>().release(); });
}

void zem_xvars_free(zem_xvars *lists) { delete lists; }

int64_t zem_xvars_size(const zem_xvars *lists) {
  return lists == nullptr ? 0 : static_cast<std::int64_t>(lists->lists.size());
}

const zem_var *zem_xvars_get(const zem_xvars *lists, int64_t index) {
  const auto count = static_cast<std::uint64_t>(zem_xvars_size(lists));
  if (index == last_item && count > 0) return &lists->lists.back();
  return static_cast<std::uint64_t>(index) < count ? &lists->lists[static_cast<std::size_t>(index)]
                                                   : nullptr;
}

void zem_xvars_shrink(zem_xvars *lists, int64_t size) {
  const auto kept = static_cast<std::uint64_t>(std::max<std::int64_t>(size, 0));
  if (kept < static_cast<std::uint64_t>(zem_xvars_size(lists)))
    lists->lists.erase(lists->lists.begin() + static_cast<std::ptrdiff_t>(kept),
                       lists->lists.end());
}

void zem_var_reserve(zem_var &list, std::size_t more) {
  const std::size_t count = list.values.size() + more;
  make_room(list.values, count);
  if (list.tagged) make_room(list.tags, count);
  if (!list.texts.empty()) make_room(list.texts, count);
}

namespace {

// Adds `more` items, tagged; the caller writes them.
std::uint64_t *append_raw(zem_var &list, std::size_t more, std::uint32_t tag) {
  zem_var_reserve(list, more);
  const std::size_t old_count = list.values.size();
  list.values.resize(old_count + more);
  if (list.tagged) list.tags.resize(old_count + more, tag);
  if (!list.texts.empty()) list.texts.resize(old_count + more);
  return list.values.data() + old_count;
}

}  // namespace

void zem_var_append_longs(zem_var &list, std::span<const std::uint64_t> values, std::uint32_t tag) {
  std::copy(values.begin(), values.end(), append_raw(list, values.size(), tag));
}

void zem_var_append_lwords(zem_var &list, std::span<const std::byte> bytes, std::uint32_t tag) {
  const std::size_t count = bytes.size() / sizeof(std::uint64_t);
  if (count == 0) return;
  std::uint64_t *to = append_raw(list, count, tag);
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(to, bytes.data(), count * sizeof(std::uint64_t));
  } else {
    for (std::size_t i = 0; i < count; ++i)
      to[i] = zem_stream_get_lword(bytes.data() + i * sizeof(std::uint64_t));
  }
}
