// A recording of two seconds with B-frames and sound, and what an application does around it.
//
//   recorder OUTPUT VERSION            repairs OUTPUT if an earlier run left it unfinished, else
//                                      records it and looks at the file
//   recorder OUTPUT VERSION PICTURES   ends in the middle, after so many pictures, as a crash does
#include <kx_mp4/Mp4Muxer.h>
#include <kx_mp4/buffered_io.h>
#include <kx_mp4/repair.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "../../examples/b_frames.h"
#include "log.h"

namespace {

constexpr uint32_t kPictures = 50;
constexpr uint32_t kTimescale = 90000;
constexpr uint32_t kPictureTicks = 3600;
constexpr uint32_t kSampleRate = 48000;

void Check(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "recorder: wrong: %s\n", what);
    std::exit(1);
}

void Done(mp4_status_t status) {
    Check(status == MP4_STATUS_SUCCESS, mp4_status_string(status));
}

void Declare(CMp4Muxer& muxer) {
    mp4_video_track_info video = {};
    video.timescale = kTimescale;
    video.frame_duration = kPictureTicks;
    video.codec = MP4_MVC_H264;
    video.width = video.height = B_FRAMES_SIZE;
    mp4_audio_track_info_t audio = {};
    audio.timescale = audio.sample_rate = kSampleRate;
    audio.frame_duration = 1024;
    audio.codec = MP4_MAC_AAC;
    audio.channels = 1;
    audio.profile = 2;
    Done(muxer.SetCompositionOffsets(true));
    Done(muxer.SetVideoTrack(&video));
    Done(muxer.SetAudioTrack(&audio));
}

void Write(CMp4Muxer& muxer, uint32_t pictures) {
    uint64_t sound = 0;
    for (uint32_t number = 0; number < pictures; ++number) {
        const b_frames_picture& picture = b_frames[number % B_FRAMES_GROUP];
        const uint32_t shown = number - number % B_FRAMES_GROUP + picture.shown_as + 1;
        const uint64_t time = uint64_t{number} * kPictureTicks;
        Done(muxer.WriteVideoFrame(picture.bytes, picture.size, uint64_t{shown} * kPictureTicks,
                                   time));
        for (; sound * kTimescale <= time * kSampleRate; sound += 1024)
            Done(muxer.WriteAudioFrame(b_frames_silence, sizeof b_frames_silence, sound));
    }
}

void Record(const std::string& path) {
    mp4_config_t config = {};
    config.io_mode = MP4_IO_EXTERNAL;
    config.func = kx_mp4_buffered_io();
    CMp4Muxer muxer;
    const int before = g_logLines;
    Check(muxer.WriteVideoFrame(b_frames[0].bytes, b_frames[0].size, 0, 0) ==
              MP4_STATUS_FILE_NOT_OPEN,
          "status");
    Check(g_logLines > before, "the library logged elsewhere");
    Done(muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config));
    Declare(muxer);
    Write(muxer, kPictures);
    Check(muxer.GetDurationMS() == 2000, "duration");
    Done(muxer.Close());
}

/// Nothing is closed, as in a crash.
void RecordHalf(const std::string& path, uint32_t pictures) {
    CMp4Muxer muxer;
    mp4_config_t config = {};
    config.flags = MP4_FLAG_REPAIR_INFO;
    Done(muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config));
    Declare(muxer);
    Write(muxer, pictures);
    std::_Exit(0);
}

std::string ReadAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void Repair(const std::string& path) {
    kx_mp4::RepairOptions options;
    options.in_place = true;
    const kx_mp4::RepairReport report = kx_mp4::Repair(path, options);
    Check(report.outcome == kx_mp4::RepairOutcome::kWhole, report.reason.c_str());
    const auto pictures = report.tracks[kx_mp4::kRepairVideo].frames_kept;
    std::printf("recorder: %s repaired, %llu pictures\n", path.c_str(),
                static_cast<unsigned long long>(pictures));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    const std::string path = argv[1];
    Check(std::string(kx_mp4_version()) == argv[2], "version");
    if (argc > 3) RecordHalf(path, static_cast<uint32_t>(std::atoi(argv[3])));
    if (std::ifstream(path + ".info").good()) {
        Repair(path);
        return 0;
    }
    Record(path);
    const std::string bytes = ReadAll(path);
    Check(bytes.compare(4, 4, "ftyp") == 0, "no ftyp in front");
    Check(bytes.find("moov") != std::string::npos, "no index");
    std::printf("recorder: %s recorded with kx_mp4 %s, sizeof(CMp4Muxer) %zu\n", argv[1], argv[2],
                sizeof(CMp4Muxer));
    return 0;
}
