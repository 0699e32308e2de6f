/// @file
/// kxrepair: makes the index of a recording that was cut off, from its repair info file.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>

#include "LiveRecording.h"
#include "RepairReportText.h"
#include "kx_mp4/kx_mp4.h"
#include "kx_mp4/repair.h"

namespace {

struct Arguments {
    std::string recording;
    kx_mp4::RepairOptions options;
    bool json = false;
};

void Declare(CLI::App& app, Arguments& arguments) {
    kx_mp4::RepairOptions& options = arguments.options;
    app.add_option("RECORDING", arguments.recording, "The recording without its index")->required();
    app.add_option("--info", options.info_path,
                   "The repair info file (default: RECORDING with .info appended)");
    auto* output = app.add_option("-o,--output", options.output_path,
                                  "The repaired file (default: .repaired before the extension)");
    app.add_flag("--in-place", options.in_place,
                 "Repair RECORDING itself, without a copy; no byte of its media data is changed")
        ->excludes(output);
    app.add_flag("--overwrite", options.overwrite, "Replace the output when it is there");
    app.add_flag("--force", options.force,
                 "Repair in place although more than one frame would be without an index, and "
                 "although the sound looks like another recording's");
    app.add_flag("--dry-run", options.dry_run, "Check and report only; write nothing");
    app.add_flag("--json", arguments.json, "Report on standard output as JSON");
    app.add_flag("--keep-info", options.keep_info,
                 "Keep the repair info file after a repair in place; it is kept in any case unless "
                 "the exit status is 0");
    app.add_flag_function(
        "--composition-offsets,!--no-composition-offsets",
        [&options](int64_t count) { options.composition_offsets = count > 0; },
        "Give the index composition offsets, or none (default: when a frame's presentation time "
        "is not its decode time)");
    app.footer(
        "Exit status: 0 every recorded frame is there with its times and all checks passed, 1 "
        "repaired with a loss or a doubt, 2 not repaired and nothing changed.");
}

const char* StepName(kx_mp4::RepairStep step) {
    switch (step) {
        case kx_mp4::RepairStep::kCheck:
            return "checking";
        case kx_mp4::RepairStep::kCopy:
            return "copying";
        case kx_mp4::RepairStep::kIndex:
            return "writing the index";
    }
    return "";
}

bool ShowProgress(const kx_mp4::RepairProgress& progress) {
    constexpr double kMiB = 1024.0 * 1024.0;
    constexpr double kPercent = 100.0;
    const double share = progress.total == 0 ? 1.0
                                             : static_cast<double>(progress.done) /
                                                   static_cast<double>(progress.total);
    std::fprintf(stderr, "\r%-18s %5.1f %%  %.1f MiB ", StepName(progress.step), share * kPercent,
                 static_cast<double>(progress.done) / kMiB);
    return true;
}

/// Without a repair info file, what the recording's own live index says is all there is.
bool WantsLiveIndex(const Arguments& arguments) {
    const kx_mp4::RepairOptions& options = arguments.options;
    return options.info_path.empty() && options.output_path.empty() && !arguments.json &&
           access((arguments.recording + ".info").c_str(), F_OK) != 0 &&
           access(arguments.recording.c_str(), R_OK) == 0 &&
           kxrepair::IsLiveRecording(arguments.recording);
}

int FinishLiveIndex(const Arguments& arguments) {
    constexpr double kMillisecondsPerSecond = 1000.0;
    const std::string& path = arguments.recording;
    kxrepair::LiveReport report;
    try {
        report = kxrepair::FinishLiveRecording(path, arguments.options.dry_run);
    } catch (const std::exception& error) {
        std::printf("%s: not repaired: %s\n", path.c_str(), error.what());
        return static_cast<int>(kx_mp4::RepairOutcome::kFailed);
    }
    std::printf("%s: %s by its live index\n", path.c_str(),
                arguments.options.dry_run ? "would be finished in place" : "finished in place");
    for (const kxrepair::LiveReport::Track& track : report.tracks)
        std::printf("  %s: %llu samples, %.3f s\n", track.handler.c_str(),
                    static_cast<unsigned long long>(track.samples),
                    static_cast<double>(track.milliseconds) / kMillisecondsPerSecond);
    if (report.bytesBehind == 0) return static_cast<int>(kx_mp4::RepairOutcome::kWhole);
    std::printf("  %llu bytes behind the last index are left without one\n",
                static_cast<unsigned long long>(report.bytesBehind));
    return static_cast<int>(kx_mp4::RepairOutcome::kLoss);
}

int Run(Arguments& arguments) {
    if (WantsLiveIndex(arguments)) return FinishLiveIndex(arguments);
    const bool terminal = isatty(STDERR_FILENO) == 1;
    if (terminal) arguments.options.progress = ShowProgress;
    const kx_mp4::RepairReport report = kx_mp4::Repair(arguments.recording, arguments.options);
    if (terminal) std::fputs("\r\033[K", stderr);
    const std::string text = arguments.json ? ReportAsJson(report, arguments.options)
                                            : ReportAsText(report, arguments.options);
    std::fputs(text.c_str(), stdout);
    return static_cast<int>(report.outcome);
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int kNotRepaired = static_cast<int>(kx_mp4::RepairOutcome::kFailed);
    try {
        CLI::App app("Makes the index of a recording that was cut off, from its repair info file.");
        app.set_version_flag("--version", kx_mp4_version());
        Arguments arguments;
        Declare(app, arguments);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? 0 : kNotRepaired;
        }
        return Run(arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kxrepair: %s\n", error.what());
        return kNotRepaired;
    }
}
