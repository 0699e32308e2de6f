#!/usr/bin/env bash
# Encodes a few frames with every option of x265 that changes a parameter set, records each stream
# with kxmux, and compares the configuration record with the one that ffmpeg's muxer writes of the
# same stream. What may differ: min_spatial_segmentation_idc and parallelismType, where ffmpeg does
# not read the VUI to its end (our value is then the stream's), and the completeness bit and order of
# the arrays. Everything a decoder is configured by has to be equal: the rest of the record, and the
# bytes of VPS, SPS and PPS.
#
# Usage: scripts/x265_surface.sh KXMUX
set -euo pipefail
kxmux=${1:?usage: x265_surface.sh KXMUX}
"$(dirname "$0")/require.sh" ffmpeg python3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# Pixel format and x265 parameters, a line each.
options() {
    for format in yuv420p yuv422p yuv444p yuv420p10le yuv422p10le yuv444p10le yuv420p12le \
        yuv422p12le yuv444p12le gray gray10le; do
        echo "$format:annexb=1"
        echo "$format:vui-timing-info=0"
    done
    local option
    for option in \
        aud=1 hrd=1:vbv-bufsize=1000:vbv-maxrate=1000 hrd=1:vbv-bufsize=1000:vbv-maxrate=1000:strict-cbr=1:bitrate=1000 \
        repeat-headers=0 repeat-headers=1 vui-timing-info=0 vui-timing-info=1 vui-hrd-info=0 \
        vui-timing-info=0:repeat-headers=1:aud=1 sar=1 sar=16 sar=40:33 sar=255:300 overscan=show \
        overscan=crop videoformat=pal videoformat=ntsc videoformat=undef range=full range=limited \
        colorprim=bt709 colorprim=bt2020:transfer=smpte2084:colormatrix=bt2020nc \
        transfer=arib-std-b67 colormatrix=ictcp chromaloc=0 chromaloc=5 \
        display-window=2,4,6,8 overscan=show:display-window=2,2,2,2:vui-timing-info=0 \
        temporal-layers=1 temporal-layers=1:b-adapt=0:bframes=3 temporal-layers=3 temporal-layers=5 \
        scaling-list=default tskip=1 tskip=1:tskip-fast=1 \
        ctu=16 ctu=32 ctu=64 ctu=16:min-cu-size=16 ctu=64:min-cu-size=32 max-tu-size=4 max-tu-size=8 \
        max-tu-size=16 tu-inter-depth=4:tu-intra-depth=4 rect=1 amp=1:rect=1 amp=0 \
        weightp=0 weightp=1 weightb=1 weightp=1:weightb=1 cu-lossless=1 lossless=1 sao=0 sao=1 \
        limit-sao=1 deblock=0 deblock=1,1 deblock=-6,-6 no-deblock=1 wpp=0 wpp=1 \
        slices=2 slices=4:wpp=0 strong-intra-smoothing=0 constrained-intra=1 b-intra=1 \
        open-gop=0 open-gop=1 bframes=0 bframes=8 b-pyramid=0 bframes=8:b-pyramid=1 \
        ref=1 ref=6 ref=16 max-merge=1 max-merge=5 temporal-mvp=0 signhide=0 \
        level-idc=30 level-idc=41:high-tier=1 level-idc=51:high-tier=0 level-idc=62 uhd-bd=0 \
        allow-non-conformance=1 interlace=tff interlace=bff field=1 \
        'master-display=G(13250,34500)B(7500,3000)R(34000,16000)WP(15635,16450)L(10000000,1)' \
        max-cll=1000,400 hdr10=1:max-cll=1000,400 hdr10-opt=1 \
        opt-qp-pps=0 opt-qp-pps=1 opt-ref-list-length-pps=0 opt-ref-list-length-pps=1 \
        multi-pass-opt-rps=1 opt-cu-delta-qp=1 idr-recovery-sei=1 single-sei=1 \
        log2-max-poc-lsb=4 log2-max-poc-lsb=8 log2-max-poc-lsb=16 \
        cbqpoffs=3 crqpoffs=-4 cbqpoffs=-12:crqpoffs=12 aq-mode=0 aq-mode=1 aq-mode=3 cutree=0 \
        qg-size=8:ctu=32 qg-size=64 rdoq-level=0 keyint=1 keyint=2:min-keyint=1 \
        intra-refresh=1 gop-lookahead=0 rc-lookahead=5 frame-dup=0 radl=2 \
        hash=1 hash=3 info=0 fades=1 hist-scenecut=1 dynamic-refine=0 nr-intra=100 \
        lowpass-dct=1 svt=0 eob=1 eos=1 idr-recovery-sei=1:eob=1:eos=1 \
        cll=0 dhdr10-opt=0 atc-sei=18 pic-struct=0 pic-struct=8 \
        profile=main profile=mainstillpicture:keyint=1 psy-rd=0 ssim-rd=1 \
        crop-rect=0 analyze-src-pics=1 copy-pic=0 force-flush=1 fps=24000/1001 fps=60 fps=1 \
        vbv-bufsize=500:vbv-maxrate=500 vbv-init=0.5 crf-max=40 hevc-aq=1; do
        echo "yuv420p:$option"
    done
    for option in profile=main10 profile=main10:vui-timing-info=0 hdr10=1 profile=main12 range=full \
        profile=main10:hrd=1:vbv-bufsize=900:vbv-maxrate=900; do
        echo "yuv420p10le:$option"
    done
    echo "yuv422p10le:profile=main422-10"
    echo "yuv444p:profile=main444-8"
    echo "yuv444p10le:profile=main444-10"
    echo "yuv444p:profile=main444-intra:keyint=1"
}

