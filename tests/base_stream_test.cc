#include <array>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <span>
#include <vector>

#include "base/stream.h"

namespace {

// Both sides of every length, each read from exactly its bytes and from one byte less.
TEST(Stream, NumbersOfAnyLengthAreReadWholeOrRefused) {
  std::vector<std::uint64_t> values{0, ~std::uint64_t{0}};
  for (unsigned bits = 7; bits < 64; bits += 7) {
    values.push_back((std::uint64_t{1} << bits) - 1);
    values.push_back(std::uint64_t{1} << bits);
  }
  std::uint64_t read = 0;
  for (const std::uint64_t value : values) {
    SCOPED_TRACE(value);
    std::array<std::byte, zem_stream_deflate_lword_max> bytes{};
    const std::size_t length = zem_stream_deflate_lword(bytes.data(), value);
    EXPECT_EQ(length, zem_stream_deflate_lword_length(value));
    std::size_t pos = 0;
    EXPECT_FALSE(zem_stream_inflate_lword(std::span(bytes).first(length - 1), pos, read));
    EXPECT_TRUE(zem_stream_inflate_lword(std::span(bytes).first(length), pos, read));
    EXPECT_EQ(read, value);
    EXPECT_EQ(pos, length);
  }
  std::size_t pos = 0;
  EXPECT_FALSE(zem_stream_inflate_lword(std::vector(20, std::byte{0x80}), pos, read));
}

}  // namespace
