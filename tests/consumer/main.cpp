// Records a second of video into OUTPUT and looks at the file: recorder OUTPUT VERSION
#include <kx_mp4/Mp4Muxer.h>
#include <kx_mp4/buffered_io.h>
#include <kx_mp4/repair.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "log.h"

namespace {

bool Check(bool holds, const char* what) {
    if (!holds) std::fprintf(stderr, "recorder: wrong: %s\n", what);
    return holds;
}

bool Done(mp4_status_t status, const char* operation) {
    if (status != MP4_STATUS_SUCCESS) {
        std::fprintf(stderr, "recorder: %s: %s\n", operation, mp4_status_string(status));
    }
    return status == MP4_STATUS_SUCCESS;
}

mp4_video_track_info VideoTrack() {
    static const uint8_t sps[] = {0x67, 0x42, 0xc0, 0x0a, 0xda, 0x79};
    static const uint8_t pps[] = {0x68, 0xce, 0x3c, 0x80};
    mp4_video_track_info track = {};
    track.timescale = 25;
    track.frame_duration = 1;
    track.codec = MP4_MVC_H264;
    track.width = 16;
    track.height = 16;
    track.h264 = {sps, sizeof sps, pps, sizeof pps};
    return track;
}

bool Record(const std::string& path) {
    static const uint8_t frame[] = {0, 0, 0, 1, 0x65, 0x88, 0x84, 0x21, 0xa0};
    mp4_config_t config = {};
    config.io_mode = MP4_IO_EXTERNAL;
    config.func = kx_mp4_buffered_io();
    const mp4_video_track_info track = VideoTrack();
    CMp4Muxer muxer;
    if (!Done(muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config), "Create") ||
        !Done(muxer.SetVideoTrack(&track), "SetVideoTrack")) {
        return false;
    }
    for (uint64_t time = 0; time < 25; ++time) {
        if (!Done(muxer.WriteVideoFrame(frame, sizeof frame, time, time), "WriteVideoFrame"))
            return false;
    }
    return Check(muxer.GetDurationMS() == 1000, "duration") && Done(muxer.Close(), "Close");
}

bool LooksLikeAMovie(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    return Check(bytes.compare(4, 4, "ftyp") == 0, "no ftyp in front") &&
           Check(bytes.find("moov") != std::string::npos, "no index");
}

bool LogsInTheApplication() {
    CMp4Muxer muxer;
    const uint8_t frame[] = {0};
    const int before = g_logLines;
    return Check(muxer.WriteVideoFrame(frame, 1, 0, 0) == MP4_STATUS_FILE_NOT_OPEN, "status") &&
           Check(g_logLines > before, "the library logged elsewhere");
}

bool RepairAnswers(const std::string& path) {
    const kx_mp4::RepairReport report = kx_mp4::Repair(path);
    return Check(report.outcome == kx_mp4::RepairOutcome::kFailed && !report.reason.empty(),
                 "a recording without repair info was repaired");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const std::string path = argv[1];
    const bool right = Check(std::string(kx_mp4_version()) == argv[2], "version") && Record(path) &&
                       LooksLikeAMovie(path) && LogsInTheApplication() && RepairAnswers(path);
    if (right) std::printf("recorder: %s recorded with kx_mp4 %s\n", path.c_str(), argv[2]);
    return right ? 0 : 1;
}
