// Composite keys: one posting key held by value.
//
// A shard keeps the greatest key it has ever been given; the log and the data file raise it as
// postings arrive, and the table sorts its shards by it. Keys are in tree order: term ascending,
// then doc id descending, with no special meaning for an id of all ones.
//
// Takes no locks: a shard's key belongs to the lock that guards its stores.
#pragma once

#include <cstdint>
#include <utility>

#include "src/xtree.h"

struct zem_keys;

struct zem_mkey {
  zem_term term{};
  std::uint64_t id = 0;
};

// The host passes a term as a 64-bit head (word 0 in the low half, word 1 in the high half) and a
// third word.
inline zem_term zem_term_join(std::uint64_t head, std::uint32_t third) noexcept {
  return {static_cast<std::uint32_t>(head), static_cast<std::uint32_t>(head >> 32), third};
}

inline std::uint64_t zem_term_head(const zem_term &term) noexcept {
  return std::uint64_t{term[1]} << 32 | term[0];
}

// Negative, zero or positive as the key comes before (term, id), equals it or comes after it.
inline int zem_mkey_compare(const zem_mkey &mkey, const zem_term &term, std::uint64_t id) noexcept {
  return zem_xtree_key_compare(mkey.term, mkey.id, term, id);
}

// Raises the key to (term, id) when that comes after it; true when it did.
inline bool zem_mkey_copy(zem_mkey &mkey, const zem_term &term, std::uint64_t id) noexcept {
  if (zem_mkey_compare(mkey, term, id) >= 0) return false;
  mkey.term = term;
  mkey.id = id;
  return true;
}

// Back to the key of a new shard, which only postings under the zero term fail to raise.
inline void zem_mkey_shrink(zem_mkey &mkey) noexcept { mkey = zem_mkey{}; }

inline void zem_mkey_swap(zem_mkey &a, zem_mkey &b) noexcept { std::swap(a, b); }

// Appends the key to a key list, with the number of its shard as attribute.
void zem_mkey_add(const zem_mkey &mkey, std::uint32_t shard_number, zem_keys &keys);
