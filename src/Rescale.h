#ifndef KX_MP4_RESCALE_H
#define KX_MP4_RESCALE_H

#include <cstdint>

namespace kx_mp4 {

/// value * numerator / denominator towards zero; 0 for a denominator of 0. The product may pass 64
/// bits (a day at 10 MHz in ticks of 10 MHz does); a result that passes them wraps, but never
/// traps.
constexpr int64_t Rescale(int64_t value, uint32_t numerator, uint32_t denominator) {
    if (denominator == 0) return 0;
    const auto bits = static_cast<uint64_t>(value);
    const uint64_t magnitude = value < 0 ? 0 - bits : bits;
    const uint64_t rest = magnitude % denominator * numerator / denominator;
    const uint64_t scaled = magnitude / denominator * numerator + rest;
    return static_cast<int64_t>(value < 0 ? 0 - scaled : scaled);
}

}  // namespace kx_mp4

#endif  // KX_MP4_RESCALE_H
