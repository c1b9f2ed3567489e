#!/usr/bin/env bash
# Builds RocksDB and LevelDB from Debian's source packages with assertions off, into build/peers.libs:
# the packaged libraries have them on, which costs them speed. scripts/bench.sh peers takes what it
# finds there. Takes ten minutes to half an hour on two cores, once.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
mkdir -p build/peers.libs/apt/parts build/peers.libs/apt/lists
cd build/peers.libs

# The sources come from where this machine has its packages from.
for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.{list,sources}; do
  [ -e "$file" ] || continue
  sed -E 's/^deb /deb-src /; s/^Types:.*/Types: deb-src/' "$file" >"apt/parts/$(basename "$file")"
done
apt() {
  apt-get -q -o Dir::Etc::SourceList=/dev/null -o Dir::Etc::SourceParts="$PWD/apt/parts" \
    -o Dir::State::Lists="$PWD/apt/lists" -o APT::Sandbox::User=root "$@"
}
version() { dpkg-query --show --showformat='${source:Upstream-Version}' "$1"; }

build() { # source package, target, CMake options
  local tree="$1-$2" target=$3
  shift 3
  [ -d "$tree" ] || apt source "${tree%%-*}"
  cmake -S "$tree" -B "$tree.build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=ON "$@"
  cmake --build "$tree.build" --target "$target" --parallel "$(nproc)"
  cp -a "$tree.build"/lib*.so* .
}

apt update
build leveldb "$(version libleveldb-dev)" leveldb \
  -DLEVELDB_BUILD_TESTS=OFF -DLEVELDB_BUILD_BENCHMARKS=OFF
build rocksdb "$(version librocksdb-dev)" rocksdb-shared -DPORTABLE=ON \
  -DFAIL_ON_WARNINGS=OFF -DWITH_TESTS=OFF -DWITH_TOOLS=OFF -DWITH_CORE_TOOLS=OFF \
  -DWITH_BENCHMARK_TOOLS=OFF -DWITH_GFLAGS=OFF
