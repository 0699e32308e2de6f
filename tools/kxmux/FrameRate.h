/// @file
/// Frame rate as a ratio of integers.
#ifndef KXMUX_FRAMERATE_H
#define KXMUX_FRAMERATE_H

#include <cstdint>

namespace kxmux {

/// Frames per second, num / den: 25/1, 30000/1001 ... Both are at least 1.
struct FrameRate {
    uint32_t num = 25;
    uint32_t den = 1;

    /// Frames that a timecode counts per second: the rate rounded to the nearest integer.
    uint32_t Nominal() const { return static_cast<uint32_t>((uint64_t{num} + den / 2) / den); }
    double Hertz() const { return static_cast<double>(num) / den; }
    /// Whether both are the same ratio, 60000/2002 and 30000/1001 for example.
    bool IsSame(const FrameRate& other) const {
        return uint64_t{num} * other.den == uint64_t{other.num} * den;
    }
};

}  // namespace kxmux

#endif  // KXMUX_FRAMERATE_H
