/// @file
/// What every call from C has around it: a handle that is one, no exception, the text of a failure.
#ifndef KX_MP4_C_CALL_H
#define KX_MP4_C_CALL_H

#include <array>
#include <cstddef>
#include <mutex>
#include <new>

#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// The most telling log line of the call that runs on this thread. Calls of other handles may run
/// inside, from callbacks.
class CallLog {
public:
    CallLog();
    ~CallLog();
    CallLog(const CallLog&) = delete;
    CallLog& operator=(const CallLog&) = delete;

    const char* Text() const { return m_text.data(); }
    /// Keeps the last error, or the last warning when there is none.
    static void Keep(mp4_log_level_t level, const char* text);

private:
    CallLog* m_outer;
    mp4_log_level_t m_level = MP4_LOG_INFO;
    std::array<char, 1024> m_text;
};

/// What the last operation of a handle that failed has said; any thread may ask.
class LastError {
public:
    void Set(const char* operation, mp4_status_t status, const char* why);
    size_t Get(char* text, size_t size) const;

private:
    mutable std::mutex m_lock;
    std::array<char, 1280> m_text{};
};

/// Runs `work` with the handle's object.
template <class Handle, class Work>
mp4_status_t Call(Handle* handle, const char* operation, Work&& work) noexcept {
    if (handle == nullptr) return MP4_STATUS_INVALID_HANDLE;
    const CallLog log;
    mp4_status_t status = MP4_STATUS_UNEXPECTED_ERROR;
    const char* why = nullptr;
    try {
        status = work(*handle);
    } catch (const std::bad_alloc&) {
        why = "no memory";
    } catch (...) {
        why = "an exception";
    }
    if (status != MP4_STATUS_SUCCESS)
        handle->error.Set(operation, status, why != nullptr ? why : log.Text());
    return status;
}

/// A handle, or null without memory.
template <class Handle>
Handle* NewHandle() noexcept {
    try {
        return new Handle;
    } catch (...) {
        return nullptr;
    }
}

}  // namespace kx_mp4

#endif  // KX_MP4_C_CALL_H
