#!/usr/bin/env bash
# Builds and runs the benchmarks.
#
#   scripts/bench.sh [ARGUMENTS]        those of the modules, for instance with
#                                       --benchmark_filter=insert --benchmark_repetitions=5
#   scripts/bench.sh peers [ARGUMENTS]  our library beside other stores, for instance with
#                                       --tuned --works zipf; see bench/peers/peers.cc
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)"
if [ "${1:-}" = peers ]; then
  shift
  exec build/release/bench/peers/peers --directory build/peers.data "$@"
fi
for program in build/release/bench/*_bench; do
  echo "==== $(basename "$program")"
  "$program" "$@"
done
