#include "AdtsCutter.h"

#include <string>

using kx_mp4::AdtsHeader;

namespace kxmux {

namespace {

constexpr uint8_t kProtectionAbsent = 0x01;

/// Writes aac_frame_length, the 13 bits from bit 30 of the header on.
void SetFrameSize(uint8_t* header, size_t size) {
    header[3] = static_cast<uint8_t>((header[3] & 0xFC) | ((size >> 11) & 0x03));
    header[4] = static_cast<uint8_t>(size >> 3);
    header[5] = static_cast<uint8_t>((header[5] & 0x1F) | ((size & 0x07) << 5));
}

/// Whether the bytes before the frame are followed by two frames, or by one that ends the input.
bool IsSynchronised(PieceReader& reader, size_t at) {
    const auto first = ReadAdtsHeader(reader.Data() + at);
    if (!first) return false;
    const size_t next = at + first->frameSize;
    if (reader.Fill(next + AdtsHeader::kSize)) {
        const auto second = ReadAdtsHeader(reader.Data() + next);
        return second && second->SameStream(*first);
    }
    return reader.Size() == next;
}

}  // namespace

std::optional<AdtsHeader> ReadAdtsHeader(const uint8_t* data) {
    if (!AdtsHeader::IsThere(data, AdtsHeader::kSize + 1)) return {};
    const AdtsHeader header = AdtsHeader::Read(data);
    if (!header.IsPlausible(data)) return {};
    return header;
}

bool AdtsCutter::Next(AdtsFrame& frame) {
    m_reader.Drop(m_unread);
    m_unread = 0;
    if (!m_reader.Fill(1)) return false;
    if (!m_first) Synchronise();
    if (!m_reader.Fill(AdtsHeader::kSize)) throw StreamError("cut off within the ADTS header");
    const auto header = ReadAdtsHeader(m_reader.Data());
    if (!header) {
        throw StreamError("no ADTS header at byte " + std::to_string(m_reader.Position()));
    }
    Check(*header);
    if (!m_first) m_first = header;
    if (!m_reader.Fill(header->frameSize)) {
        throw StreamError("cut off: " + std::to_string(m_reader.Size()) + " of " +
                          std::to_string(header->frameSize) + " bytes");
    }
    m_unread = header->frameSize;
    const uint8_t* data = m_reader.Data();
    frame = {data, header->frameSize, *header};
    if (!header->hasCrc) return true;

    m_withoutCrc.assign(data, data + AdtsHeader::kSize);
    m_withoutCrc.insert(m_withoutCrc.end(), data + header->Size(), data + header->frameSize);
    m_withoutCrc[1] |= kProtectionAbsent;
    SetFrameSize(m_withoutCrc.data(), m_withoutCrc.size());
    frame.data = m_withoutCrc.data();
    frame.size = m_withoutCrc.size();
    return true;
}

void AdtsCutter::Synchronise() {
    size_t at = 0;
    while (!m_reader.Fill(at + AdtsHeader::kSize) || !IsSynchronised(m_reader, at)) {
        if (m_reader.Size() < at + AdtsHeader::kSize || at >= kMaxGarbage) {
            throw StreamError("no ADTS frames, so it is not an ADTS stream");
        }
        ++at;
    }
    m_skipped = at;
    m_reader.Drop(at);
}

void AdtsCutter::Check(const AdtsHeader& header) const {
    if (header.blocks > 1) {
        throw StreamError("has " + std::to_string(header.blocks) +
                          " AAC frames in one ADTS frame, which is not supported");
    }
    if (header.channels == 0) {
        throw StreamError("channel configuration 0 (described inside the stream) is not supported");
    }
    if (m_first && !header.SameStream(*m_first)) {
        throw StreamError("the stream changes to object type " + std::to_string(header.objectType) +
                          ", " + std::to_string(header.SampleRate()) +
                          " Hz, channel configuration " + std::to_string(header.channels));
    }
}

}  // namespace kxmux
