#!/usr/bin/env bash
# Builds everything with sanitizers and runs every test; then runs the tests of threads once more
# under ThreadSanitizer, which does not go together with the others. Installs what is missing.
#
# Usage: scripts/test.sh [CTEST_ARGUMENT...]      such as -R Muxer, for the first of the two runs
# Builds in build/sanitize and build/tsan.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

scripts/require.sh "${CXX:-c++}" cmake ninja gtest/gtest.h gmock/gmock.h CLI/CLI.hpp nlohmann/json.hpp \
    ffmpeg ffprobe mediainfo pkg-config
if command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

cmake --preset sanitize
cmake --build --preset sanitize --parallel "$jobs"
ctest --preset sanitize --parallel "$jobs" "$@"

cmake --preset tsan
cmake --build --preset tsan --parallel "$jobs" --target kx_mp4_thread_tests \
    kx_mp4_recorder_tests
# The sanitizer needs its addresses where they are without randomisation; some systems place
# others there.
fixed=()
if setarch "$(uname -m)" -R true 2>/dev/null; then
    fixed=(setarch "$(uname -m)" -R)
fi
"${fixed[@]}" ctest --preset tsan
