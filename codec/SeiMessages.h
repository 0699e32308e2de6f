/// @file
/// Supplemental enhancement information that describes the light of the pictures: ITU-T H.264
/// (D.1) and H.265 (D.2), which write these messages alike.
#ifndef KX_MP4_CODEC_SEIMESSAGES_H
#define KX_MP4_CODEC_SEIMESSAGES_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "BitReader.h"

namespace kx_mp4 {

/// mastering_display_colour_volume, payloadType 137.
struct MasteringDisplay {
    std::array<std::array<uint16_t, 2>, 3> primaries{};  ///< x, y of green, blue, red: 0.00002.
    std::array<uint16_t, 2> white_point{};
    uint32_t max_luminance = 0;  ///< 0.0001 cd/m2.
    uint32_t min_luminance = 0;
};

/// content_light_level_info, payloadType 144.
struct ContentLight {
    uint16_t max_content_light_level = 0;
    uint16_t max_pic_average_light_level = 0;
};

inline MasteringDisplay ReadMasteringDisplay(BitReader& bits) {
    MasteringDisplay display;
    for (auto& primary : display.primaries)
        for (uint16_t& coordinate : primary)
            coordinate = static_cast<uint16_t>(bits.U(16));
    for (uint16_t& coordinate : display.white_point)
        coordinate = static_cast<uint16_t>(bits.U(16));
    display.max_luminance = bits.U(32);
    display.min_luminance = bits.U(32);
    return display;
}

inline ContentLight ReadContentLight(BitReader& bits) {
    const auto brightest = static_cast<uint16_t>(bits.U(16));
    return {brightest, static_cast<uint16_t>(bits.U(16))};
}

/// Visits the messages of an SEI NAL unit, whose header takes `headerSize` bytes, in their order:
/// `visit(payloadType, payloadBytes, bits)` with a reader of its own at the payload. What is cut
/// off is not visited.
template <class Visit>
void VisitSeiMessages(const uint8_t* nal, size_t size, size_t headerSize, Visit&& visit) {
    if (size < headerSize) return;
    BitReader bits(nal + headerSize, size - headerSize);
    const auto readSum = [&bits] {
        uint32_t sum = 0;
        uint32_t byte = 0;
        do {
            byte = bits.U(8);
            sum += byte;
        } while (byte == 0xFF && bits.Ok());
        return sum;
    };
    // Behind the last message stands a byte of trailing bits.
    while (bits.Ok() && bits.BitsLeft() > 16) {
        const uint32_t type = readSum();
        const uint32_t bytes = readSum();
        if (!bits.Ok() || bytes > bits.BitsLeft() / 8) return;
        BitReader payload = bits;
        visit(type, bytes, payload);
        bits.Skip(size_t{8} * bytes);
    }
}

}  // namespace kx_mp4

#endif  // KX_MP4_CODEC_SEIMESSAGES_H
