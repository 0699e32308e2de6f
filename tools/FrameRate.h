/// @file
/// Frame rate as a ratio of integers.
#ifndef KX_MP4_FRAMERATE_H
#define KX_MP4_FRAMERATE_H

#include <cstdint>

/// Frames per second, num / den: 25/1, 30000/1001 ... Both are at least 1.
struct FrameRate {
    uint32_t num = 25;
    uint32_t den = 1;

    /// Frames that a timecode counts per second: the rate rounded to the nearest integer.
    uint32_t Nominal() const { return static_cast<uint32_t>((uint64_t{num} + den / 2) / den); }
    /// Whether both are the same ratio, 60000/2002 and 30000/1001 for example.
    bool IsSame(const FrameRate& other) const {
        return uint64_t{num} * other.den == uint64_t{other.num} * den;
    }
};

#endif  // KX_MP4_FRAMERATE_H
