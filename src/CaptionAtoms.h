/// @file
/// Caption packets of the caller, and the atoms that they become in a caption sample.
#ifndef KX_MP4_CAPTIONATOMS_H
#define KX_MP4_CAPTIONATOMS_H

#include <cstdint>

#include "BaseIO.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// Upper bound in bytes of the sample that a packet of this many bytes becomes.
uint64_t LargestCaptionSample(uint32_t packetSize);

/// Writes a packet in the form of its track and returns the bytes of the sample. A malformed packet
/// is logged and is a sample without bytes.
///
/// | 61 02 n, n times: field, two bytes |  ->  | 10 | cdat or cdt2 | two bytes | ...   CEA-608
/// | 61 01 n, n bytes                   |  ->  | 8 + n | ccdp | n bytes |              CEA-708
uint32_t WriteCaptionAtoms(IBaseIO& writer, mp4_subtitle_codec codec, const uint8_t* packet,
                           uint32_t size);

}  // namespace kx_mp4

#endif  // KX_MP4_CAPTIONATOMS_H
