/// @file
/// System calls that a signal may interrupt.
#ifndef KX_MP4_RETRY_H
#define KX_MP4_RETRY_H

#include <cerrno>

namespace kx_mp4 {

/// The result of a system call that is made again as long as a signal interrupts it (EINTR): a
/// signal of the application is no failure of the recording.
template <class Call>
auto Retry(Call&& call) {
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

}  // namespace kx_mp4

#endif  // KX_MP4_RETRY_H
