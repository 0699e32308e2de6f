#include "StreamRate.h"

#include <limits>
#include <numeric>

#include "H264Syntax.h"
#include "HevcSyntax.h"

namespace h264 = kx_mp4::h264;
namespace hevc = kx_mp4::hevc;

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
    hevc::Sps set;
    hevc::Vps video;
    if (hevc::DescribeSps(sps.data(), sps.size(), &set) && set.timing.present)
        return RateOf(set.timing.time_scale, set.timing.num_units_in_tick);
    if (hevc::DescribeVps(vps.data(), vps.size(), &video) && video.timing.present)
        return RateOf(video.timing.time_scale, video.timing.num_units_in_tick);
    return {};
}

}  // namespace kxmux
