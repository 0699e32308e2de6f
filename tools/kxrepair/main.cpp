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
    return arguments.options.info_path.empty() &&
           access((arguments.recording + ".info").c_str(), F_OK) != 0 &&
           access(arguments.recording.c_str(), R_OK) == 0 &&
           kxrepair::IsLiveRecording(arguments.recording);
}

uint64_t FramesKept(const kx_mp4::RepairReport& report) {
    uint64_t frames = 0;
    for (const kx_mp4::RepairTrackReport& track : report.tracks)
        frames += track.frames_kept;
    return frames;
}

/// A power cut can leave less of the repair info file than of the recording, whose own live index
/// then lists more.
kx_mp4::RepairReport RepairByTheMost(const std::string& recording,
                                     const kx_mp4::RepairOptions& options) {
    kx_mp4::RepairReport report = kx_mp4::Repair(recording, options);
    if (report.media_bytes_unexplained == 0 || !kxrepair::IsLiveRecording(recording)) return report;
    kx_mp4::RepairOptions live = options;
    if (live.output_path.empty()) live.output_path = kx_mp4::DefaultRepairOutput(recording);
    live.overwrite = true;  // what was made just now
    live.dry_run = true;
    kx_mp4::RepairReport byIndex = kxrepair::FinishLiveRecording(recording, live);
    if (FramesKept(byIndex) <= FramesKept(report)) return report;
    live.dry_run = options.dry_run;
    byIndex = kxrepair::FinishLiveRecording(recording, live);
    return byIndex.outcome == kx_mp4::RepairOutcome::kFailed ? report : byIndex;
}

kx_mp4::RepairReport Repair(Arguments& arguments) {
    kx_mp4::RepairOptions& options = arguments.options;
    if (!WantsLiveIndex(arguments)) return RepairByTheMost(arguments.recording, options);
    options.in_place = options.output_path.empty();
    return kxrepair::FinishLiveRecording(arguments.recording, options);
}

int Run(Arguments& arguments) {
    const bool terminal = isatty(STDERR_FILENO) == 1;
    if (terminal) arguments.options.progress = ShowProgress;
    const kx_mp4::RepairReport report = Repair(arguments);
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
