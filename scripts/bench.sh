#!/usr/bin/env bash
# Installs what the benchmarks need and is missing, builds them and runs them.
# Usage: scripts/bench.sh [--quick] [DIRECTORY FOR THE RECORDINGS]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${KX_MP4_BENCH_BUILD:-$root/build-bench}

"$root/scripts/apt_packages.sh" cmake ninja-build g++ pkg-config libbenchmark-dev libcli11-dev \
    libavformat-dev

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
