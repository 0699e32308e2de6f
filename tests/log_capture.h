/// @file
/// The log of the tests: replaces the library's default sink, as an application may, by defining
/// its three functions.
#ifndef KX_MP4_TESTS_LOG_CAPTURE_H
#define KX_MP4_TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

struct LogLine {
    std::string level;  ///< "error", "warn" or "info".
    std::string text;
    std::string file;
    std::string function;
    int line = 0;
};

/// Starts with an empty log; keeps what is logged from any thread while it exists.
class LogCapture {
public:
    LogCapture() { Clear(); }

    void Clear();
    std::vector<LogLine> Lines() const;
    /// The lines of errors and warnings as "error Create: text", in order.
    std::vector<std::string> Complaints() const;
    /// How often a line of this level and text was logged; `function` counts when it is given.
    int Count(const std::string& level, const std::string& text,
              const std::string& function = "") const;
};

#endif  // KX_MP4_TESTS_LOG_CAPTURE_H
