// Bytes of files and streams: little-endian words at any alignment, and variable-length numbers.
//
// A variable-length number holds 7 bits a byte, low bits first; the high bit is set while more
// bytes follow. A 64-bit number takes 1 to 10 bytes.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

inline constexpr std::size_t zem_block_size = 65536;  // of log, data and index blocks, in bytes
using zem_block_span = std::span<std::byte, zem_block_size>;
using zem_block_view = std::span<const std::byte, zem_block_size>;

template <class Word>
inline Word zem_stream_get(const std::byte *at) noexcept {
  Word value{};
  std::memcpy(&value, at, sizeof value);
  if constexpr (std::endian::native == std::endian::big) {
    Word swapped{};
    for (std::size_t i = 0; i < sizeof value; ++i)
      swapped = static_cast<Word>(swapped | static_cast<Word>((value >> (8 * i)) & 0xff)
                                                << (8 * (sizeof value - 1 - i)));
    value = swapped;
  }
  return value;
}

template <class Word>
inline void zem_stream_set(std::byte *at, Word value) noexcept {
  if constexpr (std::endian::native == std::endian::big) {
    for (std::size_t i = 0; i < sizeof value; ++i)
      at[i] = static_cast<std::byte>(value >> (8 * i));
  } else {
    std::memcpy(at, &value, sizeof value);
  }
}

inline std::uint16_t zem_stream_get_word(const std::byte *at) noexcept {
  return zem_stream_get<std::uint16_t>(at);
}
inline std::uint32_t zem_stream_get_dword(const std::byte *at) noexcept {
  return zem_stream_get<std::uint32_t>(at);
}
inline std::uint64_t zem_stream_get_lword(const std::byte *at) noexcept {
  return zem_stream_get<std::uint64_t>(at);
}
inline std::uint32_t zem_stream_get_tword(const std::byte *at) noexcept {  // 3 bytes
  return zem_stream_get_word(at) | std::to_integer<std::uint32_t>(at[2]) << 16;
}
inline void zem_stream_set_word(std::byte *at, std::uint16_t value) noexcept {
  zem_stream_set(at, value);
}
inline void zem_stream_set_dword(std::byte *at, std::uint32_t value) noexcept {
  zem_stream_set(at, value);
}
inline void zem_stream_set_lword(std::byte *at, std::uint64_t value) noexcept {
  zem_stream_set(at, value);
}
inline void zem_stream_set_tword(std::byte *at, std::uint32_t value) noexcept {  // low 3 bytes
  zem_stream_set_word(at, static_cast<std::uint16_t>(value));
  at[2] = static_cast<std::byte>(value >> 16);
}

inline constexpr std::size_t zem_stream_deflate_lword_max = 10;

inline std::size_t zem_stream_deflate_lword_length(std::uint64_t value) noexcept {
  return value == 0 ? 1 : (static_cast<std::size_t>(std::bit_width(value)) + 6) / 7;
}

// Writes `value` at `at`, where at least zem_stream_deflate_lword_length(value) bytes have room.
// Returns the bytes written.
inline std::size_t zem_stream_deflate_lword(std::byte *at, std::uint64_t value) noexcept {
  std::size_t length = 0;
  for (; value >= 0x80; value >>= 7)
    at[length++] = static_cast<std::byte>(value | 0x80);
  at[length++] = static_cast<std::byte>(value);
  return length;
}

// Reads a number at `pos` and moves `pos` behind it. False, with `pos` as it was, when the bytes
// end inside the number or it is longer than 10 bytes.
inline bool zem_stream_inflate_lword(std::span<const std::byte> bytes, std::size_t &pos,
                                     std::uint64_t &value) noexcept {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < zem_stream_deflate_lword_max && pos + i < bytes.size(); ++i) {
    const auto byte = std::to_integer<std::uint64_t>(bytes[pos + i]);
    sum |= (byte & 0x7f) << (7 * i);
    if (byte < 0x80) {
      pos += i + 1;
      value = sum;
      return true;
    }
  }
  return false;
}
