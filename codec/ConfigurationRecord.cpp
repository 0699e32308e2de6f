#include "ConfigurationRecord.h"

#include "HevcSyntax.h"

namespace kx_mp4 {
namespace {

/// Reads big-endian fields; past the end everything is 0 and Ok() false.
class RecordReader {
public:
    RecordReader(const uint8_t* data, size_t size) : m_next(data), m_left(size) {}

    uint8_t Byte() { return Has(1) ? *Take(1) : 0; }
    /// A set behind its 16-bit length.
    RecordedSet Set() {
        const auto high = static_cast<uint16_t>(Byte() << 8);
        const auto size = static_cast<uint16_t>(high | Byte());
        if (!Has(size)) return {};
        return {Take(size), size};
    }
    void Skip(size_t count) {
        if (Has(count)) Take(count);
    }
    bool Ok() const { return m_ok; }

private:
    bool Has(size_t count) {
        m_ok = m_ok && count <= m_left;
        return m_ok;
    }
    const uint8_t* Take(size_t count) {
        const uint8_t* const taken = m_next;
        m_next += count;
        m_left -= count;
        return taken;
    }

    const uint8_t* m_next;
    size_t m_left;
    bool m_ok = true;
};

void TakeSets(RecordReader& reader, int count, RecordedSet* first,
              std::vector<RecordedSet>& further) {
    for (int i = 0; i < count && reader.Ok(); ++i) {
        const RecordedSet set = reader.Set();
        if (first == nullptr) continue;
        if (first->size != 0)
            further.push_back(set);
        else
            *first = set;
    }
}

uint32_t LengthSize(uint8_t field) {
    return (field & 3U) + 1;
}

void ReadAvc(RecordReader& reader, ConfigurationRecord& record) {
    reader.Skip(3);  // profile, compatibility, level
    record.lengthSize = LengthSize(reader.Byte());
    TakeSets(reader, reader.Byte() & 0x1F, &record.sps, record.further);
    TakeSets(reader, reader.Byte(), &record.pps, record.further);
}

void ReadHevc(RecordReader& reader, ConfigurationRecord& record) {
    reader.Skip(20);  // profile, tier and level to avgFrameRate
    record.lengthSize = LengthSize(reader.Byte());
    const int arrays = reader.Byte();
    for (int i = 0; i < arrays && reader.Ok(); ++i) {
        const int type = reader.Byte() & 0x3F;
        const int high = reader.Byte() << 8;
        const int count = high | reader.Byte();
        RecordedSet* const first = type == hevc::kNalVps   ? &record.vps
                                   : type == hevc::kNalSps ? &record.sps
                                   : type == hevc::kNalPps ? &record.pps
                                                           : nullptr;
        TakeSets(reader, count, first, record.further);
    }
}

}  // namespace

std::optional<ConfigurationRecord> ReadConfigurationRecord(mp4_video_codec codec,
                                                           const uint8_t* data, size_t size) {
    constexpr uint8_t kVersion = 1;
    if (data == nullptr || size == 0) return {};
    RecordReader reader(data, size);
    if (reader.Byte() != kVersion) return {};
    ConfigurationRecord record;
    if (codec == MP4_MVC_H264)
        ReadAvc(reader, record);
    else if (codec == MP4_MVC_HEVC)
        ReadHevc(reader, record);
    else
        return {};
    if (!reader.Ok() || record.lengthSize == 3) return {};
    return record;
}

}  // namespace kx_mp4
