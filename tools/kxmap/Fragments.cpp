#include "Fragments.h"

#include <algorithm>

namespace kxmap {
namespace {

constexpr size_t kMostSamples = size_t{1} << 16;  // of one run

/// Reads optional fields one behind the other; zeros once they are not there.
class Fields {
public:
    explicit Fields(std::vector<uint8_t> bytes) : m_bytes(std::move(bytes)) {}

    uint32_t Flags() const { return m_bytes.size() < 4 ? 0 : Int32(m_bytes.data()) & 0xFFFFFF; }
    bool IsWide() const { return !m_bytes.empty() && m_bytes[0] == 1; }
    uint64_t Next(size_t width) {
        if (m_bytes.size() - m_at < width) {
            m_ok = false;
            return 0;
        }
        const uint8_t* const p = m_bytes.data() + m_at;
        m_at += width;
        return width == 8 ? Int64(p) : Int32(p);
    }
    uint32_t Word() { return static_cast<uint32_t>(Next(4)); }
    bool Ok() const { return m_ok; }
    void Begin() { m_ok = m_bytes.size() >= 4, m_at = std::min<size_t>(4, m_bytes.size()); }

private:
    std::vector<uint8_t> m_bytes;
    size_t m_at = 0;
    bool m_ok = true;
};

/// What 'trex' and 'tfhd' say of the samples of a fragment.
struct Defaults {
    uint32_t id = 0;
    uint64_t base = 0;
    uint32_t duration = 0;
    uint32_t size = 0;
};

Defaults ReadDefaults(const File& file, const Box& moof, const Box& tfhd, const MovieMap& map) {
    Defaults defaults;
    Fields fields(file.Content(tfhd, kHeader, 40));
    fields.Begin();
    const uint32_t flags = fields.Flags();
    defaults.id = fields.Word();
    for (const Box& top : map.boxes) {
        if (top.type != "moov") continue;
        const Box* const mvex = Find(&top, "mvex");
        for (size_t i = 0; mvex != nullptr && i < mvex->children.size(); ++i) {
            Fields trex(file.Content(mvex->children[i], kHeader, 24));
            trex.Begin();
            if (mvex->children[i].type != "trex" || trex.Word() != defaults.id) continue;
            trex.Word();
            defaults.duration = trex.Word();
            defaults.size = trex.Word();
        }
    }
    defaults.base = (flags & 0x1) != 0 ? fields.Next(8) : moof.position;
    if ((flags & 0x2) != 0) fields.Word();
    if ((flags & 0x8) != 0) defaults.duration = fields.Word();
    if ((flags & 0x10) != 0) defaults.size = fields.Word();
    return defaults;
}

/// Samples of one 'trun' from `time` on; the time behind them, in ticks.
bool ReadRun(const File& file, const Box& trun, const Defaults& defaults, uint64_t& position,
             double& ticks, Track& track) {
    Fields fields(file.Content(trun, kHeader, 12 + 16 * kMostSamples));
    fields.Begin();
    const uint32_t flags = fields.Flags();
    const uint64_t samples = fields.Word();
    if ((flags & 0x1) != 0)
        position =
            defaults.base + static_cast<uint64_t>(int64_t{static_cast<int32_t>(fields.Word())});
    if ((flags & 0x4) != 0) fields.Word();
    const double scale = track.timescale == 0 ? 1 : track.timescale;
    Extent extent{position, position, ticks / scale, 0};
    for (uint64_t i = 0; i < samples && i < kMostSamples && fields.Ok(); ++i) {
        const uint32_t duration = (flags & 0x100) != 0 ? fields.Word() : defaults.duration;
        const uint32_t size = (flags & 0x200) != 0 ? fields.Word() : defaults.size;
        if ((flags & 0x400) != 0) fields.Word();
        if ((flags & 0x800) != 0) fields.Word();
        if (!fields.Ok()) break;
        ticks += duration;
        extent.end += size;
        track.bytes += size;
        ++track.samples;
    }
    extent.stop = ticks / scale;
    position = extent.end;
    const bool inside = extent.end >= extent.position && extent.end <= file.Size();
    if (inside && track.extents.size() < kMaxMarks) track.extents.push_back(extent);
    ++track.chunks;
    track.seconds = std::max(track.seconds, extent.stop);
    return inside && fields.Ok() && samples <= kMostSamples;
}

bool ReadTrackFragment(const File& file, const Box& moof, const Box& traf, MovieMap& map) {
    const Box* const tfhd = Find(&traf, "tfhd");
    if (tfhd == nullptr) return false;
    const Defaults defaults = ReadDefaults(file, moof, *tfhd, map);
    const auto track = std::find_if(map.tracks.begin(), map.tracks.end(),
                                    [&](const Track& each) { return each.id == defaults.id; });
    if (track == map.tracks.end()) return false;
    double ticks = track->seconds * track->timescale;
    if (const Box* const tfdt = Find(&traf, "tfdt")) {
        Fields fields(file.Content(*tfdt, kHeader, 12));
        const bool wide = fields.IsWide();
        fields.Begin();
        ticks = static_cast<double>(fields.Next(wide ? 8 : 4));
    }
    uint64_t position = defaults.base;
    bool holds = true;
    for (const Box& child : traf.children) {
        if (child.type == "trun")
            holds = ReadRun(file, child, defaults, position, ticks, *track) && holds;
    }
    return holds;
}

}  // namespace

bool ReadFragment(const File& file, const Box& moof, MovieMap& map) {
    bool holds = true;
    for (const Box& child : moof.children) {
        if (child.type == "traf") holds = ReadTrackFragment(file, moof, child, map) && holds;
    }
    return holds;
}

}  // namespace kxmap
