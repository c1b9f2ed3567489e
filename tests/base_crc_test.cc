#include <array>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <span>
#include <string_view>
#include <vector>

#include "base/crc.h"

namespace {

using crc_function = std::uint32_t (*)(std::span<const std::byte>) noexcept;
constexpr std::array<crc_function, 2> methods{zem_stream_crc32, zem_stream_crc32_table};

std::uint32_t crc_bit_by_bit(std::span<const std::byte> bytes) {
  std::uint32_t state = 0xFFFFFFFF;
  for (const std::byte byte : bytes) {
    state ^= std::to_integer<std::uint32_t>(byte);
    for (int bit = 0; bit < 8; ++bit)
      state = (state >> 1) ^ ((state & 1) != 0 ? 0xEDB88320 : 0);
  }
  return ~state;
}

std::vector<std::byte> random_bytes(std::size_t count) {
  std::mt19937 random(1);
  std::vector<std::byte> bytes(count);
  for (std::byte &byte : bytes)
    byte = static_cast<std::byte>(random());
  return bytes;
}

TEST(Crc, KnownCheckValues) {
  constexpr std::string_view digits = "123456789";
  constexpr std::string_view fox = "The quick brown fox jumps over the lazy dog";
  for (const crc_function crc : methods) {
    EXPECT_EQ(crc({}), 0U);
    EXPECT_EQ(crc(std::as_bytes(std::span(digits))), 0xCBF43926U);
    EXPECT_EQ(crc(std::as_bytes(std::span(fox))), 0x414FA339U);
    EXPECT_EQ(crc(std::vector<std::byte>(32, std::byte{0})), 0x190A55ADU);
    EXPECT_EQ(crc(std::vector<std::byte>(32, std::byte{0xFF})), 0xFF6CAB0BU);
    EXPECT_EQ(crc(std::vector<std::byte>(65532, std::byte{0x5A})), 0x195EBAC6U);
  }
}

// The folding takes 64 bytes, then 16, then single ones: every mix of them, at any address.
TEST(Crc, EveryLengthAtEveryAlignment) {
  const std::vector<std::byte> bytes = random_bytes(320);
  for (std::size_t offset = 0; offset < 16; ++offset) {
    for (std::size_t length = 0; length <= 300; ++length) {
      const auto part = std::span(bytes).subspan(offset, length);
      const std::uint32_t expected = crc_bit_by_bit(part);
      for (const crc_function crc : methods)
        ASSERT_EQ(crc(part), expected) << "offset " << offset << ", length " << length;
    }
  }
}

TEST(Crc, LongBuffers) {
  const std::vector<std::byte> bytes = random_bytes(200'000);
  for (const std::size_t length : {4095U, 4096U, 65532U, 65536U, 199'999U}) {
    const auto part = std::span(bytes).first(length);
    const std::uint32_t expected = crc_bit_by_bit(part);
    for (const crc_function crc : methods)
      EXPECT_EQ(crc(part), expected) << length;
  }
}

}  // namespace
