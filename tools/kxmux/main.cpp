/// @file
/// kxmux: records raw elementary streams into an MP4 file or a QuickTime movie.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>

#include "Arguments.h"
#include "Recording.h"

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
        std::fprintf(stderr, "\r%.1f s, %llu frames, %.1f MB\033[K", progress.seconds,
                     static_cast<unsigned long long>(progress.videoFrames),
                     static_cast<double>(progress.bytes) / 1e6);
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

int Fail(const char* what, int code) {
    std::fprintf(stderr, "kxmux: %s\n", what);
    return code;
}

int Record(const kxmux::RecordingOptions& options) {
    ProgressLine line;
    try {
        kxmux::Recording recording(options);
        recording.Run([&line](const Progress& progress) { line.Show(progress); });
        line.Clear();
        std::fputs(recording.Summary().c_str(), stdout);
        return 0;
    } catch (const std::exception& error) {
        line.Clear();
        return Fail(error.what(), 1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int kUsage = 2;
    CLI::App app("Records raw elementary streams into an MP4 file or a QuickTime movie.", "kxmux");
    app.set_version_flag("--version", kx_mp4_version());
    kxmux::Arguments arguments;
    arguments.AddTo(app);
    try {
        app.parse(argc, argv);
        return Record(arguments.Options());
    } catch (const CLI::Success& answered) {
        return app.exit(answered);
    } catch (const CLI::ParseError& error) {
        return Fail(error.what(), kUsage);
    }
}
