#include "ParameterSetKeeper.h"

#include "H264Syntax.h"
#include "HevcSyntax.h"

namespace kx_mp4 {

namespace {

/// Calls `visit` with the kind, the pointer and the size of every set that the description's codec
/// needs.
template <class Info, class Visit>
void ForEachSet(Info& info, Visit&& visit) {
    switch (info.codec) {
        case MP4_MVC_H264:
            visit(ParameterSetKind::kSps, info.h264.sps, info.h264.sps_size);
            visit(ParameterSetKind::kPps, info.h264.pps, info.h264.pps_size);
            break;
        case MP4_MVC_HEVC:
            visit(ParameterSetKind::kVps, info.hevc.vps, info.hevc.vps_size);
            visit(ParameterSetKind::kSps, info.hevc.sps, info.hevc.sps_size);
            visit(ParameterSetKind::kPps, info.hevc.pps, info.hevc.pps_size);
            break;
        default:
            break;
    }
}

bool CanDescribeHevc(ParameterSetKind kind, const uint8_t* set, size_t size) {
    hevc::Vps vps;
    hevc::Sps sps;
    hevc::Pps pps;
    switch (kind) {
        case ParameterSetKind::kVps:
            return hevc::DescribeVps(set, size, &vps);
        case ParameterSetKind::kSps:
            return hevc::DescribeSps(set, size, &sps);
        default:
            return hevc::DescribePps(set, size, &pps);
    }
}

/// Whether the configuration record can be made from a set of that kind: `avcC` takes bytes 1 to 3
/// of the SPS, `hvcC` the format, profile, tier and level.
bool IsUsable(mp4_video_codec codec, ParameterSetKind kind, const uint8_t* set, size_t size) {
    constexpr size_t kSmallestSps = 4;
    if (codec == MP4_MVC_HEVC) return CanDescribeHevc(kind, set, size);
    return kind != ParameterSetKind::kSps || size >= kSmallestSps;
}

std::optional<ParameterSetKind> KindOfH264(uint8_t type) {
    if (type == h264::kNalSps) return ParameterSetKind::kSps;
    if (type == h264::kNalPps) return ParameterSetKind::kPps;
    return {};
}

std::optional<ParameterSetKind> KindOfHevc(uint8_t type) {
    if (type == hevc::kNalVps) return ParameterSetKind::kVps;
    if (type == hevc::kNalSps) return ParameterSetKind::kSps;
    if (type == hevc::kNalPps) return ParameterSetKind::kPps;
    return {};
}

}  // namespace

std::optional<ParameterSetKind> KindOfParameterSet(mp4_video_codec codec, const uint8_t* nal,
                                                   size_t size) {
    if (size == 0) return {};
    if (codec == MP4_MVC_H264) return KindOfH264(h264::NalUnitType(nal[0]));
    constexpr size_t kHevcHeaderSize = 2;
    if (codec != MP4_MVC_HEVC || size < kHevcHeaderSize) return {};
    const bool isBaseLayer = (nal[0] & 0x01) == 0 && nal[1] >> 3 == 0;
    return isBaseLayer ? KindOfHevc(hevc::NalUnitType(nal[0])) : std::nullopt;
}

bool ParameterSetKeeper::Normalise(mp4_video_track_info_t& info) {
    bool possible = true;
    ForEachSet(info, [&possible](ParameterSetKind, const uint8_t*& bytes, int16_t& size) {
        possible = possible && size >= 0;
        if (bytes == nullptr) size = 0;
        if (size == 0) bytes = nullptr;
    });
    return possible;
}

bool ParameterSetKeeper::IsComplete(const mp4_video_track_info_t& info) {
    bool complete = true;
    ForEachSet(info, [&complete](ParameterSetKind, const uint8_t*, int16_t size) {
        complete = complete && size != 0;
    });
    return complete;
}

bool ParameterSetKeeper::AreUsable(const mp4_video_track_info_t& info) {
    bool usable = true;
    ForEachSet(info, [&](ParameterSetKind kind, const uint8_t* bytes, int16_t size) {
        usable =
            usable && (size == 0 || IsUsable(info.codec, kind, bytes, static_cast<size_t>(size)));
    });
    return usable;
}

void ParameterSetKeeper::KeepGiven(mp4_video_track_info_t& info) {
    ForEachSet(info, [this](ParameterSetKind kind, const uint8_t*& bytes, int16_t& size) {
        if (size != 0) Keep(kind, bytes, static_cast<size_t>(size), bytes, size);
    });
}

bool ParameterSetKeeper::Take(const uint8_t* nal, size_t nalSize, mp4_video_track_info_t& info) {
    const auto kind = KindOfParameterSet(info.codec, nal, nalSize);
    if (!kind) return true;
    // The description has 16 bits for the size.
    if (nalSize > INT16_MAX || !IsUsable(info.codec, *kind, nal, nalSize)) return false;
    ForEachSet(info, [&](ParameterSetKind setKind, const uint8_t*& bytes, int16_t& size) {
        if (setKind == *kind) Keep(setKind, nal, nalSize, bytes, size);
    });
    return true;
}

void ParameterSetKeeper::Keep(ParameterSetKind kind, const uint8_t* from, size_t count,
                              const uint8_t*& bytes, int16_t& size) {
    std::vector<uint8_t>& kept = m_kept[static_cast<size_t>(kind)];
    kept.assign(from, from + count);
    bytes = kept.data();
    size = static_cast<int16_t>(count);
}

}  // namespace kx_mp4
