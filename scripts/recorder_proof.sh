#!/usr/bin/env bash
# The long runs of the recorder's proof, which are too long for every build:
#   10,000 cuts without a lost frame; 1,000,000 states after a power cut; ten minutes of four
#   producers, cuts, pauses and failures under ThreadSanitizer; a real disk of 40 MiB that fills up
#   (needs root); paced pipes into a program that is stopped for two seconds, again and again.
#
# Usage: scripts/recorder_proof.sh [SECONDS]     of the run under ThreadSanitizer, 600 by default
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-600}
command -v ccache >/dev/null && export CMAKE_CXX_COMPILER_LAUNCHER=ccache
cmake -S . -B build/proof -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/proof --target kx_mp4_recorder_tests kxmux >/dev/null
tests=$PWD/build/proof/tests/kx_mp4_recorder_tests
kxmux=$PWD/build/proof/tools/kxmux/kxmux
scratch=$(mktemp -d)
mounted=
cleanup() {
    if [[ -n $mounted ]]; then umount "$scratch/disk"; fi
    rm -rf "$scratch"
}
trap cleanup EXIT

step() { printf '== %s\n' "$*"; }
run() { "$tests" --gtest_brief=1 --gtest_filter="$1"; }
frames() {  # frames FILE...: pictures of all files, each of which ffprobe must take
    local file sum=0 count
    for file in "$@"; do
        count=$(ffprobe -v error -select_streams v -count_packets -of csv=p=0 \
            -show_entries stream=nb_read_packets "$file")
        sum=$((sum + count))
    done
    echo "$sum"
}

step "10,000 cuts"
KX_MP4_RECORDER_CUTS=10000 run 'Recorder.Cuts*'
step "1,000,000 states after a power cut"
KX_MP4_RECORDER_STATES=1000000 run 'RecorderPowerCut.*'

step "pipes at their pace, stopped for 2 s three times"
ffmpeg -nostdin -v error -f lavfi -i testsrc2=rate=30:duration=12:size=640x360 -c:v libx264 \
    -preset ultrafast -g 15 -b:v 6M -f h264 "$scratch/in.h264" \
    -f lavfi -i sine=sample_rate=48000:duration=12 -map 1:a -c:a aac -f adts "$scratch/in.aac"
mkfifo "$scratch/video" "$scratch/audio"
pace() {  # pace FILE: in 12 seconds
    local size
    size=$(stat -c %s "$1")
    for part in $(seq 0 119); do
        dd if="$1" status=none bs=64K iflag=skip_bytes,count_bytes skip=$((size * part / 120)) \
            count=$((size * (part + 1) / 120 - size * part / 120))
        sleep 0.1
    done
}
pace "$scratch/in.h264" >"$scratch/video" &
pace "$scratch/in.aac" >"$scratch/audio" &
"$kxmux" --video "$scratch/video" --video-codec h264 --fps 30 --audio "$scratch/audio" \
    -o "$scratch/live-%i.mp4" --segment 1s >/dev/null &
recording=$!
for _ in 1 2 3; do
    sleep 1.5
    kill -STOP "$recording"
    sleep 2
    kill -CONT "$recording"
done
wait "$recording"
[[ $(frames "$scratch"/live-*.mp4) == 360 ]]

step "a disk of 40 MiB that fills up"
mkdir "$scratch/disk"
if mount -t tmpfs -o size=40m tmpfs "$scratch/disk" 2>/dev/null; then
    mounted=yes
    for _ in $(seq 20); do cat "$scratch/in.h264"; done | "$kxmux" --video - --video-codec h264 \
        --fps 30 -o "$scratch/disk/%i.mp4" --segment 3s --queue 1M 2>"$scratch/errors" >/dev/null &&
        exit 1
    grep -q 'the disk is full' "$scratch/errors"
    [[ $(find "$scratch/disk" -name '*.info' | wc -l) == 0 ]]
    [[ $(frames "$scratch"/disk/*.mp4) -gt 900 ]]
else
    echo "left out: no mount without root"
fi

step "$seconds s under ThreadSanitizer"
cmake --preset tsan >/dev/null
cmake --build --preset tsan --target kx_mp4_recorder_tests >/dev/null
fixed=()
if setarch "$(uname -m)" -R true 2>/dev/null; then fixed=(setarch "$(uname -m)" -R); fi
KX_MP4_RECORDER_SECONDS=$seconds "${fixed[@]}" build/tsan/tests/kx_mp4_recorder_tests \
    --gtest_brief=1 --gtest_filter='Recorder.EverythingAtOnce'
echo "all of it holds"
