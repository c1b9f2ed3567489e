#include "src/arrx.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <numeric>
#include <random>
#include <set>
#include <vector>

namespace {

TEST(ArrxTest, ARandomListStaysSortedFreeOfDoublesAndSearchable) {
  std::vector<int> numbers(100);
  std::iota(numbers.begin(), numbers.end(), 0);
  zem_arrx<int> list;
  std::set<int> model;
  std::mt19937 random(42);
  for (int step = 0; step < 2000; ++step) {
    SCOPED_TRACE(step);
    int *const item = &numbers.at(random() % 100);
    const auto against = [item](const int &element) { return element - *item; };
    if (random() % 3 == 0) {
      const std::size_t index = random() % (model.size() + 1);
      int *const removed = zem_arrx_remove_at(list, index);
      ASSERT_EQ(removed == nullptr, index == model.size());
      if (removed != nullptr) model.erase(*removed);
    } else {
      ASSERT_EQ(zem_arrx_insert(list, item, against), model.insert(*item).second);
    }
    ASSERT_EQ(zem_arrx_count(list), model.size());
    std::size_t index = 0;
    for (const int number : model)
      ASSERT_EQ(*zem_arrx_get_at(list, index++), number);
    ASSERT_EQ(zem_arrx_get_at(list, index), nullptr);
    // The first that is not before, or else the last.
    const int *const found = zem_arrx_bfind(list, against);
    const auto bound = model.lower_bound(*item);
    ASSERT_EQ(found == nullptr, model.empty());
    if (found == nullptr) continue;
    ASSERT_EQ(*found, bound == model.end() ? *model.rbegin() : *bound);
    ASSERT_EQ(zem_arrx_get_at(list, *zem_arrx_bfind_index(list, against)), found);
  }
}

}  // namespace
