#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/var.h"

namespace {

using ::testing::ElementsAre;

constexpr std::int64_t smallest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();

using var_owner = std::unique_ptr<zem_var, decltype(&zem_var_free)>;
var_owner new_list(int tagged) { return {zem_var_new(4, tagged), zem_var_free}; }

std::optional<std::string> text_at(const zem_var *list, std::int64_t index) {
  const char *text = "untouched";
  std::int64_t length = -7;
  if (zem_var_get_string(list, index, &text, &length) == 0) {
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(length, 0);
    return std::nullopt;
  }
  EXPECT_EQ(text[length], '\0');
  return std::string(text, static_cast<std::size_t>(length));
}

std::vector<std::uint64_t> numbers(const zem_var *list) {
  std::vector<std::uint64_t> found;
  for (std::int64_t i = 0; i < zem_var_size(list); ++i)
    found.push_back(zem_var_get_long(list, i));
  return found;
}

TEST(Var, NumbersInBothWidths) {
  const var_owner list = new_list(0);
  EXPECT_EQ(zem_var_add_long(list.get(), ~std::uint64_t{0}), 1);
  EXPECT_EQ(zem_var_add_integer(list.get(), 0xFFFFFFFF), 1);

  EXPECT_THAT(numbers(list.get()), ElementsAre(~std::uint64_t{0}, 0xFFFFFFFFU));
  EXPECT_EQ(zem_var_get_integer(list.get(), 0), 0xFFFFFFFFU);
  EXPECT_EQ(zem_var_get_long(list.get(), -1), 0xFFFFFFFFU);
  EXPECT_EQ(text_at(list.get(), 0), std::nullopt);

  const std::uint64_t *values = nullptr;
  const std::uint32_t *tags = reinterpret_cast<const std::uint32_t *>(&values);
  EXPECT_EQ(zem_var_longs(list.get(), &values, &tags), 2);
  EXPECT_EQ(values[0], ~std::uint64_t{0});
  EXPECT_EQ(tags, nullptr);
}

TEST(Var, TextsAmongNumbers) {
  const var_owner list = new_list(1);
  zem_var_add_long(list.get(), 1);
  zem_var_add_long(list.get(), 2);
  EXPECT_EQ(zem_var_add_string(list.get(), "three", -1), 1);
  EXPECT_EQ(zem_var_add_string(list.get(), "a\0b", 3), 1);
  EXPECT_EQ(zem_var_add_string(list.get(), nullptr, 0), 1);
  zem_var_add_long(list.get(), 6);

  EXPECT_THAT(numbers(list.get()), ElementsAre(1, 2, 0, 0, 0, 6));
  EXPECT_EQ(text_at(list.get(), 1), std::nullopt);
  EXPECT_EQ(text_at(list.get(), 2), "three");
  EXPECT_EQ(text_at(list.get(), 3), std::string("a\0b", 3));
  EXPECT_EQ(text_at(list.get(), 4), "");
  EXPECT_EQ(text_at(list.get(), 5), std::nullopt);

  EXPECT_EQ(zem_var_set_string(list.get(), 1, "two", 2), 1);
  EXPECT_EQ(text_at(list.get(), 1), "tw");
  EXPECT_EQ(zem_var_get_long(list.get(), 1), 0U);
}

TEST(Var, TheListsOwnTextIsNoItem) {
  const var_owner list = new_list(0);
  EXPECT_EQ(text_at(list.get(), -1), std::nullopt);

  EXPECT_EQ(zem_var_set_string(list.get(), -1, "", -1), 1);
  EXPECT_EQ(text_at(list.get(), -1), "");
  EXPECT_EQ(zem_var_set_string(list.get(), -1, "stream", -1), 1);
  EXPECT_EQ(zem_var_size(list.get()), 0);
  zem_var_add_string(list.get(), "item", -1);
  zem_var_shrink(list.get(), 0);
  EXPECT_EQ(text_at(list.get(), -1), "stream");
}

TEST(Var, TagsFollowTheirItems) {
  const var_owner list = new_list(1);
  for (std::uint32_t i = 0; i < 100; ++i) {
    zem_var_add_integer(list.get(), i);
    EXPECT_EQ(zem_var_get_buf(list.get(), -1), 0U);
    EXPECT_EQ(zem_var_set_buf(list.get(), -1, 1000 + i), 1);
  }
  EXPECT_EQ(zem_var_set_buf(list.get(), 7, 5), 1);

  zem_var_shrink(list.get(), 50);
  zem_var_add_long(list.get(), 9);

  const std::uint64_t *values = nullptr;
  const std::uint32_t *tags = nullptr;
  ASSERT_EQ(zem_var_longs(list.get(), &values, &tags), 51);
  EXPECT_EQ(tags[7], 5U);
  EXPECT_EQ(tags[49], 1049U);
  EXPECT_EQ(tags[50], 0U);
  EXPECT_EQ(values[50], 9U);

  const var_owner plain = new_list(0);
  zem_var_add_long(plain.get(), 1);
  EXPECT_EQ(zem_var_set_buf(plain.get(), 0, 1), 0);
  EXPECT_EQ(zem_var_get_buf(plain.get(), 0), 0U);
}

TEST(Var, ShrinkingKeepsTheFirstItems) {
  const var_owner list = new_list(0);
  zem_var_add_long(list.get(), 1);
  zem_var_add_string(list.get(), "two", -1);
  zem_var_add_string(list.get(), "three", -1);

  zem_var_shrink(list.get(), largest);
  EXPECT_EQ(zem_var_size(list.get()), 3);
  zem_var_shrink(list.get(), 2);
  zem_var_add_long(list.get(), 4);
  EXPECT_THAT(numbers(list.get()), ElementsAre(1, 0, 4));
  EXPECT_EQ(text_at(list.get(), 1), "two");
  EXPECT_EQ(text_at(list.get(), 2), std::nullopt);
  zem_var_shrink(list.get(), smallest);
  EXPECT_EQ(zem_var_size(list.get()), 0);
}

TEST(Var, HostileIndexesMeanNothing) {
  const var_owner list = new_list(1);
  zem_var_add_long(list.get(), 1);
  zem_var_add_string(list.get(), "two", -1);
  const var_owner empty = new_list(1);

  for (const std::int64_t index : {smallest, std::int64_t{-2}, std::int64_t{2}, largest}) {
    SCOPED_TRACE(index);
    for (zem_var *const any : {list.get(), empty.get(), static_cast<zem_var *>(nullptr)}) {
      EXPECT_EQ(zem_var_get_long(any, index), 0U);
      EXPECT_EQ(zem_var_get_integer(any, index), 0U);
      EXPECT_EQ(text_at(any, index), std::nullopt);
      EXPECT_EQ(zem_var_set_string(any, index, "x", -1), 0);
      EXPECT_EQ(zem_var_get_buf(any, index), 0U);
      EXPECT_EQ(zem_var_set_buf(any, index, 1), 0);
    }
  }
  EXPECT_EQ(zem_var_get_long(empty.get(), -1), 0U);
  EXPECT_EQ(zem_var_set_buf(empty.get(), -1, 1), 0);
  EXPECT_THAT(numbers(list.get()), ElementsAre(1, 0));
}

TEST(Var, HostileArgumentsAreRefused) {
  const var_owner list = new_list(1);
  zem_var_add_string(list.get(), "kept", -1);

  for (const std::int64_t length : {smallest, std::int64_t{-2}, largest}) {
    EXPECT_EQ(zem_var_add_string(list.get(), "text", length), 0);
    EXPECT_EQ(zem_var_set_string(list.get(), 0, "text", length), 0);
    EXPECT_EQ(zem_var_set_string(list.get(), -1, "text", length), 0);
  }
  EXPECT_EQ(zem_var_add_string(list.get(), nullptr, -1), 0);
  EXPECT_EQ(zem_var_add_string(list.get(), nullptr, 5), 0);
  EXPECT_EQ(zem_var_size(list.get()), 1);
  EXPECT_EQ(text_at(list.get(), 0), "kept");
  EXPECT_EQ(text_at(list.get(), -1), std::nullopt);
  EXPECT_EQ(zem_var_get_string(list.get(), 0, nullptr, nullptr), 1);
  EXPECT_EQ(zem_var_longs(list.get(), nullptr, nullptr), 1);

  EXPECT_EQ(zem_var_new(largest, 0), nullptr);
  const var_owner negative{zem_var_new(smallest, 1), zem_var_free};
  EXPECT_EQ(zem_var_add_long(negative.get(), 1), 1);

  EXPECT_EQ(zem_var_add_long(nullptr, 1), 0);
  EXPECT_EQ(zem_var_add_string(nullptr, "x", -1), 0);
  EXPECT_EQ(zem_var_set_string(nullptr, -1, "x", -1), 0);
  EXPECT_EQ(zem_var_size(nullptr), 0);
  EXPECT_EQ(zem_var_longs(nullptr, nullptr, nullptr), 0);
  zem_var_shrink(nullptr, 0);
  zem_var_free(nullptr);
}

}  // namespace
