#!/usr/bin/env bash
# Builds and runs the benchmarks.
#
#   scripts/bench.sh [ARGUMENTS]        those of the modules, for instance with
#                                       --benchmark_filter=insert --benchmark_repetitions=5
#   scripts/bench.sh peers [ARGUMENTS]  our library beside other stores, for instance with
#                                       --tuned --works zipf; see bench/peers/peers.cc. Their
#                                       packages have assertions on: scripts/peers.sh makes others
#   scripts/bench.sh growth [ARGUMENTS] what a posting costs as a table grows to 100 million
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)"
if [ "${1:-}" = peers ]; then
  shift
  [ ! -d build/peers.libs ] || export LD_LIBRARY_PATH="$PWD/build/peers.libs"
  exec build/release/bench/peers/peers --directory build/peers.data "$@"
fi
if [ "${1:-}" = growth ]; then
  shift
  exec build/release/bench/peers/growth --directory build/growth.data "$@"
fi
for program in build/release/bench/*_bench; do
  echo "==== $(basename "$program")"
  "$program" "$@"
done
