/// @file
/// The programs' own log sink, which takes the place of the library's: a program tells of a failure
/// in its own words, so the library's lines are shown only on request, with KX_MP4_LOG=1 in the
/// environment.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "kx_mp4/zv_log.h"

namespace {

void Print(const char* level, const char* format, const char* file, int line, const char* function,
           va_list arguments) {
    static const bool wanted = std::getenv("KX_MP4_LOG") != nullptr;
    if (!wanted) return;
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    std::fprintf(stderr, "%s %s:%d %s: %s\n", level, file, line, function, text);
}

}  // namespace

void zv_log_error(const char* format, const char* file, int line, const char* function, ...) {
    va_list arguments;
    va_start(arguments, function);
    Print("error", format, file, line, function, arguments);
    va_end(arguments);
}

void zv_log_warn(const char* format, const char* file, int line, const char* function, ...) {
    va_list arguments;
    va_start(arguments, function);
    Print("warning", format, file, line, function, arguments);
    va_end(arguments);
}

void zv_log_info(const char* format, const char* file, int line, const char* function, ...) {
    va_list arguments;
    va_start(arguments, function);
    Print("info", format, file, line, function, arguments);
    va_end(arguments);
}
