#!/usr/bin/env bash
# Installs what the benchmarks need and is missing, builds them and runs them.
# Usage: scripts/bench.sh [--quick] [DIRECTORY FOR THE RECORDINGS]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${KX_MP4_BENCH_BUILD:-$root/build-bench}
packages=(cmake ninja-build g++ pkg-config libbenchmark-dev libcli11-dev libavformat-dev)

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
        missing+=("$package")
done
if ((${#missing[@]})); then
    as_root=()
    [[ $(id -u) == 0 ]] || as_root=(sudo)
    "${as_root[@]}" apt-get update
    "${as_root[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
fi

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKX_MP4_BUILD_BENCHMARKS=ON \
    -DKX_MP4_BUILD_TOOLS=OFF -DKX_MP4_BUILD_EXAMPLES=OFF -DBUILD_TESTING=OFF
cmake --build "$build"

micro=()
[[ " $* " != *" --quick "* ]] || micro=(--benchmark_min_time=0.01)
for program in "$build"/bench/bench_*; do
    [[ -x $program && -f $program ]] || continue
    "$program" "${micro[@]}"
done
"$build/bench/compare" "$@"
