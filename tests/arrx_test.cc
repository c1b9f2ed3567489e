#include "src/arrx.h"

#include <algorithm>
#include <cstddef>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <vector>

namespace {

using ::testing::ElementsAre;

// A list of numbers below 100, kept in order.
class ArrxTest : public ::testing::Test {
 protected:
  ArrxTest() { std::iota(numbers_.begin(), numbers_.end(), 0); }

  static auto against(int sought) {
    return [sought](const int &element) { return element - sought; };
  }
  int *item(int number) { return &numbers_.at(static_cast<std::size_t>(number)); }
  bool insert(int number) { return zem_arrx_insert(list, item(number), against(number)); }
  std::vector<int> content() const {
    std::vector<int> found;
    for (std::size_t i = 0; i < zem_arrx_count(list); ++i)
      found.push_back(*zem_arrx_get_at(list, i));
    return found;
  }

  zem_arrx<int> list;

 private:
  std::vector<int> numbers_ = std::vector<int>(100);
};

TEST_F(ArrxTest, ASearchGivesTheFirstNotBeforeOrElseTheLast) {
  EXPECT_EQ(zem_arrx_bfind(list, against(5)), nullptr);
  EXPECT_EQ(zem_arrx_bfind_index(list, against(5)), std::nullopt);
  for (const int number : {30, 10, 20})
    ASSERT_TRUE(insert(number));

  EXPECT_EQ(zem_arrx_bfind(list, against(5)), item(10));
  EXPECT_EQ(zem_arrx_bfind(list, against(10)), item(10));
  EXPECT_EQ(zem_arrx_bfind(list, against(11)), item(20));
  EXPECT_EQ(zem_arrx_bfind(list, against(30)), item(30));
  EXPECT_EQ(zem_arrx_bfind_index(list, against(30)), 2U);
  EXPECT_EQ(zem_arrx_bfind_index(list, against(31)), 2U);
}

TEST_F(ArrxTest, PlacesBeyondTheEndAreTheEndWhenInsertedAndNothingElsewhere) {
  zem_arrx_insert_at(list, 7, item(3));
  zem_arrx_insert_at(list, 0, item(1));
  zem_arrx_insert_at(list, 1, item(2));
  zem_arrx_insert_at(list, 3, item(4));
  EXPECT_THAT(content(), ElementsAre(1, 2, 3, 4));

  EXPECT_EQ(zem_arrx_get_at(list, 4), nullptr);
  EXPECT_EQ(zem_arrx_remove_at(list, 4), nullptr);
  EXPECT_EQ(zem_arrx_remove_at(list, 3), item(4));
  EXPECT_EQ(zem_arrx_remove_at(list, 0), item(1));
  EXPECT_THAT(content(), ElementsAre(2, 3));
}

TEST_F(ArrxTest, RoomGrowsByHalfBetweenEightAndManyAndIsKept) {
  const auto room_for = [&](std::size_t count) {
    zem_arrx_expand(list, count);
    return list.items.capacity();
  };
  EXPECT_EQ(room_for(1), 8U);
  EXPECT_EQ(room_for(8), 8U);
  EXPECT_EQ(room_for(9), 16U);
  EXPECT_EQ(room_for(101), 104U);  // a multiple of four
  for (int i = 0; i < 100; ++i)
    zem_arrx_append(list, item(i));
  EXPECT_EQ(room_for(105), 156U);  // half of the hundred in use
  while (zem_arrx_count(list) < 200'000)
    zem_arrx_append(list, item(0));
  const std::size_t before = list.items.capacity();
  EXPECT_EQ(room_for(before + 1), before + 65536);

  zem_arrx_remove_at(list, 0);
  EXPECT_EQ(list.items.capacity(), before + 65536);
  zem_arrx_clear(list);
  EXPECT_EQ(list.items.capacity(), 0U);
}

TEST_F(ArrxTest, ARandomListStaysSortedAndFreeOfDoubles) {
  std::mt19937 random(42);
  std::set<int> model;
  for (int step = 0; step < 2000; ++step) {
    const int number = static_cast<int>(random() % 100);
    if (random() % 3 == 0 && !model.empty()) {
      const std::size_t index = random() % model.size();
      model.erase(*zem_arrx_remove_at(list, index));
    } else {
      ASSERT_EQ(insert(number), model.insert(number).second) << "step " << step;
    }
    ASSERT_EQ(content(), std::vector<int>(model.begin(), model.end())) << "step " << step;
  }
}

}  // namespace
