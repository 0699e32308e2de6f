/// @file
/// The frame rate that an H.264 or HEVC stream tells itself.
#ifndef KXMUX_STREAMRATE_H
#define KXMUX_STREAMRATE_H

#include <cstdint>
#include <optional>
#include <vector>

#include "FrameRate.h"

namespace kxmux {

/// Of the VUI of a sequence parameter set (ITU-T H.264, E.2.1): a tick is the time of a field.
/// Nothing when the set does not say.
std::optional<FrameRate> H264FrameRate(const std::vector<uint8_t>& sps);
/// Of the VUI (ITU-T H.265, E.3.1), else of the video parameter set (7.4.3.1): a tick is the time
/// of a picture. Nothing when neither says.
std::optional<FrameRate> HevcFrameRate(const std::vector<uint8_t>& vps,
                                       const std::vector<uint8_t>& sps);

}  // namespace kxmux

#endif  // KXMUX_STREAMRATE_H
