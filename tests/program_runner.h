/// @file
/// Runs programs, for the tests that judge them as a whole.
#ifndef KX_MP4_TESTS_PROGRAM_RUNNER_H
#define KX_MP4_TESTS_PROGRAM_RUNNER_H

#include <string>
#include <vector>

namespace program_runner {

using Lines = std::vector<std::string>;

struct Outcome {
    int code = -1;  // of the exit; -1 when a signal ended it
    std::string out;
    std::string errors;
};

/// Runs a line of the shell.
Outcome Execute(const std::string& command);

Lines SplitLines(const std::string& text);
std::string ReadFile(const std::string& path);
/// The path of a stream in the folder of the samples.
std::string Sample(const std::string& name);

}  // namespace program_runner

#endif  // KX_MP4_TESTS_PROGRAM_RUNNER_H
