#!/usr/bin/env bash
# Compares the binary interface of the shared libraries with the dumps that are kept in cmake/:
# layout of the public records, their types, functions with their arguments, and the values of all
# public constants. What goes or changes breaks programs that are linked; what comes has to be
# wanted. CONTRIBUTING.md says what may change when.
#
# The dumps hold where CI runs, for x86-64 and g++ 12; elsewhere the standard library's records are
# others and nothing is compared.
#
# Usage: scripts/abi.sh            compare, and fail at a difference
#        scripts/abi.sh --write    tell the difference and write the dumps anew
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/require.sh abidw abidiff g++ ninja

if [[ $(uname -m) != x86_64 || $(g++ -dumpversion) != 12* ]]; then
    echo "The dumps are of x86-64 and g++ 12: nothing is compared here"
    exit 0
fi
if command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
build=build/abi
cmake --preset package -B "$build" -DCMAKE_CXX_COMPILER=g++ -DCMAKE_BUILD_TYPE=Debug \
    -DKX_MP4_HARDEN=OFF -DKX_MP4_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" --parallel "$(nproc)" >"$build/build.log" || { tail -n 30 "$build/build.log"; exit 1; }

failed=0
mode=${1:-}
dump=$build/today
mkdir -p "$dump"
public=(--headers-dir inc/kx_mp4 --drop-private-types --type-id-style hash
        --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed)

compare() {  # compare KEPT TODAY COMMAND...: the command tells how they differ
    local kept=$1 today=$2
    shift 2
    [[ -e $kept ]] && "$@" "$kept" "$today" && return
    if [[ $mode == --write ]]; then
        cp "$today" "$kept"
    else
        echo "$kept: the interface has changed" >&2
        failed=1
    fi
}

for library in kx_mp4 recorder/kx_mp4_recorder repair/kx_mp4_repair c/kx_mp4_c; do
    name=${library##*/}
    abidw "${public[@]}" --exported-interfaces-only --out-file "$dump/$name.abi" \
        "$build/${library%"$name"}lib$name.so"
    compare "cmake/$name.abi" "$dump/$name.abi" abidiff --harmless
done

# Constants, which no function's type leads to where they are passed as plain numbers.
{
    printf '#include <kx_mp4/%s>\n' kx_mp4.h kx_mp4_c.h presentation.h
    echo 'KX_MP4_EXPORT int kx_mp4_constants = 0;'
} | g++ -std=c++17 -Iinc -g -fno-eliminate-unused-debug-types -fPIC -shared -x c++ - \
    -o "$dump/constants.so"
abidw "${public[@]}" --load-all-types "$dump/constants.so" |
    sed -nE "s/.*<enumerator name='([^']*)' value='([^']*)'.*/\1 = \2/p" |
    LC_ALL=C sort >"$dump/constants"
compare cmake/kx_mp4.constants "$dump/constants" diff -u
exit "$failed"
