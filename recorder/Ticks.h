/// @file
/// Times of one track in ticks of another.
#ifndef KX_MP4_RECORDER_TICKS_H
#define KX_MP4_RECORDER_TICKS_H

#include <cstdint>

namespace kx_mp4 {

constexpr int64_t kNanoseconds = 1000000000;
constexpr int64_t kMilliseconds = 1000;

/// `ticks` of `from` per second in ticks of `to` per second, rounded up. Exact as long as the
/// outcome has 63 bits; both timescales at most 2^32.
constexpr int64_t Rescaled(int64_t ticks, int64_t from, int64_t to) {
    const int64_t whole = ticks / from;
    const int64_t rest = ticks % from;  // less than 2^32 either way
    const auto product = static_cast<uint64_t>(rest < 0 ? -rest : rest) * static_cast<uint64_t>(to);
    const auto divisor = static_cast<uint64_t>(from);
    const auto part =
        static_cast<int64_t>(rest < 0 ? 0 - static_cast<int64_t>(product / divisor)
                                      : static_cast<int64_t>((product + divisor - 1) / divisor));
    return whole * to + part;
}

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_TICKS_H
