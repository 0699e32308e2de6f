/// @file
/// The exception of a recording that cannot be repaired.
#ifndef KX_MP4_REPAIR_REPAIRREFUSED_H
#define KX_MP4_REPAIR_REPAIRREFUSED_H

#include <stdexcept>

namespace kx_mp4 {

/// Ends a repair; what() says why, for the report.
class RepairRefused : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_REPAIRREFUSED_H
