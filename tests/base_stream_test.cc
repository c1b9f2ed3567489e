#include <array>
#include <cstddef>
#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <span>
#include <vector>

#include "base/stream.h"

namespace {

TEST(Stream, WordsLieLowByteFirstAtAnyAddress) {
  std::array<std::byte, 18> bytes{};
  zem_stream_set_word(&bytes[1], 0x0201);
  zem_stream_set_tword(&bytes[3], 0xFF050403);
  zem_stream_set_dword(&bytes[6], 0x09080706);
  zem_stream_set_lword(&bytes[10], 0x11100F0E0D0C0B0A);

  for (std::size_t i = 1; i < bytes.size(); ++i)
    EXPECT_EQ(std::to_integer<std::size_t>(bytes[i]), i);
  EXPECT_EQ(zem_stream_get_word(&bytes[1]), 0x0201U);
  EXPECT_EQ(zem_stream_get_tword(&bytes[3]), 0x050403U);
  EXPECT_EQ(zem_stream_get_dword(&bytes[6]), 0x09080706U);
  EXPECT_EQ(zem_stream_get_lword(&bytes[10]), 0x11100F0E0D0C0B0AU);
}

// Both sides of every length, each read from exactly its bytes and from one byte less.
TEST(Stream, VariableLengthNumbers) {
  std::vector<std::uint64_t> values{0, ~std::uint64_t{0}};
  for (unsigned bits = 7; bits < 64; bits += 7) {
    values.push_back((std::uint64_t{1} << bits) - 1);
    values.push_back(std::uint64_t{1} << bits);
  }
  for (const std::uint64_t value : values) {
    SCOPED_TRACE(value);
    std::array<std::byte, zem_stream_deflate_lword_max> bytes{};
    const std::size_t length = zem_stream_deflate_lword(bytes.data(), value);
    EXPECT_EQ(length, zem_stream_deflate_lword_length(value));

    std::size_t pos = 0;
    std::uint64_t read = 0;
    EXPECT_TRUE(zem_stream_inflate_lword(std::span(bytes).first(length), pos, read));
    EXPECT_EQ(read, value);
    EXPECT_EQ(pos, length);

    pos = 0;
    EXPECT_FALSE(zem_stream_inflate_lword(std::span(bytes).first(length - 1), pos, read));
    EXPECT_EQ(pos, 0U);
  }
}

TEST(Stream, ANumberWithoutEndIsRefused) {
  const std::vector<std::byte> bytes(20, std::byte{0x80});
  std::uint64_t value = 5;
  for (std::size_t begin : {std::size_t{0}, std::size_t{15}, std::size_t{20}}) {
    std::size_t pos = begin;
    EXPECT_FALSE(zem_stream_inflate_lword(bytes, pos, value));
    EXPECT_EQ(pos, begin);
  }
  EXPECT_EQ(value, 5U);
}

}  // namespace
