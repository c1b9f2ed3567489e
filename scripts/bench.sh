#!/usr/bin/env bash
# Builds and runs the benchmarks. Arguments go to every one of them, for instance
#   scripts/bench.sh --benchmark_filter=insert --benchmark_repetitions=5
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)"
for program in build/release/bench/*_bench; do
  echo "==== $(basename "$program")"
  "$program" "$@"
done
