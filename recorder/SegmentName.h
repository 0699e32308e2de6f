/// @file
/// The names of segments.
#ifndef KX_MP4_RECORDER_SEGMENTNAME_H
#define KX_MP4_RECORDER_SEGMENTNAME_H

#include <cstdint>
#include <ctime>
#include <string>

#include "Storage.h"

namespace kx_mp4 {

/// The pattern with `%i` and `%04i` (1 to 9 digits) replaced by the number and everything else by
/// strftime, local time. Empty when that is too long.
std::string ExpandName(const std::string& pattern, uint64_t number, std::time_t due);

/// The path with "-2", "-3" ... before its extension when there is such a file, or the repair info
/// file of one.
std::string FreeName(IStorage& storage, const std::string& path);

/// The next whole multiple of `seconds` since local midnight, after `now`. Midnight is one.
std::time_t NextWallClock(std::time_t now, uint32_t seconds);

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_SEGMENTNAME_H
