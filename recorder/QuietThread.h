/// @file
/// Threads that take no signal: the application's handlers run on the application's threads.
#ifndef KX_MP4_RECORDER_QUIETTHREAD_H
#define KX_MP4_RECORDER_QUIETTHREAD_H

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

namespace kx_mp4 {

/// Begins a thread in which all signals are blocked.
template <class Function>
std::thread QuietThread(Function&& function) {
    /// Blocks them while the thread begins, which inherits that.
    class Blocked {
    public:
        Blocked() {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_SETMASK, &all, &m_before);
        }
        ~Blocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
        Blocked(const Blocked&) = delete;
        Blocked& operator=(const Blocked&) = delete;

    private:
        sigset_t m_before{};
    };
    const Blocked blocked;
    return std::thread(std::forward<Function>(function));
}

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_QUIETTHREAD_H
