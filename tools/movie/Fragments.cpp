#include "Fragments.h"

#include <algorithm>
#include <utility>

namespace kx_mp4::movie {
namespace {

constexpr uint32_t kNonSync = 0x10000;  // of the flags of a sample, 8.8.3.1
constexpr uint64_t kLatest = uint64_t{1} << 62;

/// Reads the fields of a full box one behind the other; zeros once they are not there.
class Fields {
public:
    explicit Fields(const Box& box) : m_bytes(box.Peek(box.headerSize, box.size)) {
        m_head = Word();
    }

    uint8_t Version() const { return static_cast<uint8_t>(m_head >> 24); }
    bool Has(uint32_t flag) const { return (m_head & flag) != 0; }
    uint32_t Word() {
        if (Left() < 4) {
            m_ok = false;
            return 0;
        }
        m_at += 4;
        return Int32(m_bytes.data() + m_at - 4);
    }
    uint64_t Long() {
        const uint64_t high = Word();
        return high << 32 | Word();
    }
    uint32_t WordIf(uint32_t flag, uint32_t otherwise) { return Has(flag) ? Word() : otherwise; }
    size_t Left() const { return m_bytes.size() - m_at; }
    bool Ok() const { return m_ok; }

private:
    Bytes m_bytes;
    size_t m_at = 0;
    uint32_t m_head = 0;
    bool m_ok = true;
};

}  // namespace

/// What 'trex' and 'tfhd' say of the samples of a fragment.
struct FragmentReader::Defaults {
    uint64_t base = 0;
    uint32_t description = 1;
    uint32_t duration = 0;
    uint32_t size = 0;
    uint32_t flags = 0;
};

FragmentReader::FragmentReader(const Movie& movie, std::vector<Sample> next)
    : m_movie(movie), m_next(std::move(next)), m_bytesLeft(movie.boxes.file.size) {}

FragmentReader::Defaults FragmentReader::DefaultsOf(uint32_t id) const {
    Defaults defaults;
    for (const Box& trex : m_movie.moov->At("mvex").children) {
        if (trex.type != "trex") continue;
        Fields fields(trex);
        if (fields.Word() != id) continue;
        defaults.description = fields.Word();
        defaults.duration = fields.Word();
        defaults.size = fields.Word();
        defaults.flags = fields.Word();
    }
    return defaults;
}

bool FragmentReader::Visit(const Box& moof, const SampleVisitor& visit) {
    bool holds = true;
    uint64_t dataEnd = moof.offset;
    for (const Box& child : moof.children) {
        if (child.type == "traf") holds = VisitTrack(child, moof.offset, dataEnd, visit) && holds;
    }
    return holds;
}

bool FragmentReader::VisitTrack(const Box& traf, uint64_t moof, uint64_t& dataEnd,
                                const SampleVisitor& visit) {
    constexpr uint32_t kBaseIsMoof = 0x20000;
    const Box* const tfhd = traf.Find("tfhd");
    if (tfhd == nullptr) return false;
    Fields head(*tfhd);
    const uint32_t id = head.Word();
    const auto track = std::find_if(m_movie.tracks.begin(), m_movie.tracks.end(),
                                    [id](const Track& each) { return each.id == id; });
    if (track == m_movie.tracks.end()) return false;
    Defaults defaults = DefaultsOf(id);
    // Without a base of its own, a track's data follows that of the track before it.
    defaults.base = head.Has(0x1) ? head.Long() : head.Has(kBaseIsMoof) ? moof : dataEnd;
    defaults.description = head.WordIf(0x2, defaults.description);
    defaults.duration = head.WordIf(0x8, defaults.duration);
    defaults.size = head.WordIf(0x10, defaults.size);
    defaults.flags = head.WordIf(0x20, defaults.flags);
    bool holds = head.Ok();

    const auto number = static_cast<size_t>(track - m_movie.tracks.begin());
    if (const Box* const tfdt = traf.Find("tfdt")) {
        Fields fields(*tfdt);
        const uint64_t time = fields.Version() == 1 ? fields.Long() : fields.Word();
        holds = holds && fields.Ok() && time < kLatest;
        if (time < kLatest) m_next[number].dts = static_cast<int64_t>(time);
    }
    uint64_t position = defaults.base;
    for (const Box& child : traf.children) {
        if (child.type == "trun")
            holds = VisitRun(child, defaults, number, position, visit) && holds;
    }
    dataEnd = position;
    return holds;
}

bool FragmentReader::VisitRun(const Box& trun, const Defaults& defaults, size_t track,
                              uint64_t& position, const SampleVisitor& visit) {
    Fields fields(trun);
    uint64_t samples = fields.Word();
    if (fields.Has(0x1)) {
        const auto offset = static_cast<int32_t>(fields.Word());
        position = defaults.base + static_cast<uint64_t>(int64_t{offset});
    }
    uint32_t flags = fields.WordIf(0x4, defaults.flags);  // of the first sample
    size_t width = 0;
    for (const uint32_t field : {0x100U, 0x200U, 0x400U, 0x800U})
        width += fields.Has(field) ? 4 : 0;
    const uint64_t most = width != 0           ? fields.Left() / width
                          : defaults.size != 0 ? m_bytesLeft / defaults.size
                                               : 0;
    const bool holds = fields.Ok() && samples <= most && m_next[track].dts < int64_t{kLatest};
    if (!holds) samples = 0;
    if (width == 0) m_bytesLeft -= samples * defaults.size;
    Sample& sample = m_next[track];
    sample.description = defaults.description;
    for (; samples != 0; --samples) {
        sample.offset = position;
        sample.duration = fields.WordIf(0x100, defaults.duration);
        sample.size = fields.WordIf(0x200, defaults.size);
        flags = fields.WordIf(0x400, flags);
        sample.cts = sample.dts + static_cast<int32_t>(fields.WordIf(0x800, 0));
        sample.sync = (flags & kNonSync) == 0;
        visit(track, sample);
        sample.dts += sample.duration;
        position += sample.size;
        flags = defaults.flags;
    }
    ++sample.chunk;
    return holds;
}

}  // namespace kx_mp4::movie
