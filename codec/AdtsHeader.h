/// @file
/// The header of an AAC frame in an ADTS stream, and the sampling frequencies of AAC.
#ifndef KX_MP4_CODEC_ADTSHEADER_H
#define KX_MP4_CODEC_ADTSHEADER_H

#include <cstdint>
#include <iterator>

namespace kx_mp4 {

/// Sampling frequencies in Hz by their index, ISO/IEC 14496-3, table 1.18.
inline constexpr int kAacSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                          22050, 16000, 12000, 11025, 8000,  7350};

/// adts_fixed_header and adts_variable_header, ISO/IEC 14496-3, 1.A.2.2.
///
/// | bit | bits | field                                         |
/// | 0   | 12   | syncword, all ones                            |
/// | 12  | 4    | ID, layer 0, protection_absent                |
/// | 16  | 2    | profile: object type minus one                |
/// | 18  | 4    | sampling frequency index                      |
/// | 22  | 1, 3 | private bit, channel configuration            |
/// | 26  | 4    | original, home, copyright                     |
/// | 30  | 13   | frame length in bytes, header included        |
/// | 43  | 11   | buffer fullness                               |
/// | 54  | 2    | raw data blocks in the frame, minus one       |
/// | 56  | 16   | CRC, unless protection_absent                 |
struct AdtsHeader {
    /// Bytes without the CRC.
    static constexpr uint32_t kSize = 7;
    static constexpr uint32_t kCrcSize = 2;

    uint8_t objectType = 0;  ///< MPEG-4 audio object type; 2 is AAC LC.
    uint8_t rateIndex = 0;   ///< Index into kAacSampleRates; 13 to 15 are reserved.
    uint8_t channels = 0;    ///< Channel configuration.
    bool hasCrc = false;
    uint32_t frameSize = 0;  ///< Bytes, header included.
    uint32_t blocks = 0;     ///< Raw data blocks in the frame, at least 1.

    /// Whether these bytes begin with a syncword and hold more than a header.
    static bool IsThere(const uint8_t* data, uint64_t size) {
        return size > kSize && data[0] == 0xFF && (data[1] & 0xF0) == 0xF0;
    }
    /// Reads the fields of the header at `data`, which has kSize bytes; none of them is checked.
    static AdtsHeader Read(const uint8_t* data) {
        AdtsHeader header;
        header.objectType = static_cast<uint8_t>((data[2] >> 6) + 1);
        header.rateIndex = data[2] >> 2 & 0x0F;
        header.channels = static_cast<uint8_t>((data[2] & 1) << 2 | data[3] >> 6);
        header.hasCrc = (data[1] & 1) == 0;
        header.frameSize = (data[3] & 3U) << 11 | uint32_t{data[4]} << 3 | data[5] >> 5;
        header.blocks = (data[6] & 3U) + 1;
        return header;
    }
    /// Whether the frame can be what it says: layer and rate are in use, and bytes follow the
    /// header at `data` that was read.
    bool IsPlausible(const uint8_t* data) const {
        constexpr uint8_t kLayer = 0x06;
        return (data[1] & kLayer) == 0 && SampleRate() != 0 && frameSize > Size();
    }
    /// Whether both frames belong to one stream, which has one configuration.
    bool SameStream(const AdtsHeader& other) const {
        return objectType == other.objectType && rateIndex == other.rateIndex &&
               channels == other.channels;
    }
    /// Bytes in front of the raw data blocks.
    uint32_t Size() const { return kSize + (hasCrc ? kCrcSize : 0); }
    /// Hz; 0 for a reserved index.
    int SampleRate() const {
        return rateIndex < std::size(kAacSampleRates) ? kAacSampleRates[rateIndex] : 0;
    }
};

}  // namespace kx_mp4

#endif  // KX_MP4_CODEC_ADTSHEADER_H
