#!/usr/bin/env bash
# Builds everything with sanitizers and runs every test; then runs the tests of threads once more
# under ThreadSanitizer, which does not go together with the others. Installs what is missing.
#
# Usage: scripts/test.sh [CTEST_ARGUMENT...]      such as -R Muxer, for the first of the two runs
# Builds in build/sanitize and build/tsan.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)

"$root/scripts/apt_packages.sh" g++ cmake ninja-build libgtest-dev libgmock-dev libcli11-dev \
    ffmpeg mediainfo pkg-config

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

# configure NAME SANITIZERS [ARGUMENT...]
configure() {
    local build=$root/build/$1 sanitizers=$2
    shift 2
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1" -DKX_MP4_SANITIZE="$sanitizers" "${launcher[@]}" "$@"
}

configure sanitize address,undefined
cmake --build "$root/build/sanitize" --parallel "$jobs"
ctest --test-dir "$root/build/sanitize" --parallel "$jobs" --output-on-failure --timeout 300 \
    --no-tests=error "$@"

configure tsan thread -DKX_MP4_BUILD_TOOLS=OFF -DKX_MP4_BUILD_EXAMPLES=OFF
cmake --build "$root/build/tsan" --parallel "$jobs" --target kx_mp4_thread_tests
# The sanitizer needs its addresses where they are without randomisation; some systems place
# others there.
fixed=()
if setarch "$(uname -m)" -R true 2>/dev/null; then
    fixed=(setarch "$(uname -m)" -R)
fi
"${fixed[@]}" ctest --test-dir "$root/build/tsan" -R '^Threads' --output-on-failure --timeout 300 \
    --no-tests=error
