#!/usr/bin/env bash
# Sets a fresh machine up and runs what every change has to pass: packages, format, layers, and the
# release build with all its tests. scripts/check.sh adds Clang, clang-tidy and the sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/check.sh format layers release
