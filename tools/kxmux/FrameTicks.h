/// @file
/// The timescale of a video track.
#ifndef KXMUX_FRAMETICKS_H
#define KXMUX_FRAMETICKS_H

#include <cstdint>
#include <limits>
#include <numeric>

#include "FrameRate.h"

namespace kxmux {

/// Ticks of a video track: a whole number of them for each frame, whatever the rate.
struct FrameTicks {
    uint32_t timescale = 0;  ///< Ticks per second.
    uint32_t perFrame = 0;
};

inline FrameTicks TicksOf(const FrameRate& rate) {
    // Low rates get thousandths of a frame, the usual form; 30000/1001 is fine as it is.
    constexpr uint32_t kFine = 1000;
    const uint32_t divisor = std::gcd(rate.num, rate.den);
    const FrameTicks ticks = {rate.num / divisor, rate.den / divisor};
    const uint32_t limit = std::numeric_limits<uint32_t>::max() / kFine;
    if (ticks.timescale >= kFine || ticks.perFrame > limit) return ticks;
    return {ticks.timescale * kFine, ticks.perFrame * kFine};
}

}  // namespace kxmux

#endif  // KXMUX_FRAMETICKS_H
