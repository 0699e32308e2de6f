#include "RepairReportText.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;
using kx_mp4::RepairOptions;
using kx_mp4::RepairOutcome;
using kx_mp4::RepairReport;
using kx_mp4::RepairTrackReport;

namespace {

constexpr std::array<const char*, kx_mp4::kRepairTrackKinds> kTrackNames = {"video", "audio",
                                                                            "caption", "timecode"};

const char* OutcomeName(RepairOutcome outcome) {
    switch (outcome) {
        case RepairOutcome::kWhole:
            return "whole";
        case RepairOutcome::kLoss:
            return "loss";
        case RepairOutcome::kFailed:
            return "failed";
    }
    return "";
}

/// hh:mm:ss.mmm
std::string TimeAsText(uint64_t milliseconds) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02llu:%02u:%02u.%03u",
                  static_cast<unsigned long long>(milliseconds / 3600000),
                  static_cast<unsigned>(milliseconds / 60000 % 60),
                  static_cast<unsigned>(milliseconds / 1000 % 60),
                  static_cast<unsigned>(milliseconds % 1000));
    return text.data();
}

Json TrackAsJson(const RepairTrackReport& track) {
    return {{"frames_kept", track.frames_kept},
            {"bytes_kept", track.bytes_kept},
            {"frames_dropped", track.frames_dropped},
            {"frames_without_track", track.frames_without_track},
            {"frames_doubtful", track.frames_doubtful}};
}

std::string TrackAsText(const char* name, const RepairTrackReport& track) {
    std::string line = std::string("  ") + name + ": " + std::to_string(track.frames_kept) +
                       " frames kept (" + std::to_string(track.bytes_kept) + " bytes), " +
                       std::to_string(track.frames_dropped) + " dropped";
    if (track.frames_doubtful != 0)
        line += ", " + std::to_string(track.frames_doubtful) + " DOUBTFUL";
    return line + "\n";
}

std::string Headline(const RepairReport& report, const RepairOptions& options) {
    if (report.outcome == RepairOutcome::kFailed) return "not repaired: " + report.reason + "\n";
    const bool whole = report.outcome == RepairOutcome::kWhole;
    std::string line = whole ? "whole"
                             : "with a loss or a doubt at " + TimeAsText(report.reason_time_ms) +
                                   ": " + report.reason;
    if (options.dry_run) return "can be repaired, " + line + "\n";
    return "repaired, " + line + "\n  output: " + report.output_path + "\n";
}

}  // namespace

std::string ReportAsText(const RepairReport& report, const RepairOptions& options) {
    std::string text = report.recording_path + ": " + Headline(report, options);
    if (report.info_path.empty() && report.outcome != RepairOutcome::kFailed)
        text += "  by its live index\n";
    for (size_t i = 0; i < report.tracks.size(); ++i) {
        const RepairTrackReport& track = report.tracks[i];
        if (track.frames_kept != 0 || track.frames_dropped != 0)
            text += TrackAsText(kTrackNames[i], track);
    }
    if (report.media_bytes_unexplained != 0)
        text += "  media data at the end without an index: " +
                std::to_string(report.media_bytes_unexplained) + " bytes, kept in the file\n";
    const bool kept = !report.info_path.empty() && report.outcome == RepairOutcome::kLoss &&
                      options.in_place && !options.dry_run;
    if (kept) text += "  " + report.info_path + " is kept\n";
    return text;
}

std::string ReportAsJson(const RepairReport& report, const RepairOptions& options) {
    Json tracks;
    for (size_t i = 0; i < report.tracks.size(); ++i)
        tracks[kTrackNames[i]] = TrackAsJson(report.tracks[i]);
    const Json json = {{"outcome", OutcomeName(report.outcome)},
                       {"exit_status", static_cast<int>(report.outcome)},
                       {"reason", report.reason},
                       {"reason_time", TimeAsText(report.reason_time_ms)},
                       {"recording", report.recording_path},
                       {"info", report.info_path},
                       {"output", report.output_path},
                       {"dry_run", options.dry_run},
                       {"kind", report.quicktime ? "quicktime" : "mp4"},
                       {"records_kept", report.records},
                       {"tracks", tracks},
                       {"media_bytes_kept", report.media_bytes_kept},
                       {"media_bytes_unexplained", report.media_bytes_unexplained},
                       {"composition_offsets", report.composition_offsets},
                       {"output_bytes", report.output_bytes}};
    constexpr int kOneLine = -1;
    return json.dump(kOneLine, ' ', false, Json::error_handler_t::replace) + "\n";
}
