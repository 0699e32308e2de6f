#!/bin/sh
# Kills recordings at random moments, repairs them and checks the result by content and with
# ffprobe.
#
#   scripts/torture.sh COUNT [BUILD_DIRECTORY]
#
# Every other recording is a QuickTime movie, every third repair is in place. Stops at the first
# fault and leaves its files.
set -u

count=${1:?usage: scripts/torture.sh COUNT [BUILD_DIRECTORY]}
build=${2:-$(dirname "$0")/../build/release}
recorder=$build/tests/torture_recorder
kxrepair=$build/tools/kxrepair/kxrepair
folder=$(mktemp -d)
killed=0 closed=0 early=0

fail() {
    echo "recording $i: $1; see $folder" >&2
    exit 1
}

# Packets of the first stream of a kind, as ffprobe reads them; 0 without such a stream.
packets() {
    found=$(ffprobe -v quiet -count_packets -select_streams "$2:0" \
        -show_entries stream=nb_read_packets -of csv=p=0 "$1" | head -n 1)
    echo "${found:-0}"
}

i=0
while [ "$i" -lt "$count" ]; do
    i=$((i + 1))
    rm -f "$folder"/*
    if [ $((i % 2)) -eq 0 ]; then name=clip.mov; else name=clip.mp4; fi
    seed=$(awk "BEGIN { srand($i); print int(rand() * 1000000) }")
    pause=$(awk "BEGIN { srand($i + 1); print 0.002 + rand() * rand() * 0.4 }")
    timeout --foreground -s KILL "$pause" \
        "$recorder" record "$folder/$name" "$folder/progress" "$seed" > "$folder/log" 2>&1
    status=$?
    result=$folder/$name
    if [ "$status" -eq 0 ]; then
        closed=$((closed + 1))
        [ ! -e "$result.info" ] || fail "Close left the repair info file"
    elif [ "$status" -ne 137 ] && [ "$status" -ne 124 ]; then # 124: it ended just before the kill
        fail "the recorder ended with status $status"
    elif [ ! -e "$result.info" ] && [ -s "$result" ]; then
        closed=$((closed + 1)) # killed after Close had finished the file
    else
        killed=$((killed + 1))
        if [ $((i % 3)) -eq 0 ]; then
            "$kxrepair" --in-place "$result" > "$folder/report"
            status=$?
        else
            "$kxrepair" -o "$folder/repaired.${name##*.}" "$result" > "$folder/report"
            status=$?
            result=$folder/repaired.${name##*.}
        fi
        if [ "$status" -gt 1 ]; then
            [ "$("$recorder" returned "$folder/progress")" -eq 0 ] || fail "it was not repaired"
            early=$((early + 1))
            continue
        fi
    fi
    frames=$("$recorder" check "$result" "$folder/progress" "$seed") || fail "its content is wrong"
    [ "$frames" = "$(packets "$result" v) $(packets "$result" a)" ] || fail "ffprobe counts otherwise"
done
rm -rf "$folder"
echo "$count recordings: $killed killed and repaired ($early before the first frame)," \
    "$closed closed before the kill"
