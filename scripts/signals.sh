#!/bin/sh
# Ends recordings by kxmux with a signal at random moments. Each file must play without a repair:
# ffprobe counts as many packets as the summary, and no repair info file is left.
#
#   scripts/signals.sh COUNT KXMUX
#
# Every other recording is a QuickTime movie, every third is read from files instead of a pipe.
# Stops at the first fault and leaves its files.
set -u

count=${1:?usage: scripts/signals.sh COUNT KXMUX}
kxmux=${2:?usage: scripts/signals.sh COUNT KXMUX}
samples=$(cd "$(dirname "$0")/../samples" && pwd)
folder=$(mktemp -d)
ended=0 whole=0 early=0

fail() {
    echo "recording $i: $1; see $folder" >&2
    exit 1
}

# Pieces of a stream that goes on for longer than the recording, like a camera's.
camera() {
    while cat "$samples/reordered.hevc" 2>/dev/null; do sleep 0.01; done
}

record() {
    if [ $((i % 3)) -eq 0 ]; then
        exec "$kxmux" -o "$result" --fps 25 --video "$folder/long.hevc" --audio "$samples/audio.aac"
    fi
    exec "$kxmux" -o "$result" --fps 25 --video-codec hevc --video "$folder/pipe"
}

for i in $(seq 1 240); do cat "$samples/reordered.hevc"; done > "$folder/long.hevc"
mkfifo "$folder/pipe"
i=0
while [ "$i" -lt "$count" ]; do
    i=$((i + 1))
    if [ $((i % 2)) -eq 0 ]; then result=$folder/clip.mov; else result=$folder/clip.mp4; fi
    if [ $((i % 5)) -lt 3 ]; then signal=TERM expected=143; else signal=INT expected=130; fi
    rm -f "$folder"/clip.*
    pause=$(awk "BEGIN { srand($i); print 0.005 + rand() * rand() * 0.6 }")
    camera > "$folder/pipe" &
    camera=$!
    (record) > "$folder/log" 2>&1 &
    recorder=$!
    # A shell starts what it leaves in the background with SIGINT ignored.
    until [ "$signal" = TERM ] || [ -e "$result" ]; do sleep 0.01; done
    sleep "$pause"
    kill -s "$signal" "$recorder" 2>/dev/null
    wait "$recorder" 2>/dev/null
    status=$?
    if grep -q 'nothing was recorded' "$folder/log"; then
        [ ! -e "$result" ] || fail "an empty file is left"
        early=$((early + 1))
    elif [ ! -e "$result" ] && [ ! -s "$folder/log" ]; then
        early=$((early + 1)) # before the program took the signal over
    else
        [ "$status" -eq 0 ] || [ "$status" -eq "$expected" ] || fail "it ended with status $status"
        [ ! -e "$result.info" ] || fail "the repair info file is left"
        frames=$(sed -n 's/.*video .*: \([0-9]*\) frames.*/\1/p' "$folder/log")
        packets=$(ffprobe -v error -count_packets -select_streams v:0 \
            -show_entries stream=nb_read_packets -of csv=p=0 "$result" 2> "$folder/errors")
        [ ! -s "$folder/errors" ] || fail "ffprobe complains"
        [ "$packets" = "$frames" ] || fail "$packets packets, and the summary says $frames frames"
        if [ "$status" -eq 0 ]; then whole=$((whole + 1)); else ended=$((ended + 1)); fi
    fi
    kill "$camera" 2>/dev/null
    wait "$camera" 2>/dev/null
done
rm -r "$folder"
echo "$count recordings: $ended ended by a signal and play, $whole ended before it," \
    "$early not begun yet"
