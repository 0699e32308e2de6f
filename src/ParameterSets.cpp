#include "ParameterSets.h"

#include <cstddef>

#include "ParseHevc.h"

namespace kx_mp4 {

namespace {

constexpr uint8_t kH264Sps = 7;  // ITU-T H.264, table 7-1
constexpr uint8_t kH264Pps = 8;

/// Calls `visit` with the NAL unit type, the pointer and the size of every set that the
/// description's codec needs.
template <class Info, class Visit>
void ForEachSet(Info& info, Visit&& visit) {
    switch (info.codec) {
        case MP4_MVC_H264:
            visit(kH264Sps, info.h264.sps, info.h264.sps_size);
            visit(kH264Pps, info.h264.pps, info.h264.pps_size);
            break;
        case MP4_MVC_HEVC:
            visit(uint8_t{NAL_VPS}, info.hevc.vps, info.hevc.vps_size);
            visit(uint8_t{NAL_SPS}, info.hevc.sps, info.hevc.sps_size);
            visit(uint8_t{NAL_PPS}, info.hevc.pps, info.hevc.pps_size);
            break;
        default:
            break;
    }
}

/// Whether the configuration record can be made from a set of that type: `avcC` takes bytes 1 to 3
/// of the SPS, `hvcC` what CHevcParser reads.
bool IsUsable(mp4_video_codec codec, uint8_t type, const uint8_t* set, int size) {
    if (codec == MP4_MVC_HEVC) {
        constexpr uint8_t kTypeMask = 0x3F;
        return (set[0] >> 1 & kTypeMask) == type && CHevcParser().ParseNAL(set, size);
    }
    constexpr int kSmallestSps = 4;
    return type != kH264Sps || size >= kSmallestSps;
}

/// Copies a set; the description then points to the copy.
void Keep(std::vector<uint8_t>& kept, const uint8_t* from, int count, const uint8_t*& bytes,
          int16_t& size) {
    kept.assign(from, from + count);
    bytes = kept.data();
    size = static_cast<int16_t>(count);
}

/// Whether an HEVC unit has nuh_layer_id 0 (ITU-T H.265, 7.3.1.2). The sets of other layers
/// describe what a single-layer track cannot hold.
bool IsBaseLayer(const VIDEO_SLICE& unit) {
    constexpr int kHeaderSize = 2;
    return unit.cbData >= kHeaderSize && (unit.pbData[0] & 0x01) == 0 && unit.pbData[1] >> 3 == 0;
}

}  // namespace

bool ParameterSetKeeper::Normalise(mp4_video_track_info_t& info) {
    bool possible = true;
    ForEachSet(info, [&possible](uint8_t, const uint8_t*& bytes, int16_t& size) {
        possible = possible && size >= 0;
        if (bytes == nullptr) size = 0;
        if (size == 0) bytes = nullptr;
    });
    return possible;
}

bool ParameterSetKeeper::IsComplete(const mp4_video_track_info_t& info) {
    bool complete = true;
    ForEachSet(info, [&complete](uint8_t, const uint8_t*, int16_t size) {
        complete = complete && size != 0;
    });
    return complete;
}

bool ParameterSetKeeper::AreUsable(const mp4_video_track_info_t& info) {
    bool usable = true;
    ForEachSet(info, [&](uint8_t type, const uint8_t* bytes, int16_t size) {
        usable = usable && (size == 0 || IsUsable(info.codec, type, bytes, size));
    });
    return usable;
}

void ParameterSetKeeper::KeepGiven(mp4_video_track_info_t& info) {
    auto kept = m_kept.begin();
    ForEachSet(info, [&kept](uint8_t, const uint8_t*& bytes, int16_t& size) {
        if (size != 0) Keep(*kept, bytes, size, bytes, size);
        ++kept;
    });
}

bool ParameterSetKeeper::Take(const VIDEO_SLICE& unit, IVideoNalParser& parser,
                              mp4_video_track_info_t& info) {
    if (unit.cbData <= 0) return true;
    if (info.codec == MP4_MVC_HEVC && !IsBaseLayer(unit)) return true;
    const uint8_t type = parser.GetTag(unit.pbData, unit.cbData);
    bool usable = true;
    auto kept = m_kept.begin();
    ForEachSet(info, [&](uint8_t setType, const uint8_t*& bytes, int16_t& size) {
        if (setType == type) {
            // The description has 16 bits for the size.
            usable =
                unit.cbData <= INT16_MAX && IsUsable(info.codec, type, unit.pbData, unit.cbData);
            if (usable) Keep(*kept, unit.pbData, unit.cbData, bytes, size);
        }
        ++kept;
    });
    return usable;
}

}  // namespace kx_mp4
