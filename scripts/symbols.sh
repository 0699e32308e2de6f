#!/usr/bin/env bash
# Builds the shared libraries and compares what they export with the lists that are kept in cmake/.
# An entry that goes breaks programs that are linked; one that comes has to be wanted.
#
# Usage: scripts/symbols.sh            compare, and fail at a difference
#        scripts/symbols.sh --write    write the lists anew
set -euo pipefail
cd "$(dirname "$0")/.."

if command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
cmake --preset package -DKX_MP4_BUILD_TOOLS=OFF >/dev/null
cmake --build --preset package --parallel "$(nproc)" >/dev/null

failed=0
for library in build/package/libkx_mp4.so build/package/repair/libkx_mp4_repair.so; do
    kept=cmake/$(basename "$library" .so).symbols
    kept=${kept/lib/}
    exported=$(nm -DC --defined-only "$library" | cut -d' ' -f2- | LC_ALL=C sort -u)
    if [[ ${1:-} == --write ]]; then
        printf '%s\n' "$exported" >"$kept"
    elif ! diff -u "$kept" <(printf '%s\n' "$exported"); then
        failed=1
    fi
done
exit "$failed"
