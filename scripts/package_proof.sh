#!/usr/bin/env bash
# The packages on a fresh machine: builds them, installs them into a new Debian system that has
# never seen the sources, and there has programs in C++, C (as CMake package, static and shared by
# pkg-config) and Python each record and repair. ffprobe, outside of it, reads what they made.
# Prints what is installed and what the libraries export. Needs root, and the network for Debian.
#
# Usage: scripts/package_proof.sh [FOLDER]     (default: a temporary one, which is removed)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/require.sh "${CXX:-c++}" cmake ninja CLI/CLI.hpp nlohmann/json.hpp ffprobe debootstrap
folder=${1:-$(mktemp -d)}
[[ -n ${1:-} ]] || trap 'rm -rf "$folder"' EXIT
root=$folder/root

step() { printf '\n== %s\n' "$*"; }
inside() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root "$@"; }

step "The packages"
cmake --preset package -DKX_MP4_BUILD_TOOLS=ON >/dev/null
cmake --build --preset package >/dev/null
rm -f build/package/*.deb
(cd build/package && cpack >/dev/null)
ls build/package/*.deb

step "A fresh machine"
[[ -d $root ]] || debootstrap --variant=minbase --include=g++,cmake,make,pkg-config,python3 \
    bookworm "$root" >"$folder/debootstrap.log"
cp build/package/*.deb "$root/root/"
inside sh -c 'dpkg -i /root/*.deb' >/dev/null
inside dpkg -L libkx-mp4-1 libkx-mp4-dev kx-mp4-tools |
    grep -E '^/usr/(include|lib|bin)/.*[^/]$' | grep -vE '/(pkgconfig|cmake|kx_mp4|[^/]*-linux-gnu)$' | sort -u

step "Exported symbols"
for library in "$root"/usr/lib/*/libkx_mp4*.so; do
    printf '%s: %d\n' "${library##*/}" "$(nm -DC --defined-only "$library" | wc -l)"
done

step "Static libraries, under /opt"
cmake --preset package -B build/package_static -DBUILD_SHARED_LIBS=OFF -DKX_MP4_BUILD_TOOLS=OFF \
    -DCMAKE_INSTALL_PREFIX=/opt/kx_mp4 >/dev/null
cmake --build build/package_static >/dev/null
DESTDIR=$root cmake --install build/package_static --component development >/dev/null
(cd "$root" && ls opt/kx_mp4/lib*/*.a opt/kx_mp4/lib/*/*.a 2>/dev/null) || true

step "Programs"
work=$root/root/work
rm -rf "$work"
mkdir -p "$work/tests"
cp -r tests/consumer "$work/tests/"
cp -r examples "$work/"
version=$(inside pkg-config --modversion kx_mp4)
inside bash -euo pipefail -s "$version" <<'INSIDE'
cd /root/work
version=$1
exec 3>&1 >build.log 2>&1
for language in CXX C; do
    cmake -S tests/consumer -B $language -DKX_MP4_FROM=find_package -DKX_MP4_LANGUAGE=$language
    cmake --build $language
done
strict='-std=c99 -Wall -Wextra -Wpedantic -Werror examples/record.c'
gcc $strict -o shared $(pkg-config --cflags --libs kx_mp4_c)
export PKG_CONFIG_PATH=$(dirname "$(find /opt/kx_mp4 -name kx_mp4_c.pc)")
gcc $strict -o static $(pkg-config --static --cflags --libs kx_mp4_c)
if ldd static | grep kx_mp4; then exit 1; fi
exec >&3 2>&1
try() {  # try NAME PROGRAM ARGUMENT-BEHIND-THE-OUTPUT: a recording, and half of one that is repaired
    local name=$1 program=$2
    shift 2
    $program $name.mp4 "$@"
    $program $name-half.mp4 "$@" 20
    $program $name-half.mp4 "$@"
}
try cxx CXX/recorder "$version"
try c C/recorder
try c-shared ./shared
try c-static ./static
try python 'python3 examples/record.py'
INSIDE

step "What ffprobe reads"
failed=0
for file in "$work"/*.mp4; do
    read=$(ffprobe -v error -count_frames -of csv=p=0 \
        -show_entries stream=codec_name,has_b_frames,nb_read_frames,start_time "$file" | tr '\n' ' ')
    printf '%s: %s\n' "${file##*/}" "$read"
    pictures=50 sound=92
    [[ $file != *-half* ]] || pictures=20 sound=36
    [[ $read == "h264,1,0.000000,$pictures aac,0.000000,$sound " ]] || failed=1
done
exit "$failed"
