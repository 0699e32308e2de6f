#include "log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "system_calls.h"
#include "zv_log.h"

namespace {

std::mutex g_mutex;
std::vector<LogLine> g_lines;

void KeepText(const char* level, const char* text, const char* file, int line,
              const char* function) {
    const FaultPause ours;  // the memory of this list is none of the library's
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back({level, text, file, function, line});
}

void Keep(const char* level, const char* format, const char* file, int line, const char* function,
          va_list arguments) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    KeepText(level, text, file, line, function);
}

}  // namespace

void zv_log_error(const char* format, const char* file, int line, const char* function, ...) {
    va_list arguments;
    va_start(arguments, function);
    Keep("error", format, file, line, function, arguments);
    va_end(arguments);
}

void zv_log_warn(const char* format, const char* file, int line, const char* function, ...) {
    va_list arguments;
    va_start(arguments, function);
    Keep("warn", format, file, line, function, arguments);
    va_end(arguments);
}

void zv_log_info(const char* format, const char* file, int line, const char* function, ...) {
    va_list arguments;
    va_start(arguments, function);
    Keep("info", format, file, line, function, arguments);
    va_end(arguments);
}

// The byte streams print their failures. Kept like log lines, on the level "print"; what others
// print goes on.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" int __wrap_printf(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char text[1024];
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (std::strstr(text, "[line ") != nullptr)
        KeepText("print", text, "", 0, "");
    else
        std::fputs(text, stdout);
    return length;
}
// NOLINTEND(bugprone-reserved-identifier)

void LogCapture::Clear() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

std::vector<LogLine> LogCapture::Lines() const {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

std::vector<std::string> LogCapture::Complaints() const {
    std::vector<std::string> complaints;
    for (const LogLine& line : Lines())
        if (line.level != "info" && line.level != "print")
            complaints.push_back(line.level + " " + line.function + ": " + line.text);
    return complaints;
}

int LogCapture::Count(const std::string& level, const std::string& text,
                      const std::string& function) const {
    int count = 0;
    for (const LogLine& line : Lines())
        if (line.level == level && line.text == text &&
            (function.empty() || line.function == function))
            ++count;
    return count;
}
