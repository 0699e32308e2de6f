#include "ParameterSets.h"

#include <algorithm>
#include <cstddef>

#include "ParseHevc.h"

namespace {

constexpr uint8_t kH264Sps = 7;  // ITU-T H.264, table 7-1
constexpr uint8_t kH264Pps = 8;

/// Where a description holds one parameter set.
struct ParameterSetField {
    uint8_t nalType;
    const uint8_t*& bytes;
    int16_t& size;
};

/// All that the description's codec needs.
std::vector<ParameterSetField> FieldsOf(mp4_video_track_info_t& info) {
    switch (info.codec) {
        case MP4_MVC_H264:
            return {{kH264Sps, info.h264.sps, info.h264.sps_size},
                    {kH264Pps, info.h264.pps, info.h264.pps_size}};
        case MP4_MVC_HEVC:
            return {{NAL_VPS, info.hevc.vps, info.hevc.vps_size},
                    {NAL_SPS, info.hevc.sps, info.hevc.sps_size},
                    {NAL_PPS, info.hevc.pps, info.hevc.pps_size}};
        default:
            return {};
    }
}

void Keep(const uint8_t* bytes, size_t size, std::vector<uint8_t>& kept,
          const ParameterSetField& field) {
    kept.assign(bytes, bytes + size);
    field.bytes = kept.data();
    field.size = static_cast<int16_t>(size);
}

/// Whether an HEVC unit has nuh_layer_id 0 (ITU-T H.265, 7.3.1.2). The sets of other layers
/// describe what a single-layer track cannot hold.
bool IsBaseLayer(const VIDEO_SLICE& unit) {
    constexpr int kHeaderSize = 2;
    return unit.cbData >= kHeaderSize && (unit.pbData[0] & 0x01) == 0 && unit.pbData[1] >> 3 == 0;
}

}  // namespace

bool NormaliseParameterSets(mp4_video_track_info_t& info) {
    for (const ParameterSetField& field : FieldsOf(info)) {
        if (field.size < 0) return false;
        if (field.bytes == nullptr) field.size = 0;
        if (field.size == 0) field.bytes = nullptr;
    }
    return true;
}

bool HasParameterSets(mp4_video_track_info_t& info) {
    const auto fields = FieldsOf(info);
    return std::all_of(fields.begin(), fields.end(),
                       [](const ParameterSetField& field) { return field.size != 0; });
}

void CParameterSetKeeper::KeepGiven(mp4_video_track_info_t& info) {
    size_t i = 0;
    for (const ParameterSetField& field : FieldsOf(info)) {
        if (field.size != 0) Keep(field.bytes, static_cast<size_t>(field.size), m_kept[i], field);
        ++i;
    }
}

void CParameterSetKeeper::Take(const VIDEO_SLICE& unit, IVideoNalParser& parser,
                               mp4_video_track_info_t& info) {
    // The description has 16 bits for the size.
    if (unit.cbData <= 0 || unit.cbData > INT16_MAX) return;
    if (info.codec == MP4_MVC_HEVC && !IsBaseLayer(unit)) return;
    const uint8_t type = parser.GetTag(unit.pbData, unit.cbData);
    size_t i = 0;
    for (const ParameterSetField& field : FieldsOf(info)) {
        if (field.nalType == type)
            Keep(unit.pbData, static_cast<size_t>(unit.cbData), m_kept[i], field);
        ++i;
    }
}
