#include "base/crc.h"

#include <benchmark/benchmark.h>
#include <cstddef>
#include <span>
#include <vector>

namespace {

// The checksum of one buffer. 65532 bytes are what a block's checksum covers; 64 shows the cost of
// a call.
template <std::uint32_t (*crc)(std::span<const std::byte>) noexcept>
void crc_buffer(benchmark::State &state) {
  const std::vector<std::byte> bytes(static_cast<std::size_t>(state.range(0)), std::byte{0x5a});
  for (auto _ : state)
    benchmark::DoNotOptimize(crc(bytes));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(crc_buffer<zem_stream_crc32>)->ArgName("bytes")->Arg(64)->Arg(4096)->Arg(65532);
BENCHMARK(crc_buffer<zem_stream_crc32_table>)->ArgName("bytes")->Arg(64)->Arg(4096)->Arg(65532);

}  // namespace
