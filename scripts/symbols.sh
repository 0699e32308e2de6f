#!/usr/bin/env bash
# Builds the shared libraries and compares what they export with the lists that are kept in cmake/.
# An entry that goes breaks programs that are linked; one that comes has to be wanted. So are the
# names that a static link sees outside of namespace kx_mp4, where an application may have its own.
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
mode=${1:-}
compare() {  # compare KEPT_LIST, with the list of today on standard input
    if [[ $mode == --write ]]; then
        cat >"$1"
    else
        diff -u "$1" - || failed=1
    fi
}

exported() { nm -DC --defined-only "$1" | cut -d' ' -f2- | LC_ALL=C sort -u; }
compare cmake/kx_mp4.symbols < <(exported build/package/libkx_mp4.so)
compare cmake/kx_mp4_recorder.symbols < <(exported build/package/recorder/libkx_mp4_recorder.so)
compare cmake/kx_mp4_c.symbols < <(exported build/package/c/libkx_mp4_c.so)
compare cmake/kx_mp4_repair.symbols < <(exported build/package/repair/libkx_mp4_repair.so)

# Classes and functions at global scope, by the first part of their names.
compare cmake/global.names < <(
    nm -C --defined-only build/package/libkx_mp4_internal.a |
        sed -nE 's/^[0-9a-f]+ [TWBDRV] (.*)/\1/p' |
        sed -E 's/^(vtable for|typeinfo for|typeinfo name for|non-virtual thunk to) //' |
        grep -oE '^[A-Za-z_][A-Za-z_0-9]*(::|\(|$)' | sed -E 's/(::|\()$//' |
        grep -vxE 'std|kx_mp4|__gnu_cxx' | LC_ALL=C sort -u)
exit "$failed"
