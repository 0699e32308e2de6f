/// @file
/// The library's log lines: to the callback of the muxer whose operation runs on this thread, or
/// else to the link-time functions.
#ifndef KX_MP4_LOG_H
#define KX_MP4_LOG_H

#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// Where one muxer's lines go; no function means the link-time functions.
struct LogSink {
    mp4_log_callback_t function = nullptr;
    void* user = nullptr;
};

/// Makes a sink that of this thread, until it ends; operations of one muxer may run inside those of
/// another.
class LogScope {
public:
    /// The sink must outlive the scope.
    explicit LogScope(const LogSink& sink);
    ~LogScope();
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

private:
    const LogSink* m_outer;
};

// The arguments are those of zv_log_error and its kin.
void LogError(const char* format, const char* file, int line, const char* function, ...)
    __attribute__((format(printf, 1, 5)));
void LogWarn(const char* format, const char* file, int line, const char* function, ...)
    __attribute__((format(printf, 1, 5)));
void LogInfo(const char* format, const char* file, int line, const char* function, ...)
    __attribute__((format(printf, 1, 5)));
/// A line that goes to standard output, newlines included, unless a callback takes it.
void Print(mp4_log_level_t level, const char* format, const char* file, int line,
           const char* function, ...) __attribute__((format(printf, 2, 6)));

}  // namespace kx_mp4

#endif  // KX_MP4_LOG_H
