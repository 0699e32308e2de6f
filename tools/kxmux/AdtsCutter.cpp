#include "AdtsCutter.h"

#include <string>

namespace kxmux {

namespace {

constexpr size_t kCrcSize = 2;
constexpr uint8_t kProtectionAbsent = 0x01;
// ISO/IEC 14496-3, table 1.18.
constexpr uint32_t kSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                     22050, 16000, 12000, 11025, 8000,  7350};

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
    if (reader.Fill(next + kAdtsHeaderSize)) {
        const auto second = ReadAdtsHeader(reader.Data() + next);
        return second && second->SameStream(*first);
    }
    return reader.Size() == next;
}

}  // namespace

std::optional<AdtsHeader> ReadAdtsHeader(const uint8_t* data) {
    const bool sync = data[0] == 0xFF && (data[1] & 0xF6) == 0xF0;  // layer is always 0
    const size_t rateIndex = (data[2] >> 2) & 0x0F;
    if (!sync || rateIndex >= std::size(kSampleRates)) return {};
    AdtsHeader header;
    header.objectType = static_cast<uint8_t>((data[2] >> 6) + 1);
    header.sampleRate = kSampleRates[rateIndex];
    header.channels = static_cast<uint8_t>((data[2] & 1) << 2 | data[3] >> 6);
    header.hasCrc = (data[1] & kProtectionAbsent) == 0;
    header.frameSize = size_t{data[3] & 0x03U} << 11 | size_t{data[4]} << 3 | data[5] >> 5;
    header.blocks = (data[6] & 0x03U) + 1;
    if (header.frameSize <= kAdtsHeaderSize + (header.hasCrc ? kCrcSize : 0)) return {};
    return header;
}

bool AdtsCutter::Next(AdtsFrame& frame) {
    m_reader.Drop(m_unread);
    m_unread = 0;
    if (!m_reader.Fill(1)) return false;
    if (!m_first) Synchronise();
    if (!m_reader.Fill(kAdtsHeaderSize)) throw StreamError("cut off within the ADTS header");
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

    m_withoutCrc.assign(data, data + kAdtsHeaderSize);
    m_withoutCrc.insert(m_withoutCrc.end(), data + kAdtsHeaderSize + kCrcSize,
                        data + header->frameSize);
    m_withoutCrc[1] |= kProtectionAbsent;
    SetFrameSize(m_withoutCrc.data(), m_withoutCrc.size());
    frame.data = m_withoutCrc.data();
    frame.size = m_withoutCrc.size();
    return true;
}

void AdtsCutter::Synchronise() {
    size_t at = 0;
    while (!m_reader.Fill(at + kAdtsHeaderSize) || !IsSynchronised(m_reader, at)) {
        if (m_reader.Size() < at + kAdtsHeaderSize || at >= kMaxGarbage) {
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
                          ", " + std::to_string(header.sampleRate) + " Hz, channel configuration " +
                          std::to_string(header.channels));
    }
}

}  // namespace kxmux
