#include "StreamRate.h"

#include <limits>
#include <numeric>

#include "H264Syntax.h"
#include "HevcSyntax.h"

namespace kxmux {
namespace {

std::optional<FrameRate> RateOf(uint64_t timeScale, uint64_t ticksPerFrame) {
    if (timeScale == 0 || ticksPerFrame == 0) return {};
    const uint64_t divisor = std::gcd(timeScale, ticksPerFrame);
    constexpr uint64_t kMax = uint64_t{1} << 31;  // as on the command line
    if (timeScale / divisor > kMax || ticksPerFrame / divisor > kMax) return {};
    return FrameRate{static_cast<uint32_t>(timeScale / divisor),
                     static_cast<uint32_t>(ticksPerFrame / divisor)};
}

}  // namespace

std::optional<FrameRate> H264FrameRate(const std::vector<uint8_t>& sps) {
    h264::Sps set;
    if (!h264::ParseSps(sps.data(), sps.size(), &set)) return {};
    constexpr uint64_t kFieldsPerFrame = 2;
    return RateOf(set.time_scale, kFieldsPerFrame * set.num_units_in_tick);
}

std::optional<FrameRate> HevcFrameRate(const std::vector<uint8_t>& vps,
                                       const std::vector<uint8_t>& sps) {
    hevc::Timing timing;
    if (!hevc::ParseSpsTiming(sps.data(), sps.size(), &timing) &&
        !hevc::ParseVpsTiming(vps.data(), vps.size(), &timing)) {
        return {};
    }
    return RateOf(timing.time_scale, timing.num_units_in_tick);
}

}  // namespace kxmux
