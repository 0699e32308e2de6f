/// @file
/// How decoded pictures are to be shown: the beginning that the VUI parameters of ITU-T H.264
/// (E.1.1) and H.265 (E.2.1) have in common.
#ifndef KX_MP4_CODEC_VIDEOSIGNAL_H
#define KX_MP4_CODEC_VIDEOSIGNAL_H

#include <cstdint>

#include "BitReader.h"

namespace kx_mp4 {

/// aspect_ratio_info_present_flag to the chroma sample location. Left as they are where the stream
/// says nothing.
struct VideoSignal {
    uint8_t aspect_ratio_idc = 0;  ///< Table E-1; 0 is unspecified, 255 given by the two below.
    uint16_t sar_width = 0;
    uint16_t sar_height = 0;
    bool has_video_signal_type = false;
    uint8_t video_format = 5;  ///< Table E-2; 5 is unspecified.
    bool video_full_range = false;
    uint8_t colour_primaries = 2;  ///< Tables E-3 to E-5; 2 is unspecified.
    uint8_t transfer_characteristics = 2;
    uint8_t matrix_coeffs = 2;
    uint32_t chroma_sample_loc_type_top_field = 0;
    uint32_t chroma_sample_loc_type_bottom_field = 0;
};

/// Reads the fields in their order.
inline VideoSignal ReadVideoSignal(BitReader& bits) {
    constexpr uint8_t kExtendedSar = 255;
    VideoSignal signal;
    if (bits.Flag()) {
        signal.aspect_ratio_idc = static_cast<uint8_t>(bits.U(8));
        if (signal.aspect_ratio_idc == kExtendedSar) {
            signal.sar_width = static_cast<uint16_t>(bits.U(16));
            signal.sar_height = static_cast<uint16_t>(bits.U(16));
        }
    }
    if (bits.Flag()) bits.Skip(1);  // overscan_appropriate_flag
    signal.has_video_signal_type = bits.Flag();
    if (signal.has_video_signal_type) {
        signal.video_format = static_cast<uint8_t>(bits.U(3));
        signal.video_full_range = bits.Flag();
        if (bits.Flag()) {
            signal.colour_primaries = static_cast<uint8_t>(bits.U(8));
            signal.transfer_characteristics = static_cast<uint8_t>(bits.U(8));
            signal.matrix_coeffs = static_cast<uint8_t>(bits.U(8));
        }
    }
    if (bits.Flag()) {
        signal.chroma_sample_loc_type_top_field = bits.Ue();
        signal.chroma_sample_loc_type_bottom_field = bits.Ue();
    }
    return signal;
}

}  // namespace kx_mp4

#endif  // KX_MP4_CODEC_VIDEOSIGNAL_H
