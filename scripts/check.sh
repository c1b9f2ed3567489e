#!/usr/bin/env bash
# The one command before a commit: format, layers, API reference and manual pages, clang-tidy, and the
# tests as released, under the address and undefined-behaviour sanitizers, and under the thread
# sanitizer; the last of these is built by Clang, with its analysis of locks, all others by GCC. Stops
# at the first step that fails.
#
#   scripts/check.sh                 all steps
#   scripts/check.sh format asan     these, in this order
#
# Needs what scripts/setup.sh installs.
set -euo pipefail
cd "$(dirname "$0")/.."

all_steps=(format layers docs release tidy asan tsan)
jobs=$(nproc)

sources() { # of the given folders, ended by NUL
  find "$@" \( -name '*.cc' -o -name '*.h' -o -name '*.c' \) -print0 | sort -z
}

build() {
  cmake --preset "$1" >build/"$1".log 2>&1 || { cat build/"$1".log; return 1; }
  cmake --build --preset "$1" --parallel "$jobs"
}

build_and_test() {
  build "$1"
  ctest --preset "$1" --parallel "$jobs" --progress
}

step_format() {
  sources include base src tools tests bench examples | xargs -0 clang-format --dry-run -Werror
  echo "format: all files are as clang-format wants them"
}

step_layers() { scripts/layers; }

step_docs() { scripts/docs.sh; }

step_release() { build_and_test release; }

step_tidy() {
  cmake --preset tsan >/dev/null
  find base src tools -name '*.cc' -print0 | sort -z |
    xargs -0 -n 1 -P "$jobs" clang-tidy --quiet -p build/tsan \
      --header-filter='(base|src|include|tools)/.*\.h$' 2> >(grep -v 'warnings generated' >&2)
  echo "tidy: nothing to mend"
}

step_asan() { build_and_test asan; }

step_tsan() { build_and_test tsan; }

steps=("$@")
[ $# -gt 0 ] || steps=("${all_steps[@]}")
for step in "${steps[@]}"; do
  if ! declare -F "step_$step" >/dev/null; then
    echo "check: there is no step $step; they are: ${all_steps[*]}" >&2
    exit 2
  fi
done
mkdir -p build
trap 'echo "check: step $step failed" >&2' ERR
for step in "${steps[@]}"; do
  echo "==== $step ($(date +%H:%M:%S))"
  "step_$step"
done
