#!/bin/sh
# Builds kxmux, records the sample streams into an MP4 file and a QuickTime movie, and shows what
# ffprobe, a reader by others, sees in them. Installs what is missing where there is apt-get.
#
# Usage: scripts/demo.sh [OUTPUT_DIRECTORY]      (default: out)
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$root/out}

# Each line: how to tell that it is there, and the package that brings it.
missing_packages() {
    while read -r package check; do
        eval "$check" >/dev/null 2>&1 || printf '%s ' "$package"
    done <<'EOF'
g++ command -v c++
cmake command -v cmake
ninja-build command -v ninja
ffmpeg command -v ffprobe
libcli11-dev test -e /usr/include/CLI/CLI.hpp -o -e /usr/local/include/CLI/CLI.hpp
EOF
}

install_missing() {
    packages=$(missing_packages)
    [ -n "$packages" ] || return 0
    if ! command -v apt-get >/dev/null; then
        echo "demo.sh: please install: $packages" >&2
        exit 1
    fi
    sudo=
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    echo "Installing $packages"
    $sudo apt-get update -qq
    # shellcheck disable=SC2086  # a list of words
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        $packages >/dev/null
}

build() {
    cmake -S "$root" -B "$root/build-release" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DBUILD_TESTING=OFF -DKX_MP4_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build "$root/build-release" --target kxmux
}

record() {  # name of the output, its video
    "$root/build-release/tools/kxmux" -o "$out/$1" --fps 25 \
        --video "$root/samples/$2" --audio "$root/samples/audio.aac" \
        --captions "$root/samples/captions.scc" --timecode 01:00:00:00 \
        --meta "title=Sample of $2"
    echo "ffprobe sees:"
    ffprobe -v error -of compact=nokey=0:print_section=1 -show_entries \
        format=format_name,duration,size:stream=index,codec_name,width,height,sample_rate,nb_frames,duration:format_tags=title:stream_tags=timecode \
        "$out/$1" | sed 's/^/  /'
    echo
}

install_missing
build
mkdir -p "$out"
record demo.mp4 h264.h264
record demo.mov prores422.prores
echo "Play them: $out/demo.mp4 $out/demo.mov"
