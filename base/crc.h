// CRC-32: the reflected IEEE 802.3 polynomial 0xEDB88320, initial value and final inversion all
// ones, as Ethernet, gzip and PNG use it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Folds with carry-less multiplication where the processor has it, else works by tables.
std::uint32_t zem_stream_crc32(std::span<const std::byte> bytes) noexcept;

// The table method alone, on any processor. For the tests and benchmarks that compare the two.
std::uint32_t zem_stream_crc32_table(std::span<const std::byte> bytes) noexcept;
