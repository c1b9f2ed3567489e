#include "src/data_keys.h"

#include <algorithm>

namespace {

// Doubles a full array, so that the next append cannot fail.
template <class Value>
void make_room(std::vector<Value> &values) {
  constexpr std::size_t rows_min = 16;
  if (values.size() == values.capacity()) values.reserve(std::max(rows_min, 2 * values.size()));
}

}  // namespace

void zem_keys_add(zem_keys &keys, std::uint64_t id, const zem_term &term, std::uint32_t attribute) {
  make_room(keys.term0);
  make_room(keys.term1);
  make_room(keys.term2);
  make_room(keys.ids);
  make_room(keys.attrs);
  keys.term0.push_back(term[0]);
  keys.term1.push_back(term[1]);
  keys.term2.push_back(term[2]);
  keys.ids.push_back(id);
  keys.attrs.push_back(attribute);
}

void zem_keys_clear(zem_keys &keys) noexcept {
  keys.term0.clear();
  keys.term1.clear();
  keys.term2.clear();
  keys.ids.clear();
  keys.attrs.clear();
}
