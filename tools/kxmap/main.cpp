/// @file
/// kxmap: draws how a recording is laid out, as one SVG file, and tells the facts of it.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "MapDrawing.h"
#include "MovieFacts.h"
#include "MovieMap.h"
#include "kx_mp4/kx_mp4.h"

namespace {

constexpr int kFine = 0;
constexpr int kFaulty = 1;
constexpr int kNotRead = 2;

struct Arguments {
    std::string input;
    std::string output;
    bool text = false;
    bool json = false;
};

[[noreturn]] void Fail(const std::string& path, const std::string& reason) {
    throw kxmap::MovieError(path + ": " + reason);
}

/// The picture never takes the place of the recording, whatever name or link leads to it, nor of
/// anything that is no regular file.
void RefuseOutput(const std::string& input, const std::string& output) {
    struct stat in {};
    struct stat out {};
    if (stat(output.c_str(), &out) != 0) return;
    if (stat(input.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino)
        Fail(output, "is the recording itself");
    if (!S_ISREG(out.st_mode)) Fail(output, "is there and is not a regular file");
}

/// Writes under a name of its own first, so that the picture is there whole or not at all.
void WriteFile(const std::string& path, const std::string& text) {
    constexpr mode_t kMode = 0644;
    const std::string part = path + "." + std::to_string(getpid()) + ".part";
    const int file =
        open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode);
    if (file < 0) Fail(part, std::strerror(errno));
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = write(file, text.data() + done, text.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        done += static_cast<size_t>(count);
    }
    int code = done == text.size() ? 0 : errno;
    if (close(file) != 0 && code == 0) code = errno;
    if (code == 0 && std::rename(part.c_str(), path.c_str()) != 0) code = errno;
    if (code == 0) return;
    std::remove(part.c_str());
    Fail(path, std::strerror(code));
}

void Print(const std::string& text) {
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (!written || std::fflush(stdout) != 0) Fail("standard output", std::strerror(errno));
}

int Run(const Arguments& arguments) {
    const bool facts = arguments.text || arguments.json;
    std::string output = arguments.output;
    if (output.empty() && !facts) output = arguments.input + ".svg";
    const kxmap::MovieMap map = kxmap::ReadMovieMap(arguments.input);
    if (!map.IsMovie()) Fail(arguments.input, "is neither an MP4 file nor a QuickTime movie");
    if (!output.empty()) {
        RefuseOutput(arguments.input, output);
        WriteFile(output, kxmap::DrawMovieMap(map));
    }
    if (arguments.json)
        Print(kxmap::FactsAsJson(map));
    else if (facts)
        Print(kxmap::FactsAsText(map));
    else
        Print(output + "\n" + kxmap::FactsAsText(map));
    return map.remarks.empty() ? kFine : kFaulty;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "Draws how a recording is laid out: its boxes to scale, and where the chunks of "
        "its tracks lie in file and time; and tells what its headers and tables say.",
        "kxmap");
    app.set_version_flag("--version", kx_mp4_version());
    Arguments arguments;
    app.add_option("FILE", arguments.input, "An MP4 file or a QuickTime movie, finished or not")
        ->required();
    app.add_option("-o,--output", arguments.output,
                   "The picture, an SVG file; FILE.svg when neither this nor one of the next is "
                   "given");
    auto* const text = app.add_flag("--text", arguments.text, "Only print the facts");
    app.add_flag("--json", arguments.json, "Only print the facts, as JSON")->excludes(text);
    app.footer(
        "Exit status: 0 fine, 1 the file has faults or is not finished, 2 it cannot be read "
        "or the result not be written.");
    try {
        app.parse(argc, argv);
        return Run(arguments);
    } catch (const CLI::Success& answered) {
        return app.exit(answered);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kxmap: %s\n", error.what());
        return kNotRead;
    }
}
