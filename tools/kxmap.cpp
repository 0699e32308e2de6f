/// @file
/// kxmap: draws how a recording is laid out, as one SVG file.

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "MapDrawing.h"
#include "MovieMap.h"
#include "kx_mp4/kx_mp4.h"

namespace {

void WriteFile(const std::string& path, const std::string& text) {
    std::FILE* const file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) throw kxmap::MapError(path + ": " + std::strerror(errno));
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    const int code = errno;
    if (std::fclose(file) == 0 && written) return;
    throw kxmap::MapError(path + ": " + std::strerror(written ? errno : code));
}

int Run(const std::string& input, std::string output) {
    if (output.empty()) output = input + ".svg";
    const kxmap::MovieMap map = kxmap::ReadMovieMap(input);
    WriteFile(output, kxmap::DrawMovieMap(map));
    std::printf("%s: %s, %zu boxes, %zu tracks\n", output.c_str(),
                kxmap::SizeText(map.fileSize).c_str(), map.boxes.size(), map.tracks.size());
    for (const kxmap::Track& track : map.tracks) {
        std::printf("  track %u %s: %llu samples in %llu chunks\n", track.id, track.entry.c_str(),
                    static_cast<unsigned long long>(track.samples),
                    static_cast<unsigned long long>(track.chunks));
    }
    for (const std::string& remark : map.remarks)
        std::printf("  %s\n", remark.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int kUsage = 2;
    CLI::App app(
        "Draws how a recording is laid out: its boxes to scale, and where the chunks of "
        "its tracks lie in file and time.",
        "kxmap");
    app.set_version_flag("--version", kx_mp4_version());
    std::string input;
    std::string output;
    app.add_option("FILE", input, "An MP4 file or a QuickTime movie, finished or not")->required();
    app.add_option("-o,--output", output, "The picture, an SVG file; FILE.svg when not given");
    try {
        app.parse(argc, argv);
        return Run(input, output);
    } catch (const CLI::Success& answered) {
        return app.exit(answered);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "kxmap: %s\n", error.what());
        return kUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kxmap: %s\n", error.what());
        return 1;
    }
}
