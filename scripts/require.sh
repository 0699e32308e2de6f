#!/usr/bin/env bash
# Sees to it that commands, headers and compiler run times are there: installs what is missing where
# there is apt-get, lists it elsewhere. What is there is not touched, however it came there.
#
# Usage: scripts/require.sh NAME...
#   ffprobe                 a command
#   gtest/gtest.h           a header that the C++ compiler (CXX, otherwise c++) finds
#   libclang_rt.fuzzer      a run time library of clang-14
set -euo pipefail

have() {
    case $1 in
        *.h | *.hpp) "${CXX:-c++}" -E -x c++ -include "$1" /dev/null -o /dev/null 2>/dev/null ;;
        libclang_rt.*) [[ -e $(clang-14 -print-file-name="$1-$(uname -m).a" 2>/dev/null) ]] ;;
        *) command -v "$1" >/dev/null ;;
    esac
}

# The Debian package of a name.
package_of() {
    case $1 in
        c++) echo g++ ;;
        ninja) echo ninja-build ;;
        abidw | abidiff) echo abigail-tools ;;
        ffprobe) echo ffmpeg ;;
        run-clang-tidy-14) echo clang-tidy-14 ;;
        clang++-14) echo clang-14 ;;
        libclang_rt.*) echo libclang-rt-14-dev ;;
        gtest/*) echo libgtest-dev ;;
        gmock/*) echo libgmock-dev ;;
        CLI/*) echo libcli11-dev ;;
        nlohmann/*) echo nlohmann-json3-dev ;;
        benchmark/*) echo libbenchmark-dev ;;
        libavformat/*) echo libavformat-dev ;;
        *) echo "$1" ;;
    esac
}

list_missing() {
    missing=()
    for name in "$@"; do
        have "$name" || missing+=("$name")
    done
}

list_missing "$@"
((${#missing[@]})) || exit 0

if command -v apt-get >/dev/null; then
    packages=()
    for name in "${missing[@]}"; do
        packages+=("$(package_of "$name")")
    done
    as_root=()
    [[ $(id -u) == 0 ]] || as_root=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" apt-get install -qq -y --no-install-recommends "${packages[@]}"
    list_missing "${missing[@]}"
    ((${#missing[@]})) || exit 0
fi
{
    echo "Missing here; please install (with its name in Debian):"
    for name in "${missing[@]}"; do
        printf '  %-24s %s\n' "$name" "$(package_of "$name")"
    done
} >&2
exit 1