compare() {
    python3 - "$1" "$2" <<'PYTHON'
import sys


def record(path):
    """The fixed part of hvcC, and its sets by type."""
    data = open(path, "rb").read()
    at = data.rindex(b"hvcC") + 4
    fixed, sets, place = data[at:at + 22], {}, at + 23
    for _ in range(data[at + 22]):
        kind = data[place] & 63
        count = int.from_bytes(data[place + 1:place + 3], "big")
        place += 3
        for _ in range(count):
            size = int.from_bytes(data[place:place + 2], "big")
            sets.setdefault(kind, []).append(data[place + 2:place + 2 + size])
            place += 2 + size
    return fixed, sets


(ours, our_sets), (theirs, their_sets) = map(record, sys.argv[1:3])
limits = slice(13, 16)  # min_spatial_segmentation_idc and parallelismType
same = ours[:13] == theirs[:13] and ours[16:] == theirs[16:]
same = same and all(our_sets[kind] == their_sets[kind][:1] for kind in (32, 33, 34))
if not same:
    print("  ours  ", ours.hex(), "\n  ffmpeg", theirs.hex())
    sys.exit(1)
sys.exit(0 if ours[limits] == theirs[limits] else 3)
PYTHON
}

equal=0 limits=0 wrong=0 refused=0
while IFS= read -r line; do
    format=${line%%:*} option=${line#*:}
    # Of an option that the encoder does not know the reader only warns.
    if ! ffmpeg -v warning -y -f lavfi -i testsrc=s=256x144:r=30 -frames:v 6 -pix_fmt "$format" \
        -c:v libx265 -preset ultrafast -x265-params "log-level=none:$option" -f hevc "$folder/s.hevc" \
        </dev/null >/dev/null 2>"$folder/warnings" ||
        grep -qE 'Unknown option|Invalid value for' "$folder/warnings" ||
        ! ffmpeg -v quiet -y -r 30 -i "$folder/s.hevc" -c copy "$folder/ffmpeg.mp4" </dev/null; then
        refused=$((refused + 1)) # by this build of the encoder, or a stream without parameter sets
        continue
    fi
    rm -f "$folder/kxmux.mp4"
    status=0
    "$kxmux" -o "$folder/kxmux.mp4" --video "$folder/s.hevc" --fps 30 --no-repair \
        >"$folder/log" 2>&1 </dev/null || status=$?
    # The SPS of the encoder may say another rate; that is a warning, not what is compared here.
    if ((status == 0)); then
        compare "$folder/kxmux.mp4" "$folder/ffmpeg.mp4" || status=$?
    fi
    case $status in
        0) equal=$((equal + 1)) ;;
        3) limits=$((limits + 1)) ;;
        *)
            wrong=$((wrong + 1))
            echo "WRONG: $line"
            cat "$folder/log"
            ;;
    esac
done < <(options)
echo "$((equal + limits + wrong)) streams: $equal records equal, $limits differ in the segmentation" \
    "limit only, $wrong wrong; $refused option sets refused by the encoder"
((wrong == 0))
