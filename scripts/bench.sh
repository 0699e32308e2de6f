#!/usr/bin/env bash
# Installs what the benchmarks need and is missing, builds them and runs them.
# Usage: scripts/bench.sh [--quick] [DIRECTORY FOR THE RECORDINGS]
set -euo pipefail

cd "$(dirname "$0")/.."

scripts/require.sh "${CXX:-c++}" cmake ninja pkg-config benchmark/benchmark.h CLI/CLI.hpp \
    libavformat/avformat.h
cmake --preset bench
cmake --build --preset bench

micro=()
[[ " $* " != *" --quick "* ]] || micro=(--benchmark_min_time=0.01)
for program in build/bench/bench/bench_*; do
    [[ -x $program && -f $program ]] || continue
    "$program" "${micro[@]}"
done
build/bench/bench/compare "$@"
[[ " $* " != *" --quick "* ]] || exit 0
build/bench/bench/recorder_latency
build/bench/bench/query_latency
