#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <span>
#include <string_view>
#include <vector>

#include "base/crc.h"

namespace {

std::uint32_t crc_bit_by_bit(std::span<const std::byte> bytes) {
  std::uint32_t state = 0xFFFFFFFF;
  for (const std::byte byte : bytes) {
    state ^= std::to_integer<std::uint32_t>(byte);
    for (int bit = 0; bit < 8; ++bit)
      state = (state >> 1) ^ ((state & 1) != 0 ? 0xEDB88320 : 0);
  }
  return ~state;
}

// The folding takes 64 bytes, then 16, then single ones: every mix of them, at any address.
TEST(Crc, BothMethodsAgreeWithOneBitByBit) {
  constexpr std::string_view digits = "123456789";
  ASSERT_EQ(crc_bit_by_bit(std::as_bytes(std::span(digits))), 0xCBF43926U);
  std::mt19937 random(1);
  std::vector<std::byte> bytes(200'000);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::byte>(random()); });
  const auto check = [&](std::size_t offset, std::size_t length) {
    const auto part = std::span(bytes).subspan(offset, length);
    const std::uint32_t expected = crc_bit_by_bit(part);
    ASSERT_EQ(zem_stream_crc32(part), expected) << offset << ", length " << length;
    ASSERT_EQ(zem_stream_crc32_table(part), expected) << offset << ", length " << length;
  };
  for (std::size_t offset = 0; offset < 16; ++offset)
    for (std::size_t length = 0; length <= 300; ++length)
      ASSERT_NO_FATAL_FAILURE(check(offset, length));
  for (const std::size_t length : {4095U, 4096U, 65532U, 65536U, 199'999U})
    check(1, length);
}

}  // namespace
