#!/usr/bin/env bash
# Installs the Debian packages that building, checking and showing this project needs: only those
# that are missing, without a question, as root or through sudo. Says nothing to do when all are
# there, and then touches neither the network nor the package lists.
set -euo pipefail

packages=(
  # compilers, build, checks
  g++ clang libclang-rt-14-dev clang-format clang-tidy cmake ninja-build pkg-config git python3
  # the API reference and the manual pages
  doxygen mandoc
  # the library's tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev
  # the stores that we are measured beside
  librocksdb-dev libleveldb-dev liblmdb-dev
  # the program `sdb`: arguments, JSON, Unicode, hash
  libcli11-dev nlohmann-json3-dev libutf8proc-dev libxxhash-dev
)

missing=()
for package in "${packages[@]}"; do
  state=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$state" = installed ] || missing+=("$package")
done
if [ "${#missing[@]}" -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages are installed"
  exit 0
fi

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "setup: ask root to run: apt-get install ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi
apt() {
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y "$@" </dev/null
}
echo "setup: installing ${missing[*]}"
apt update
apt install --no-install-recommends "${missing[@]}"
