#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "base/var.h"

namespace {

constexpr std::int64_t smallest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();

using var_owner = std::unique_ptr<zem_var, decltype(&zem_var_free)>;
var_owner new_list(int tagged) { return {zem_var_new(4, tagged), zem_var_free}; }

std::optional<std::string> text_at(const zem_var *list, std::int64_t index) {
  const char *text = "untouched";
  std::int64_t length = -7;
  const bool found = zem_var_get_string(list, index, &text, &length) != 0;
  EXPECT_TRUE(found ? text[length] == '\0' : text == nullptr && length == 0);
  if (!found) return std::nullopt;
  return std::string(text, static_cast<std::size_t>(length));
}

TEST(Var, TextsAmongNumbersAndBesideThemWithTags) {
  const var_owner list = new_list(1);
  EXPECT_EQ(text_at(list.get(), -1), std::nullopt);
  zem_var_set_string(list.get(), -1, "stream", -1);
  zem_var_add_long(list.get(), ~std::uint64_t{0});
  zem_var_add_long(list.get(), 1);
  EXPECT_EQ(zem_var_add_string(list.get(), "a\0b", 3), 1);
  EXPECT_EQ(zem_var_add_string(list.get(), nullptr, 0), 1);
  EXPECT_EQ(zem_var_set_buf(list.get(), 2, 5), 1);
  EXPECT_EQ(zem_var_set_buf(list.get(), -1, 6), 1);
  EXPECT_EQ(zem_var_set_string(list.get(), 1, "two", 2), 1);
  EXPECT_EQ(zem_var_get_long(list.get(), 0), ~std::uint64_t{0});
  EXPECT_EQ(text_at(list.get(), 0), std::nullopt);
  EXPECT_EQ(zem_var_get_long(list.get(), 1), 0U);
  EXPECT_EQ(text_at(list.get(), 1), "tw");
  EXPECT_EQ(text_at(list.get(), 2), std::string("a\0b", 3));
  EXPECT_EQ(text_at(list.get(), 3), "");
  zem_var_shrink(list.get(), largest);
  EXPECT_EQ(zem_var_size(list.get()), 4);
  zem_var_shrink(list.get(), 3);
  zem_var_add_long(list.get(), 4);
  EXPECT_EQ(text_at(list.get(), 3), std::nullopt);
  EXPECT_EQ(zem_var_get_buf(list.get(), 2), 5U);
  EXPECT_EQ(zem_var_get_buf(list.get(), 3), 0U);
  zem_var_shrink(list.get(), smallest);
  EXPECT_EQ(zem_var_size(list.get()), 0);
  EXPECT_EQ(text_at(list.get(), -1), "stream");
}

TEST(Var, HostileArgumentsAreRefusedAndChangeNothing) {
  const var_owner list = new_list(1);
  zem_var_add_long(list.get(), 1);
  zem_var_add_string(list.get(), "two", -1);
  const var_owner empty = new_list(1);
  for (zem_var *const any : {list.get(), empty.get(), static_cast<zem_var *>(nullptr)}) {
    for (const std::int64_t index : {smallest, std::int64_t{-2}, std::int64_t{2}, largest}) {
      SCOPED_TRACE(index);
      EXPECT_EQ(zem_var_get_long(any, index), 0U);
      EXPECT_EQ(zem_var_get_integer(any, index), 0U);
      EXPECT_EQ(text_at(any, index), std::nullopt);
      EXPECT_EQ(zem_var_set_string(any, index, "x", -1), 0);
      EXPECT_EQ(zem_var_get_buf(any, index), 0U);
      EXPECT_EQ(zem_var_set_buf(any, index, 1), 0);
    }
    for (const std::int64_t length : {smallest, std::int64_t{-2}, largest}) {
      EXPECT_EQ(zem_var_add_string(any, "text", length), 0);
      EXPECT_EQ(zem_var_set_string(any, 0, "text", length), 0);
      EXPECT_EQ(zem_var_set_string(any, -1, "text", length), 0);
    }
    EXPECT_EQ(zem_var_add_string(any, nullptr, -1), 0);
    EXPECT_EQ(zem_var_add_string(any, nullptr, 5), 0);
    EXPECT_EQ(zem_var_longs(any, nullptr, nullptr), zem_var_size(any));
  }
  EXPECT_EQ(zem_var_size(list.get()), 2);
  EXPECT_EQ(text_at(list.get(), 1), "two");
  zem_var_shrink(nullptr, 0);
  zem_var_free(nullptr);
  EXPECT_EQ(zem_var_new(largest, 0), nullptr);
  const var_owner negative{zem_var_new(smallest, 1), zem_var_free};
  EXPECT_EQ(zem_var_add_long(negative.get(), 1), 1);
}

}  // namespace
