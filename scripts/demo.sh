#!/bin/sh
# Builds kxmux, records the sample streams into an MP4 file and a QuickTime movie, and shows what
# ffprobe, a reader by others, sees in them. Installs what is missing where there is apt-get.
#
# Usage: scripts/demo.sh [OUTPUT_DIRECTORY]      (default: out)
# KXMUX in the environment is a kxmux that is built already.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$root/out}

build() {
    "$root/scripts/require.sh" "${CXX:-c++}" cmake ninja CLI/CLI.hpp nlohmann/json.hpp
    (cd "$root" && cmake --preset programs >/dev/null && cmake --build --preset programs --target kxmux)
    KXMUX=$(find "$root/build/programs" -name kxmux -type f)
}

record() {  # name of the output, its video
    rm -f "$out/$1"
    "$KXMUX" -o "$out/$1" --fps 25 \
        --video "$root/samples/$2" --audio "$root/samples/audio.aac" \
        --captions "$root/samples/captions.scc" --timecode 01:00:00:00 \
        --meta "title=Sample of $2"
    echo "ffprobe sees:"
    ffprobe -v error -of compact=nokey=0:print_section=1 -show_entries \
        format=format_name,duration,size:stream=index,codec_name,width,height,sample_rate,nb_frames,duration:format_tags=title:stream_tags=timecode \
        "$out/$1" | sed 's/^/  /'
    echo
}

"$root/scripts/require.sh" ffprobe
[ -n "${KXMUX:-}" ] || build
mkdir -p "$out"
record demo.mp4 h264.h264
record demo.mov prores422.prores
echo "Play them: $out/demo.mp4 $out/demo.mov"
