/// @file
/// Decoder configuration records of length-prefixed streams (ISO/IEC 14496-15, 5.3.3.1 and
/// 8.3.3.1): what is in front of each NAL unit, and the parameter sets.
#ifndef KX_MP4_CODEC_CONFIGURATIONRECORD_H
#define KX_MP4_CODEC_CONFIGURATIONRECORD_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// A parameter set inside a record, without start code or length; no bytes when there is none.
struct RecordedSet {
    const uint8_t* data = nullptr;
    uint16_t size = 0;
};

/// The sets; the bytes are those of the record that was read.
struct ConfigurationRecord {
    uint32_t lengthSize = 4;  ///< Bytes of the length in front of a NAL unit: 1, 2 or 4.
    RecordedSet vps;          ///< The first one; so of the other kinds.
    RecordedSet sps;
    RecordedSet pps;
    std::vector<RecordedSet> further;  ///< Those behind the first one of their kind.
};

/// Reads an `avcC` or `hvcC` record, without box header. Nothing for one that is cut off, of
/// another version or with lengths of 3 bytes.
std::optional<ConfigurationRecord> ReadConfigurationRecord(mp4_video_codec codec,
                                                           const uint8_t* data, size_t size);

}  // namespace kx_mp4

#endif  // KX_MP4_CODEC_CONFIGURATIONRECORD_H
