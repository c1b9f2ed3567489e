// Both methods work on the state: the CRC without its final inversion, seen as a polynomial of
// degree 31 whose bit i is the coefficient of x^(31-i), because the first bit of a message is the
// lowest of its first byte and stands for the highest power.
#include "base/crc.h"

#include <array>
#include <cstring>

#include "base/stream.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

constexpr std::uint32_t polynomial = 0xEDB88320;  // without its x^32
constexpr std::uint32_t all_ones = 0xFFFFFFFF;    // initial state

// The remainder of `state` times x.
constexpr std::uint32_t times_x(std::uint32_t state) noexcept {
  return (state >> 1) ^ ((state & 1) != 0 ? polynomial : 0);
}

constexpr std::size_t slice_bytes = 16;  // bytes that the table method takes in one step
using crc_tables = std::array<std::array<std::uint32_t, 256>, slice_bytes>;

// Entry [k][b] is what byte b contributes to the state when k bytes follow it.
constexpr crc_tables make_tables() noexcept {
  crc_tables tables{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t state = byte;
    for (int bit = 0; bit < 8; ++bit)
      state = times_x(state);
    tables[0][byte] = state;
  }
  for (std::size_t k = 1; k < slice_bytes; ++k) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const std::uint32_t state = tables[k - 1][byte];
      tables[k][byte] = (state >> 8) ^ tables[0][state & 0xff];
    }
  }
  return tables;
}

constexpr crc_tables tables = make_tables();

// What the four bytes of `word` contribute when `following` bytes come after them.
std::uint32_t look_up_word(std::uint32_t word, std::size_t following) noexcept {
  return tables[following + 3][word & 0xff] ^ tables[following + 2][(word >> 8) & 0xff] ^
         tables[following + 1][(word >> 16) & 0xff] ^ tables[following][word >> 24];
}

// The state after `bytes`, by tables.
std::uint32_t look_up(std::uint32_t state, std::span<const std::byte> bytes) noexcept {
  while (bytes.size() >= slice_bytes) {
    const std::byte *const at = bytes.data();
    state = look_up_word(zem_stream_get_dword(at) ^ state, 12) ^
            look_up_word(zem_stream_get_dword(at + 4), 8) ^
            look_up_word(zem_stream_get_dword(at + 8), 4) ^
            look_up_word(zem_stream_get_dword(at + 12), 0);
    bytes = bytes.subspan(slice_bytes);
  }
  for (const std::byte byte : bytes)
    state = (state >> 8) ^ tables[0][(state ^ std::to_integer<std::uint32_t>(byte)) & 0xff];
  return state;
}

#if defined(__x86_64__)
// Folding: a lane of 128 message bits may be replaced by any 128 bits of the same remainder, added
// to the message further on. Distance `bits` further on the lane's first 64 bits weigh
// x^(bits + 64) and its last 64 bits x^bits; times the remainders of these powers both halves fit
// into a lane again.
//
// A carry-less product of two 64-bit words has 127 bits, which in this bit order lie one place
// short: it stands for the product times x. The powers are one less therefore. A remainder is a
// 64-bit word with its 32 coefficients in the upper half, where the lowest powers are.

constexpr std::size_t lane_bytes = 16;
constexpr std::size_t stride_bytes = 4 * lane_bytes;

constexpr std::uint64_t power_of_x(unsigned exponent) noexcept {
  std::uint32_t state = 0x80000000;  // x^0
  for (unsigned i = 0; i < exponent; ++i)
    state = times_x(state);
  return std::uint64_t{state} << 32;
}

struct fold_factors {
  std::uint64_t first;
  std::uint64_t last;
};

constexpr fold_factors factors_for(std::size_t bytes) noexcept {
  const auto bits = static_cast<unsigned>(8 * bytes);
  return {power_of_x(bits + 63), power_of_x(bits - 1)};
}

constexpr fold_factors lane_factors = factors_for(lane_bytes);
constexpr fold_factors stride_factors = factors_for(stride_bytes);

[[gnu::target("pclmul,sse4.1")]] __m128i load_lane(const std::byte *at) noexcept {
  __m128i lane;
  std::memcpy(&lane, at, sizeof lane);
  return lane;
}

[[gnu::target("pclmul,sse4.1")]] __m128i load_factors(const fold_factors &factors) noexcept {
  return _mm_set_epi64x(static_cast<long long>(factors.last),
                        static_cast<long long>(factors.first));
}

// `lane`, moved on by the distance of `factors`, plus the lane `next` that stands there.
[[gnu::target("pclmul,sse4.1")]] __m128i fold(__m128i lane, __m128i factors,
                                              __m128i next) noexcept {
  const __m128i first = _mm_clmulepi64_si128(lane, factors, 0x00);
  const __m128i last = _mm_clmulepi64_si128(lane, factors, 0x11);
  return _mm_xor_si128(next, _mm_xor_si128(first, last));
}

// The state after `bytes`, of which there are at least stride_bytes. Four lanes at once keep the
// multiplier busy: one product waits for the result of another only every fourth time.
[[gnu::target("pclmul,sse4.1")]] std::uint32_t fold_all(std::uint32_t state,
                                                        std::span<const std::byte> bytes) noexcept {
  const std::byte *at = bytes.data();
  const std::byte *const end = at + bytes.size();
  __m128i lanes[4] = {load_lane(at), load_lane(at + 16), load_lane(at + 32), load_lane(at + 48)};
  lanes[0] = _mm_xor_si128(lanes[0], _mm_cvtsi32_si128(static_cast<int>(state)));
  at += stride_bytes;

  const __m128i stride = load_factors(stride_factors);
  for (; end - at >= static_cast<std::ptrdiff_t>(stride_bytes); at += stride_bytes) {
    lanes[0] = fold(lanes[0], stride, load_lane(at));
    lanes[1] = fold(lanes[1], stride, load_lane(at + 16));
    lanes[2] = fold(lanes[2], stride, load_lane(at + 32));
    lanes[3] = fold(lanes[3], stride, load_lane(at + 48));
  }

  const __m128i one = load_factors(lane_factors);
  __m128i lane = fold(lanes[0], one, lanes[1]);
  lane = fold(lane, one, lanes[2]);
  lane = fold(lane, one, lanes[3]);
  for (; end - at >= static_cast<std::ptrdiff_t>(lane_bytes); at += lane_bytes)
    lane = fold(lane, one, load_lane(at));

  // The lane's bytes now stand for the whole message before `at`, its initial state included.
  std::array<std::byte, lane_bytes> folded{};
  std::memcpy(folded.data(), &lane, sizeof lane);
  return look_up(look_up(0, folded), {at, end});
}

std::uint32_t advance(std::uint32_t state, std::span<const std::byte> bytes) noexcept {
  const bool can_fold = bytes.size() >= stride_bytes && __builtin_cpu_supports("pclmul") != 0 &&
                        __builtin_cpu_supports("sse4.1") != 0;
  return can_fold ? fold_all(state, bytes) : look_up(state, bytes);
}
#else
std::uint32_t advance(std::uint32_t state, std::span<const std::byte> bytes) noexcept {
  return look_up(state, bytes);
}
#endif

}  // namespace

std::uint32_t zem_stream_crc32(std::span<const std::byte> bytes) noexcept {
  return ~advance(all_ones, bytes);
}

std::uint32_t zem_stream_crc32_table(std::span<const std::byte> bytes) noexcept {
  return ~look_up(all_ones, bytes);
}
