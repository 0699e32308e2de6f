#include "Log.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "zv_log.h"

namespace kx_mp4 {
namespace {

thread_local const LogSink* t_sink = nullptr;

using LinkTimeLog = void (*)(const char* format, const char* file, int line, const char* function,
                             ...);

using Text = std::array<char, 1024>;

bool LogsToCallback() {
    return t_sink != nullptr && t_sink->function != nullptr;
}

void Send(mp4_log_level_t level, LinkTimeLog linkTime, const char* format, const char* file,
          int line, const char* function, va_list arguments) {
    Text text;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    std::vsnprintf(text.data(), text.size(), format, arguments);
    if (LogsToCallback())
        t_sink->function(t_sink->user, level, file, line, function, text.data());
    else
        linkTime("%s", file, line, function, text.data());
}

}  // namespace

LogScope::LogScope(const LogSink& sink) : m_outer(t_sink) {
    t_sink = &sink;
}

LogScope::~LogScope() {
    t_sink = m_outer;
}

void LogError(const char* format, const char* file, int line, const char* function, ...) {
    va_list arguments;
    va_start(arguments, function);
    Send(MP4_LOG_ERROR, zv_log_error, format, file, line, function, arguments);
    va_end(arguments);
}

void LogWarn(const char* format, const char* file, int line, const char* function, ...) {
    va_list arguments;
    va_start(arguments, function);
    Send(MP4_LOG_WARNING, zv_log_warn, format, file, line, function, arguments);
    va_end(arguments);
}

void LogInfo(const char* format, const char* file, int line, const char* function, ...) {
    va_list arguments;
    va_start(arguments, function);
    Send(MP4_LOG_INFO, zv_log_info, format, file, line, function, arguments);
    va_end(arguments);
}

void Print(mp4_log_level_t level, const char* format, const char* file, int line,
           const char* function, ...) {
    Text text;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    va_list arguments;
    va_start(arguments, function);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    if (!LogsToCallback()) {
        std::printf("%s", text.data());
        return;
    }
    for (size_t end = std::strlen(text.data()); end != 0 && text[end - 1] == '\n'; --end)
        text[end - 1] = '\0';
    t_sink->function(t_sink->user, level, file, line, function, text.data());
}

}  // namespace kx_mp4
