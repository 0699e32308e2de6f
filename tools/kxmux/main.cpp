/// @file
/// kxmux: records raw elementary streams into an MP4 file or a QuickTime movie.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "Arguments.h"
#include "Recording.h"
#include "StopSignal.h"

namespace {

using kxmux::Progress;

/// One line on a terminal that is written over again; nothing anywhere else.
class ProgressLine {
public:
    ~ProgressLine() { Clear(); }

    void Show(const Progress& progress) {
        if (!m_terminal) return;
        const auto now = std::chrono::steady_clock::now();
        if (now - m_last < std::chrono::milliseconds(200)) return;
        m_last = now;
        m_shown = true;
        std::fprintf(stderr, "\r%.1f s, %llu frames, %.1f MB%s\033[K", progress.seconds,
                     static_cast<unsigned long long>(progress.frames),
                     static_cast<double>(progress.bytes) / 1e6, progress.live.c_str());
    }
    void Clear() {
        if (m_shown) std::fputs("\r\033[K", stderr);
        m_shown = false;
    }

private:
    bool m_terminal = isatty(STDERR_FILENO) != 0;
    bool m_shown = false;
    std::chrono::steady_clock::time_point m_last;
};

constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kSignalled = 128;  // and the signal's number, as a shell has it

int Fail(const char* what, int code) {
    std::fprintf(stderr, "kxmux: %s\n", what);
    return code;
}

/// Files that are opened must not take the places of closed standard streams: messages would be
/// written into the recording. What is written to such a stream fails.
void HoldStandardStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (::fcntl(stream, F_GETFD) < 0 && ::open("/dev/null", O_RDONLY) < 0) return;
    }
}

/// Failures that are told by the call, which a signal would make an end without a word.
void IgnoreSignalsOfWrites() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

/// Pushes what was printed; a failure is one of the program.
int EndOutput(int code) {
    std::cout.flush();
    if (std::cout.good() && std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return code;
    return Fail("standard output cannot be written", code == 0 ? kFailed : code);
}

int StatusOf(kxmux::RecordingResult result) {
    if (result == kxmux::RecordingResult::kInterrupted) {
        return kSignalled + kxmux::StopSignal::Number();
    }
    return result == kxmux::RecordingResult::kComplete ? 0 : kFailed;
}

int Record(const kxmux::RecordingOptions& options) {
    ProgressLine line;
    kxmux::Observer observer;
    observer.progress = [&line](const Progress& progress) { line.Show(progress); };
    observer.warning = [&line](const std::string& text) {
        line.Clear();
        std::fprintf(stderr, "kxmux: warning: %s\n", text.c_str());
    };
    try {
        kxmux::Recording recording(options);
        const int status = StatusOf(recording.Run(observer));
        line.Clear();
        std::fputs(recording.Summary().c_str(), stdout);
        return EndOutput(status);
    } catch (const kxmux::Interrupted& interrupted) {
        line.Clear();
        return Fail(interrupted.what(), kSignalled + kxmux::StopSignal::Number());
    } catch (const std::exception& error) {
        line.Clear();
        return Fail(error.what(), kFailed);
    }
}

}  // namespace

int main(int argc, char** argv) {
    HoldStandardStreams();
    IgnoreSignalsOfWrites();
    kxmux::StopSignal::Install();
    CLI::App app("Records raw elementary streams into an MP4 file or a QuickTime movie.", "kxmux");
    app.set_version_flag("--version", kx_mp4_version());
    kxmux::Arguments arguments;
    arguments.AddTo(app);
    try {
        app.parse(argc, argv);
        return Record(arguments.Options());
    } catch (const CLI::Success& answered) {
        return EndOutput(app.exit(answered));
    } catch (const CLI::ParseError& error) {
        return Fail(error.what(), kUsage);
    }
}
