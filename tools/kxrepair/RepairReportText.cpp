#include "RepairReportText.h"

#include <array>
#include <cstdint>
#include <cstdio>

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

/// Length of the UTF-8 sequence (RFC 3629) that begins at `at`; 0 when there is none.
size_t Utf8Length(const std::string& text, size_t at) {
    const auto byte = [&text](size_t i) {
        return i < text.size() ? static_cast<uint8_t>(text[i]) : 0;
    };
    const int lead = byte(at);
    const size_t length = lead < 0x80 ? 1 : lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (lead > 0xF4) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
    }
    const int second = byte(at + 1);
    const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
    const bool noScalar = (lead == 0xED && second > 0x9F) || (lead == 0xF4 && second > 0x8F);
    return overlong || noScalar ? 0 : length;
}

std::string JsonString(const std::string& text) {
    std::string out = "\"";
    for (size_t at = 0; at < text.size();) {
        const char c = text[at];
        const size_t length = Utf8Length(text, at);
        if (c == '"' || c == '\\') {
            out += {'\\', c};
        } else if (static_cast<uint8_t>(c) < 0x20) {
            std::array<char, 7> escape{};
            std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(c));
            out += escape.data();
        } else if (length == 0) {
            out += "\\ufffd";
        } else {
            out.append(text, at, length);
        }
        at += length == 0 ? 1 : length;
    }
    return out + "\"";
}

/// Name and value pairs of one object.
class JsonObject {
public:
    JsonObject& Raw(const char* name, const std::string& value) {
        m_text += (m_text.empty() ? "\"" : ", \"") + std::string(name) + "\": " + value;
        return *this;
    }
    JsonObject& Text(const char* name, const std::string& value) {
        return Raw(name, JsonString(value));
    }
    JsonObject& Number(const char* name, uint64_t value) {
        return Raw(name, std::to_string(value));
    }
    JsonObject& Bool(const char* name, bool value) { return Raw(name, value ? "true" : "false"); }
    std::string Close() const { return "{" + m_text + "}"; }

private:
    std::string m_text;
};

std::string TrackAsJson(const RepairTrackReport& track) {
    return JsonObject()
        .Number("frames_kept", track.frames_kept)
        .Number("bytes_kept", track.bytes_kept)
        .Number("frames_dropped", track.frames_dropped)
        .Number("frames_without_track", track.frames_without_track)
        .Number("frames_unchecked", track.frames_unchecked)
        .Number("frames_doubtful", track.frames_doubtful)
        .Close();
}

std::string TrackAsText(const char* name, const RepairTrackReport& track) {
    std::string line = std::string("  ") + name + ": " + std::to_string(track.frames_kept) +
                       " frames kept (" + std::to_string(track.bytes_kept) + " bytes), " +
                       std::to_string(track.frames_dropped) + " dropped";
    if (track.frames_unchecked != 0)
        line += ", " + std::to_string(track.frames_unchecked) + " without marks to check";
    if (track.frames_doubtful != 0)
        line += ", " + std::to_string(track.frames_doubtful) + " DOUBTFUL";
    return line + "\n";
}

std::string UnclearTimesAsText(const RepairReport& report) {
    return "  " + std::to_string(report.frames_of_unclear_time) +
           " video frames have a presentation time of their own, which the index leaves out: if "
           "the recording was made with composition offsets, as kxmux does, repair it again with "
           "--composition-offsets; if not, --no-composition-offsets says so (" +
           report.info_path + " is kept until then)\n";
}

std::string Headline(const RepairReport& report, const RepairOptions& options) {
    if (report.outcome == RepairOutcome::kFailed) return "not repaired: " + report.reason + "\n";
    const bool whole = report.outcome == RepairOutcome::kWhole;
    std::string line = whole ? "whole" : "with loss: " + report.reason;
    if (options.dry_run) return "can be repaired, " + line + "\n";
    return "repaired, " + line + "\n  output: " + report.output_path + "\n";
}

}  // namespace

std::string ReportAsText(const RepairReport& report, const RepairOptions& options) {
    std::string text = report.recording_path + ": " + Headline(report, options);
    for (size_t i = 0; i < report.tracks.size(); ++i) {
        const RepairTrackReport& track = report.tracks[i];
        if (track.frames_kept != 0 || track.frames_dropped != 0)
            text += TrackAsText(kTrackNames[i], track);
    }
    if (report.media_bytes_dropped != 0)
        text += "  media data left out at the end: " + std::to_string(report.media_bytes_dropped) +
                " bytes\n";
    if (report.outcome == RepairOutcome::kFailed) return text;
    if (report.frames_of_unclear_time != 0) text += UnclearTimesAsText(report);
    const bool said = options.composition_offsets.value_or(report.composition_offsets);
    if (said != report.composition_offsets)
        text += std::string("  against the option, the recording shows that it was made ") +
                (report.composition_offsets ? "with" : "without") + " composition offsets\n";
    return text;
}

std::string ReportAsJson(const RepairReport& report, const RepairOptions& options) {
    JsonObject tracks;
    for (size_t i = 0; i < report.tracks.size(); ++i)
        tracks.Raw(kTrackNames[i], TrackAsJson(report.tracks[i]));
    return JsonObject()
               .Text("outcome", OutcomeName(report.outcome))
               .Number("exit_status", static_cast<uint64_t>(report.outcome))
               .Text("reason", report.reason)
               .Text("recording", report.recording_path)
               .Text("info", report.info_path)
               .Text("output", report.output_path)
               .Bool("dry_run", options.dry_run)
               .Text("kind", report.quicktime ? "quicktime" : "mp4")
               .Number("records_kept", report.records)
               .Raw("tracks", tracks.Close())
               .Number("media_bytes_kept", report.media_bytes_kept)
               .Number("media_bytes_dropped", report.media_bytes_dropped)
               .Bool("composition_offsets", report.composition_offsets)
               .Number("frames_of_unclear_time", report.frames_of_unclear_time)
               .Number("output_bytes", report.output_bytes)
               .Close() +
           "\n";
}
