// The items of one entry of the ordered tree: up to 32 of them in key order, each beside a copy of
// its key.
//
// A search reads the copies only and never follows an item's pointer, which would cost a cache miss
// for every probe. The keys lie field by field: most searches are decided by the 256 bytes of
// `heads`, and only where heads are equal are the other two fields looked at.
//
// The array knows nothing of what its items are. Takes no locks: the tree's owner serialises access.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "base/assert.h"

inline constexpr std::uint32_t zem_xarray_capacity = 32;

// A key as searches compare it: the first two words of the term as one number, then the third word,
// both ascending, then the doc id descending.
struct zem_xkey {
  std::uint64_t head;
  std::uint64_t id;
  std::uint32_t tail;

  friend bool operator==(const zem_xkey &, const zem_xkey &) noexcept = default;
};

inline constexpr zem_xkey zem_xkey_greatest{
    .head = ~std::uint64_t{0}, .id = 0, .tail = ~std::uint32_t{0}};

inline bool zem_xkey_before(const zem_xkey &a, const zem_xkey &b) noexcept {
  if (a.head != b.head) return a.head < b.head;
  if (a.tail != b.tail) return a.tail < b.tail;
  return a.id > b.id;
}

// Slots from `count` on hold the greatest head and nothing else of meaning, so that a search may
// read them.
template <class Item>
struct zem_xarray {
  zem_xarray() noexcept { heads.fill(zem_xkey_greatest.head); }

  std::uint32_t count = 0;
  std::array<std::uint64_t, zem_xarray_capacity> heads;
  std::array<std::uint64_t, zem_xarray_capacity> ids;
  std::array<std::uint32_t, zem_xarray_capacity> tails;
  std::array<Item, zem_xarray_capacity> items;
};

// Starts fetching all of an array that is about to be searched: its cache lines then arrive
// together instead of one after the other.
template <class Item>
void zem_xarray_prefetch(const zem_xarray<Item> &array) noexcept {
  for (std::uint32_t i = 0; i < zem_xarray_capacity; i += 8) {
    __builtin_prefetch(&array.heads[i]);
    __builtin_prefetch(&array.ids[i]);
    __builtin_prefetch(&array.tails[i]);
    __builtin_prefetch(&array.items[i]);
  }
}

template <class Item>
zem_xkey zem_xarray_key_at(const zem_xarray<Item> &array, std::uint32_t index) noexcept {
  ZEM_ASSERT(index < array.count);
  return {array.heads[index], array.ids[index], array.tails[index]};
}

// True when the keys at `index` and right after it differ in their ids only.
template <class Item>
bool zem_xarray_same_term(const zem_xarray<Item> &array, std::uint32_t index) noexcept {
  ZEM_ASSERT(index + 1 < array.count);
  return array.heads[index] == array.heads[index + 1] &&
         array.tails[index] == array.tails[index + 1];
}

// The index of the first key that does not stand before `key`, or the count when all do.
template <class Item>
std::uint32_t zem_xarray_lower_bound(const zem_xarray<Item> &array, const zem_xkey &key) noexcept {
  // Heads before the one sought are counted, first in steps of eight, then one by one. The
  // comparisons do not wait for each other and no branch depends on them, which makes this faster
  // than halving.
  ZEM_ASSERT(array.count < zem_xarray_capacity);
  static_assert(zem_xarray_capacity == 32);
  const auto before = [&](std::uint32_t index) -> std::uint32_t {
    return array.heads[index] < key.head ? 1 : 0;
  };
  std::uint32_t low = 8 * (before(7) + before(15) + before(23));
  low += before(low) + before(low + 1) + before(low + 2) + before(low + 3) + before(low + 4) +
         before(low + 5) + before(low + 6);

  // Among equal heads the other fields decide. The first is tried first: new documents have greater ids
  // than those before, which makes their postings the first of their terms.
  const auto is_before = [&](std::uint32_t index) {
    return zem_xkey_before(zem_xarray_key_at(array, index), key);
  };
  std::uint32_t high = array.count;
  if (low == high || array.heads[low] != key.head || !is_before(low)) return low;
  ++low;
  while (low < high && array.heads[low] == key.head) {
    const std::uint32_t middle = low + (high - low) / 2;
    if (is_before(middle)) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

// Puts an item at `index`, moving later ones up. There must be room.
template <class Item>
void zem_xarray_insert_at(zem_xarray<Item> &array, std::uint32_t index, const zem_xkey &key,
                          Item item) noexcept {
  ZEM_ASSERT(array.count < zem_xarray_capacity);
  ZEM_ASSERT(index <= array.count);
  const auto place = [&](auto &field, const auto &value) {
    std::copy_backward(field.begin() + index, field.begin() + array.count,
                       field.begin() + array.count + 1);
    field[index] = value;
  };
  place(array.heads, key.head);
  place(array.ids, key.id);
  place(array.tails, key.tail);
  place(array.items, item);
  ++array.count;
}

// Moves the items from `index` on to the empty array `upper`.
template <class Item>
void zem_xarray_move_upper(zem_xarray<Item> &array, std::uint32_t index,
                           zem_xarray<Item> &upper) noexcept {
  ZEM_ASSERT(upper.count == 0);
  ZEM_ASSERT(index <= array.count);
  const auto move = [&](const auto &from, auto &to) {
    std::copy(from.begin() + index, from.begin() + array.count, to.begin());
  };
  move(array.heads, upper.heads);
  move(array.ids, upper.ids);
  move(array.tails, upper.tails);
  move(array.items, upper.items);
  upper.count = array.count - index;
  array.count = index;
  std::fill(array.heads.begin() + index, array.heads.end(), zem_xkey_greatest.head);
}
