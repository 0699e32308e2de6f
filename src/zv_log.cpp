#include "zv_log.h"

#include <cstdarg>
#include <cstdio>

namespace {

/// One message, one line, one write to the stream, so that lines of several threads do not mix.
void PrintLine(const char* level, const char* format, const char* file, int line,
               const char* function, va_list arguments) {
    char message[1024];
    std::vsnprintf(message, sizeof message, format, arguments);
    std::fprintf(stderr, "%s: %s:%d %s: %s\n", level, file, line, function, message);
}

}  // namespace

void zv_log_error(const char* format, const char* file, int line, const char* function, ...) {
    va_list arguments;
    va_start(arguments, function);
    PrintLine("error", format, file, line, function, arguments);
    va_end(arguments);
}

void zv_log_warn(const char* format, const char* file, int line, const char* function, ...) {
    va_list arguments;
    va_start(arguments, function);
    PrintLine("warning", format, file, line, function, arguments);
    va_end(arguments);
}

void zv_log_info(const char*, const char*, int, const char*, ...) {}
