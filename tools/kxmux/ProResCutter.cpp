#include "ProResCutter.h"

#include <cstring>
#include <iterator>
#include <string>

namespace kxmux {

namespace {

// Offsets in the frame: frame_size, 'icpf', then frame_header() (RDD 36, 5.1 and 5.1.1).
constexpr size_t kIdentifier = 4;
constexpr size_t kHeaderSize = 8;
constexpr size_t kWidth = 16;
constexpr size_t kHeight = 18;
constexpr size_t kChromaFormat = 20;
constexpr size_t kFrameRateCode = 21;
constexpr size_t kSmallestHeader = 20;
constexpr size_t kSmallestFrame = kHeaderSize + kSmallestHeader;
constexpr uint32_t kChroma422 = 2;
constexpr uint32_t kChroma444 = 3;

uint16_t Read16(const uint8_t* at) {
    return static_cast<uint16_t>(at[0] << 8 | at[1]);
}
uint32_t Read32(const uint8_t* at) {
    return uint32_t{Read16(at)} << 16 | Read16(at + 2);
}

/// frame_rate_code, RDD 36 6.1.1.
std::optional<FrameRate> RateOfCode(uint8_t code) {
    constexpr FrameRate kRates[] = {{24000, 1001}, {24, 1},        {25, 1},       {30000, 1001},
                                    {30, 1},       {50, 1},        {60000, 1001}, {60, 1},
                                    {100, 1},      {120000, 1001}, {120, 1}};
    if (code == 0 || code > std::size(kRates)) return {};
    return kRates[code - 1];
}

}  // namespace

bool ProResCutter::Next(ProResFrame& frame) {
    m_reader.Drop(m_unread);
    m_unread = 0;
    if (!m_reader.Fill(kSmallestFrame)) {
        if (m_reader.Size() == 0) return false;
        throw StreamError("cut off within the frame header");
    }
    const uint8_t* data = m_reader.Data();
    if (memcmp(data + kIdentifier, "icpf", 4) != 0) {
        throw StreamError("no ProRes frame ('icpf') at byte " +
                          std::to_string(m_reader.Position()));
    }
    const size_t size = Read32(data);
    const size_t headerSize = Read16(data + kHeaderSize);
    if (headerSize < kSmallestHeader || size < kHeaderSize + headerSize || size > kMaxFrameSize) {
        throw StreamError("not a ProRes frame: size " + std::to_string(size) + ", header " +
                          std::to_string(headerSize) + " bytes");
    }
    const uint32_t chroma = data[kChromaFormat] >> 6;
    if (chroma != kChroma422 && chroma != kChroma444) {
        throw StreamError("not a ProRes frame: chroma format " + std::to_string(chroma));
    }
    if (!m_reader.Fill(size)) {
        throw StreamError("cut off: " + std::to_string(m_reader.Size()) + " of " +
                          std::to_string(size) + " bytes");
    }
    data = m_reader.Data();
    frame = {data,
             size,
             Read16(data + kWidth),
             Read16(data + kHeight),
             chroma == kChroma444,
             RateOfCode(data[kFrameRateCode] & 0x0F)};
    m_unread = size;
    return true;
}

}  // namespace kxmux
