// Owners of the library's lists, and a table that is asked for the ids of one term.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <zem_sdb.h>

struct deleter {
  void operator()(zem_var *list) const { zem_var_free(list); }
  void operator()(zem_doc *batch) const { zem_sdb_doc_free(batch); }
  void operator()(zem_keys *keys) const { zem_sdb_keys_free(keys); }
  void operator()(zem_sdb *sdb) const { zem_sdb_free(sdb); }
};
template <class Type>
using owner = std::unique_ptr<Type, deleter>;

// The example's terms are one word.
inline std::int32_t find(zem_sdb *sdb, std::uint64_t table, std::uint32_t word,
                         std::set<std::uint64_t> &found) {
  const owner<zem_var> heads(zem_var_new(1, 1)), thirds(zem_var_new(1, 1)), ids(zem_var_new(0, 1));
  zem_var_add_long(heads.get(), word);
  zem_var_add_integer(thirds.get(), 0);
  const std::int32_t st = zem_sdb_query(sdb, table, heads.get(), thirds.get(), ids.get());
  for (std::int64_t i = 0; i < zem_var_size(ids.get()); ++i)
    found.insert(zem_var_get_long(ids.get(), i));
  return st;
}

inline std::uint64_t postings(zem_sdb *sdb, std::uint64_t table) {
  std::uint64_t terms = 0, count = 0, file_bytes = 0, memory_bytes = 0;
  zem_sdb_table_count(sdb, table, &terms, &count, &file_bytes, &memory_bytes);
  return count;
}
