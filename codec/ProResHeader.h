/// @file
/// The frame header of ProRes (SMPTE RDD 36, 5.1 and 6.1), as far as it says how pictures are
/// shown.
#ifndef KX_MP4_CODEC_PRORESHEADER_H
#define KX_MP4_CODEC_PRORESHEADER_H

#include <cstddef>
#include <cstdint>
#include <optional>

namespace kx_mp4 {

/// | offset | bytes | field of the frame                                           |
/// | 0      | 4, 4  | size of the frame, "icpf"                                    |
/// | 8      | 2     | size of the header that begins here                          |
/// | 16     | 2, 2  | width, height, pixels                                        |
/// | 20     | 1     | chroma format 2 bits, reserved 2, interlace mode 2, reserved |
/// | 21     | 1     | aspect ratio 4 bits, frame rate 4                            |
/// | 22     | 1 x 3 | colour primaries, transfer, matrix (ITU-T H.273)             |
struct ProResHeader {
    uint16_t width = 0;
    uint16_t height = 0;
    uint8_t interlace_mode = 0;            ///< 0 progressive, 1 top field first, 2 bottom first.
    uint8_t aspect_ratio_information = 0;  ///< 1 square pixels, 2 a 4:3 and 3 a 16:9 picture.
    uint8_t colour_primaries = 0;
    uint8_t transfer_characteristic = 0;
    uint8_t matrix_coefficients = 0;
};

/// Nothing for a frame that ends before the fields.
inline std::optional<ProResHeader> ReadProResHeader(const uint8_t* frame, size_t size) {
    constexpr size_t kFieldsEnd = 25;
    if (size < kFieldsEnd) return std::nullopt;
    const auto sixteenBits = [frame](size_t at) {
        return static_cast<uint16_t>(frame[at] << 8 | frame[at + 1]);
    };
    ProResHeader header;
    header.width = sixteenBits(16);
    header.height = sixteenBits(18);
    header.interlace_mode = frame[20] >> 2 & 3;
    header.aspect_ratio_information = frame[21] >> 4;
    header.colour_primaries = frame[22];
    header.transfer_characteristic = frame[23];
    header.matrix_coefficients = frame[24];
    return header;
}

}  // namespace kx_mp4

#endif  // KX_MP4_CODEC_PRORESHEADER_H
