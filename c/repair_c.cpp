#include <algorithm>
#include <cstring>
#include <exception>
#include <string>

#include "Record.h"
#include "kx_mp4/kx_mp4_c.h"
#include "kx_mp4/repair.h"

namespace {

kx_mp4_repair_options UsualOptions() {
    kx_mp4_repair_options options{};
    options.struct_size = sizeof options;
    options.composition_offsets = -1;
    return options;
}

std::string TextOf(const char* text) {
    return text != nullptr ? text : "";
}

kx_mp4::RepairOptions OptionsOf(const kx_mp4_repair_options& given) {
    kx_mp4::RepairOptions options;
    options.info_path = TextOf(given.info_path);
    options.output_path = TextOf(given.output_path);
    options.overwrite = given.overwrite != 0;
    options.in_place = given.in_place != 0;
    options.force = given.force != 0;
    options.dry_run = given.dry_run != 0;
    options.keep_info = given.keep_info != 0;
    if (given.composition_offsets >= 0)
        options.composition_offsets = given.composition_offsets != 0;
    if (given.progress != nullptr) {
        options.progress = [&given](const kx_mp4::RepairProgress& progress) {
            return given.progress(given.user, static_cast<int>(progress.step), progress.done,
                                  progress.total) != 0;
        };
    }
    return options;
}

template <size_t Size>
void PutText(const std::string& text, char (&field)[Size]) {
    std::memcpy(field, text.data(), std::min(text.size(), Size - 1));
}

kx_mp4_repair_track TrackOf(const kx_mp4::RepairTrackReport& track) {
    return {track.frames_kept, track.bytes_kept, track.frames_dropped, track.frames_without_track,
            track.frames_doubtful};
}

int Report(const kx_mp4::RepairReport& made, kx_mp4_repair_report* report) {
    const int outcome = static_cast<int>(made.outcome);
    if (report == nullptr) return outcome;
    kx_mp4_repair_report full{};
    full.outcome = outcome;
    full.quicktime = made.quicktime ? 1 : 0;
    PutText(made.reason, full.reason);
    PutText(made.output_path, full.output_path);
    full.reason_time_ms = made.reason_time_ms;
    full.records = made.records;
    full.video = TrackOf(made.tracks[kx_mp4::kRepairVideo]);
    full.audio = TrackOf(made.tracks[kx_mp4::kRepairAudio]);
    full.captions = TrackOf(made.tracks[kx_mp4::kRepairCaption]);
    full.timecode = TrackOf(made.tracks[kx_mp4::kRepairTimecode]);
    full.media_bytes_kept = made.media_bytes_kept;
    full.media_bytes_unexplained = made.media_bytes_unexplained;
    full.output_bytes = made.output_bytes;
    full.composition_offsets = made.composition_offsets ? 1 : 0;
    kx_mp4::Give(full, report);
    return outcome;
}

int Repair(const char* path, const kx_mp4_repair_options* given, kx_mp4_repair_report* report) {
    kx_mp4_repair_options options = UsualOptions();
    kx_mp4::RepairReport made;
    if (path == nullptr || (given != nullptr && !kx_mp4::Take(given, options)))
        made.reason = "the path or the options are not valid";
    else
        made = kx_mp4::Repair(path, OptionsOf(options));
    return Report(made, report);
}

int Failed(const char* reason, kx_mp4_repair_report* report) {
    if (report == nullptr) return KX_MP4_REPAIR_FAILED;
    kx_mp4_repair_report full{};
    full.outcome = KX_MP4_REPAIR_FAILED;
    std::strncpy(full.reason, reason, sizeof full.reason - 1);
    kx_mp4::Give(full, report);
    return KX_MP4_REPAIR_FAILED;
}

}  // namespace

void kx_mp4_repair_options_init(kx_mp4_repair_options* options, size_t struct_size) {
    kx_mp4::InitRecord(UsualOptions(), options, struct_size);
}

int kx_mp4_repair(const char* path, const kx_mp4_repair_options* options,
                  kx_mp4_repair_report* report) {
    if (report != nullptr && !kx_mp4::IsRecordSize(report->struct_size))
        return KX_MP4_REPAIR_FAILED;
    try {
        return Repair(path, options, report);
    } catch (const std::exception& failure) {
        return Failed(failure.what(), report);
    } catch (...) {
        return Failed("the progress callback has thrown", report);
    }
}
