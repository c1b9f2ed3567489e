// Key lists: the form in which sets of keys are handed to the host, as parallel arrays.
//
// Row i is the i-th element of every array. The low 16 bits of an attribute hold the number of the
// shard whose key was added, the high 16 bits what the host sets with zem_sdb_keys_sid. A shard
// number is written whole, so one above 65,535 occupies the high bits until the host sets them.
//
// Takes no locks: a list belongs to the caller that passes it in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "include/zem_sdb.h"
#include "src/xtree.h"

struct zem_keys {
  std::vector<std::uint32_t> term0;
  std::vector<std::uint32_t> term1;
  std::vector<std::uint32_t> term2;
  std::vector<std::uint64_t> ids;
  std::vector<std::uint32_t> attrs;
};

// Appends one row; an allocation failure leaves the list as it was.
void zem_keys_add(zem_keys &keys, std::uint64_t id, const zem_term &term, std::uint32_t attribute);
void zem_keys_clear(zem_keys &keys) noexcept;
inline std::size_t zem_keys_size(const zem_keys &keys) noexcept { return keys.ids.size(); }
