#include "VideoLook.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "H264Syntax.h"
#include "HevcSyntax.h"
#include "StartCode.h"

namespace kx_mp4 {
namespace {

constexpr size_t kStartCode = 3;
constexpr size_t kLength = 4;

/// A NAL unit of a picture.
struct Unit {
    const uint8_t* data;
    size_t size;
};

enum class UnitRole { kOther, kSlice, kKeySlice };

UnitRole RoleOfH264(uint8_t header) {
    const uint8_t type = h264::NalUnitType(header);
    if (type == h264::kNalIdrSlice) return UnitRole::kKeySlice;
    return type >= h264::kNalSlice && type < h264::kNalIdrSlice ? UnitRole::kSlice
                                                                : UnitRole::kOther;
}

UnitRole RoleOfHevc(uint8_t header) {
    const uint8_t type = hevc::NalUnitType(header);
    if (type > hevc::kNalVclLast) return UnitRole::kOther;
    const bool key = type > hevc::kNalBlaWLp && type <= hevc::kNalIdrNLp;
    return key ? UnitRole::kKeySlice : UnitRole::kSlice;
}

UnitRole RoleOf(mp4_video_codec codec, uint8_t header) {
    return codec == MP4_MVC_HEVC ? RoleOfHevc(header) : RoleOfH264(header);
}

/// Calls `visit` with each NAL unit until it answers false. The size of the last one visited is
/// found only when the visitor wants more: it gets the rest of the picture's bytes, and finds the
/// unit's end itself.
template <class Visit>
void ForEachUnit(const uint8_t* bytes, size_t size, Visit&& visit) {
    const uint8_t* const end = bytes + size;
    const uint8_t* at = FindStartCode(bytes, end);
    while (at != end) {
        at += kStartCode;
        if (at == end || !visit(at, end)) return;
        at = FindStartCode(at, end);
    }
}

/// From the header on to the next start code, without zero bytes behind it.
Unit UnitAt(const uint8_t* data, const uint8_t* end) {
    const uint8_t* last = FindStartCode(data, end);
    while (last != data && last[-1] == 0)
        --last;
    return {data, static_cast<size_t>(last - data)};
}

uint32_t LengthAt(const uint8_t* bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

/// Calls `visit` with the place of each length; false when they do not fill the picture.
template <class Visit>
bool ForEachLength(size_t size, const uint8_t* bytes, Visit&& visit) {
    size_t at = 0;
    while (at < size) {
        if (size - at <= kLength) return false;
        const uint32_t length = LengthAt(bytes + at);
        if (length == 0 || length > size - at - kLength) return false;
        visit(at);
        at += kLength + length;
    }
    return at != 0;
}

}  // namespace

PictureLook LookAtPicture(mp4_video_codec codec, const uint8_t* bytes, size_t size) {
    if (codec == MP4_MVC_PRORES) return {true, true};
    PictureLook look;
    ForEachUnit(bytes, size, [&](const uint8_t* nal, const uint8_t*) {
        look.valid = true;
        const UnitRole role = RoleOf(codec, *nal);
        look.key = role == UnitRole::kKeySlice;
        return role == UnitRole::kOther;
    });
    return look;
}

PictureLook LookAtLengths(mp4_video_codec codec, const uint8_t* bytes, size_t size) {
    PictureLook look;
    bool found = false;
    look.valid = ForEachLength(size, bytes, [&](size_t at) {
        const UnitRole role = RoleOf(codec, bytes[at + kLength]);
        if (found || role == UnitRole::kOther) return;
        found = true;
        look.key = role == UnitRole::kKeySlice;
    });
    return look;
}

void LengthsToStartCodes(uint8_t* bytes, size_t size) {
    static constexpr std::array<uint8_t, kLength> kCode = {0, 0, 0, 1};
    for (size_t at = 0; at < size;) {
        const size_t next = at + kLength + LengthAt(bytes + at);
        std::memcpy(bytes + at, kCode.data(), kLength);
        at = next;
    }
}

void VideoDescription::Declare(const mp4_video_track_info_t& info) {
    m_info = info;
    ParameterSetKeeper::Normalise(m_info);
    m_sets.KeepGiven(m_info);
    m_further.Clear();
    m_declared = true;
}

bool VideoDescription::Take(const uint8_t* bytes, size_t size) {
    if (m_info.codec == MP4_MVC_PRORES) return false;
    bool changed = false;
    ForEachUnit(bytes, size, [&](const uint8_t* nal, const uint8_t* end) {
        if (RoleOf(m_info.codec, *nal) != UnitRole::kOther) return false;
        constexpr size_t kHevcHeader = 2;
        const auto rest = static_cast<size_t>(end - nal);
        if (KindOfParameterSet(m_info.codec, nal, std::min(rest, kHevcHeader))) {
            const Unit unit = UnitAt(nal, end);
            changed = TakeUnit(unit.data, unit.size) || changed;
        }
        return true;
    });
    return changed;
}

bool VideoDescription::TakeUnit(const uint8_t* nal, size_t size) {
    const auto kind = KindOfParameterSet(m_info.codec, nal, size);
    if (!kind) return false;
    const ByteView kept = DescribedSet(m_info, *kind);
    if (kept == ByteView{nal, size}) return false;
    const bool replaces = kept.size != 0;
    if (replaces) {
        if (m_further.Holds({nal, size}) || m_further.Take(m_info, nal, size) != nullptr)
            return false;
        const auto number = NumberOfParameterSet(m_info.codec, *kind, {nal, size});
        if (!number || number != NumberOfParameterSet(m_info.codec, *kind, kept)) return false;
    }
    if (!m_sets.Take(nal, size, m_info)) return false;
    if (replaces && *kind == ParameterSetKind::kSps) TakePictureSize(nal, size);
    return replaces;
}

/// The declaration's size was that of the sets before.
void VideoDescription::TakePictureSize(const uint8_t* nal, size_t size) {
    uint32_t width = 0;
    uint32_t height = 0;
    if (m_info.codec == MP4_MVC_HEVC) {
        hevc::Sps sps;
        hevc::DescribeSps(nal, size, &sps);
        width = sps.width;
        height = sps.height;
    } else {
        h264::Sps sps;
        h264::ParseSps(nal, size, &sps);
        width = sps.width;
        height = sps.height;
    }
    if (width == 0 || height == 0 || width > UINT16_MAX || height > UINT16_MAX) return;
    m_info.width = static_cast<uint16_t>(width);
    m_info.height = static_cast<uint16_t>(height);
}

}  // namespace kx_mp4
