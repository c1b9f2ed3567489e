// A growable array of pointers, kept in order by its caller's comparison: a table's list of shards.
//
// The comparison is any callable that takes an element and answers with a negative number when the
// element stands before what is sought, zero when it is that, a positive number when it stands
// after. It must agree with the order of the elements.
//
// What adds an item may throw std::bad_alloc and then changes nothing; after zem_arrx_expand() to
// the count reached nothing throws. The array does not own what it points at. Takes no locks: it
// belongs to its owner's lock.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <vector>

template <class Item>
struct zem_arrx {
  std::vector<Item *> items;
};

namespace zem_arrx_growth {
inline constexpr std::size_t step_least = 8;
inline constexpr std::size_t step_most = 65536;
inline constexpr std::size_t multiple = 4;
}  // namespace zem_arrx_growth

template <class Item>
std::size_t zem_arrx_count(const zem_arrx<Item> &array) noexcept {
  return array.items.size();
}

// The item at `index`, null past the end.
template <class Item>
Item *zem_arrx_get_at(const zem_arrx<Item> &array, std::size_t index) noexcept {
  return index < array.items.size() ? array.items[index] : nullptr;
}

// Makes room for `count` items: by half as many as there are, or for all of `count` when that is
// more.
template <class Item>
void zem_arrx_expand(zem_arrx<Item> &array, std::size_t count) {
  if (count <= array.items.capacity()) return;
  const std::size_t step =
      std::clamp(array.items.size() / 2, zem_arrx_growth::step_least, zem_arrx_growth::step_most);
  const std::size_t wanted = std::max(array.items.capacity() + step, count);
  array.items.reserve((wanted + zem_arrx_growth::multiple - 1) / zem_arrx_growth::multiple *
                      zem_arrx_growth::multiple);
}

template <class Item>
void zem_arrx_append(zem_arrx<Item> &array, Item *item) {
  zem_arrx_expand(array, array.items.size() + 1);
  array.items.push_back(item);
}

// Puts an item at `index`, moving later ones up; at the end when `index` is past it.
template <class Item>
void zem_arrx_insert_at(zem_arrx<Item> &array, std::size_t index, Item *item) {
  zem_arrx_expand(array, array.items.size() + 1);
  const std::size_t place = std::min(index, array.items.size());
  array.items.insert(array.items.begin() + static_cast<std::ptrdiff_t>(place), item);
}

// Takes out the item at `index`, moving later ones down, and returns it; null past the end.
template <class Item>
Item *zem_arrx_remove_at(zem_arrx<Item> &array, std::size_t index) noexcept {
  if (index >= array.items.size()) return nullptr;
  Item *const item = array.items[index];
  array.items.erase(array.items.begin() + static_cast<std::ptrdiff_t>(index));
  return item;
}

// The index of the first element that is not before what is sought, or the last index when all are
// before it: the caller compares when it needs to know. Nothing when the array is empty.
template <class Item, class Compare>
std::optional<std::size_t> zem_arrx_bfind_index(const zem_arrx<Item> &array, Compare &&compare) {
  if (array.items.empty()) return std::nullopt;
  const auto found = std::partition_point(array.items.begin(), array.items.end(),
                                          [&](const Item *item) { return compare(*item) < 0; });
  if (found == array.items.end()) return array.items.size() - 1;
  return static_cast<std::size_t>(found - array.items.begin());
}

// The element at that index, null when the array is empty.
template <class Item, class Compare>
Item *zem_arrx_bfind(const zem_arrx<Item> &array, Compare &&compare) {
  const std::optional<std::size_t> index = zem_arrx_bfind_index(array, compare);
  return index ? array.items[*index] : nullptr;
}

// Puts an item in its place. False, and nothing changed, when an element equal to it is there.
template <class Item, class Compare>
bool zem_arrx_insert(zem_arrx<Item> &array, Item *item, Compare &&compare) {
  const std::optional<std::size_t> index = zem_arrx_bfind_index(array, compare);
  if (!index) {
    zem_arrx_append(array, item);
    return true;
  }
  const int order = compare(*array.items[*index]);
  if (order == 0) return false;
  zem_arrx_insert_at(array, order < 0 ? *index + 1 : *index, item);
  return true;
}

// Lets go of all items and of their memory.
template <class Item>
void zem_arrx_clear(zem_arrx<Item> &array) noexcept {
  std::vector<Item *>().swap(array.items);
}
