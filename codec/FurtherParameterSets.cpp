#include "FurtherParameterSets.h"

#include <algorithm>
#include <cstring>

#include "H264Syntax.h"
#include "HevcSyntax.h"

namespace kx_mp4 {
namespace {

template <class Set>
std::optional<uint32_t> NumberBy(bool (*parse)(const uint8_t*, size_t, Set*), ByteView set) {
    Set parsed;
    return parse(set.data, set.size, &parsed) ? std::optional<uint32_t>(parsed.id) : std::nullopt;
}

}  // namespace

bool ByteView::operator==(const ByteView& other) const {
    return size == other.size && (size == 0 || std::memcmp(data, other.data, size) == 0);
}

ByteView DescribedSet(const mp4_video_track_info_t& info, ParameterSetKind kind) {
    const bool hevc = info.codec == MP4_MVC_HEVC;
    const auto view = [](const uint8_t* data, int16_t size) {
        return ByteView{data, static_cast<size_t>(size)};
    };
    switch (kind) {
        case ParameterSetKind::kVps:
            return view(info.hevc.vps, info.hevc.vps_size);
        case ParameterSetKind::kSps:
            return hevc ? view(info.hevc.sps, info.hevc.sps_size)
                        : view(info.h264.sps, info.h264.sps_size);
        default:
            return hevc ? view(info.hevc.pps, info.hevc.pps_size)
                        : view(info.h264.pps, info.h264.pps_size);
    }
}

std::optional<uint32_t> NumberOfParameterSet(mp4_video_codec codec, ParameterSetKind kind,
                                             ByteView set) {
    constexpr size_t kHevcHeader = 2;
    const bool hevc = codec == MP4_MVC_HEVC;
    switch (kind) {
        case ParameterSetKind::kVps:
            return set.size > kHevcHeader ? set.data[kHevcHeader] >> 4U : 0U;
        case ParameterSetKind::kSps:
            return hevc ? NumberBy(hevc::DescribeSps, set) : NumberBy(h264::ParseSps, set);
        default:
            return hevc ? NumberBy(hevc::DescribePps, set) : NumberBy(h264::ParsePps, set);
    }
}

bool IsFurtherSet(const mp4_video_track_info_t& info, ParameterSetKind kind, ByteView set) {
    const ByteView described = DescribedSet(info, kind);
    if (described.size == 0 || described == set) return false;
    const auto number = NumberOfParameterSet(info.codec, kind, set);
    return number && number != NumberOfParameterSet(info.codec, kind, described);
}

const FurtherParameterSets::Set* FurtherParameterSets::Take(const mp4_video_track_info_t& described,
                                                            const uint8_t* nal, size_t size) {
    const ByteView set{nal, size};
    const auto kind = KindOfParameterSet(described.codec, nal, size);
    if (!kind || size > INT16_MAX || Holds(set) || !IsFurtherSet(described, *kind, set))
        return nullptr;
    const uint32_t number = *NumberOfParameterSet(described.codec, *kind, set);
    const auto held = std::find_if(m_sets.begin(), m_sets.end(), [&](const Numbered& other) {
        return other.kind == *kind && other.number == number;
    });
    if (held != m_sets.end()) {
        if (m_counts == Counts::kFirst) return nullptr;
        held->bytes.assign(nal, nal + size);
        return &held->bytes;
    }
    if (!HasRoomFor(*kind)) return nullptr;
    m_sets.push_back({*kind, number, {nal, nal + size}});
    return &m_sets.back().bytes;
}

bool FurtherParameterSets::Holds(ByteView set) const {
    return std::any_of(m_sets.begin(), m_sets.end(), [&](const Numbered& held) {
        return set == ByteView{held.bytes.data(), held.bytes.size()};
    });
}

/// The counts of `avcC` have 5 and 8 bits (ISO/IEC 14496-15, 5.3.3.1.2), one set is described.
bool FurtherParameterSets::HasRoomFor(ParameterSetKind kind) const {
    constexpr ptrdiff_t kMostSps = 31 - 1;
    constexpr ptrdiff_t kMostPps = 255 - 1;
    const ptrdiff_t count = std::count_if(
        m_sets.begin(), m_sets.end(), [kind](const Numbered& held) { return held.kind == kind; });
    return count < (kind == ParameterSetKind::kPps ? kMostPps : kMostSps);
}

}  // namespace kx_mp4
