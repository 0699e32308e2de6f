#!/bin/sh
# Builds kxmux, records the sample streams into an MP4 file and a QuickTime movie, and shows what
# ffprobe, a reader by others, sees in them. Installs what is missing where there is apt-get.
#
# Usage: scripts/demo.sh [OUTPUT_DIRECTORY]      (default: out)
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$root/out}

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

"$root/scripts/apt_packages.sh" g++ cmake ninja-build ffmpeg libcli11-dev
build
mkdir -p "$out"
record demo.mp4 h264.h264
record demo.mov prores422.prores
echo "Play them: $out/demo.mp4 $out/demo.mov"
