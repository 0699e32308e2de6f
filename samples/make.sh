#!/bin/sh
# Makes the sample streams of this directory with ffmpeg's own test sources: three seconds of the
# same moving picture in each video codec, and a tone that sweeps. Only the frames of reordered.* do
# not stand in the streams in the order in which they are shown.
#
# Needs ffmpeg with libx264 and libx265. Writes next to itself.
set -eu
cd "$(dirname "$0")"

picture() {  # encoder options ..., output last
    ffmpeg -v error -y -f lavfi -i "testsrc2=size=320x180:rate=25:duration=3" \
        -fflags +bitexact -flags:v +bitexact "$@"
}

# Several slices a picture, no access unit delimiters.
picture -pix_fmt yuv420p -c:v libx264 -preset veryslow -crf 30 -g 25 -bf 0 \
    -x264-params "slices=3:aud=0" -f h264 h264.h264
# One slice a picture, with delimiters.
picture -pix_fmt yuv420p -c:v libx265 -preset slow -crf 32 -g 25 \
    -x265-params "bframes=0:aud=1:log-level=error" -f hevc hevc.hevc
# Reordered frames: B-pyramids in open groups, for H.264 coded as interlaced, for HEVC with a
# temporal layer of its own.
picture -pix_fmt yuv420p -c:v libx264 -preset slow -crf 38 -g 25 -bf 5 \
    -x264-params "tff=1:open-gop=1:b-pyramid=normal:b-adapt=0:scenecut=0" -f h264 reordered.h264
picture -pix_fmt yuv420p10le -c:v libx265 -preset medium -crf 40 -g 25 \
    -x265-params "bframes=5:b-adapt=0:open-gop=1:scenecut=0:temporal-layers=1:log-level=error" \
    -f hevc reordered.hevc
# ProRes is large whatever its quality, so the picture is smaller.
ffmpeg -v error -y -f lavfi -i "testsrc2=size=160x90:rate=25:duration=3" -pix_fmt yuv422p10le \
    -fflags +bitexact -flags:v +bitexact -c:v prores_ks -profile:v standard -qscale:v 16 \
    -f rawvideo prores422.prores
ffmpeg -v error -y -f lavfi -i "aevalsrc=0.2*sin(2*PI*(200+100*t)*t)|0.2*sin(2*PI*300*t):s=48000:d=3" \
    -fflags +bitexact -flags:a +bitexact -c:a aac -b:a 64k -f adts audio.aac
