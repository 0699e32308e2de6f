// Records a second of video into OUTPUT and looks at the file: recorder OUTPUT VERSION
#include <kx_mp4/Mp4Muxer.h>
#include <kx_mp4/buffered_io.h>
#include <kx_mp4/repair.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "log.h"

namespace {

void Check(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "recorder: wrong: %s\n", what);
    std::exit(1);
}

void Done(mp4_status_t status) {
    Check(status == MP4_STATUS_SUCCESS, mp4_status_string(status));
}

void Record(const std::string& path) {
    static const uint8_t sps[] = {0x67, 0x42, 0xc0, 0x0a, 0xda, 0x79};
    static const uint8_t pps[] = {0x68, 0xce, 0x3c, 0x80};
    static const uint8_t frame[] = {0, 0, 0, 1, 0x65, 0x88, 0x84, 0x21, 0xa0};
    mp4_video_track_info track = {};
    track.timescale = 25;
    track.frame_duration = 1;
    track.codec = MP4_MVC_H264;
    track.width = track.height = 16;
    track.h264 = {sps, sizeof sps, pps, sizeof pps};
    mp4_config_t config = {};
    config.io_mode = MP4_IO_EXTERNAL;
    config.func = kx_mp4_buffered_io();
    CMp4Muxer muxer;
    const int before = g_logLines;
    Check(muxer.WriteVideoFrame(frame, sizeof frame, 0, 0) == MP4_STATUS_FILE_NOT_OPEN, "status");
    Check(g_logLines > before, "the library logged elsewhere");
    Done(muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config));
    Done(muxer.SetVideoTrack(&track));
    for (uint64_t time = 0; time < 25; ++time)
        Done(muxer.WriteVideoFrame(frame, sizeof frame, time, time));
    Check(muxer.GetDurationMS() == 1000, "duration");
    Done(muxer.Close());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    Check(std::string(kx_mp4_version()) == argv[2], "version");
    Record(argv[1]);
    std::ifstream file(argv[1], std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    Check(bytes.compare(4, 4, "ftyp") == 0, "no ftyp in front");
    Check(bytes.find("moov") != std::string::npos, "no index");
    const kx_mp4::RepairReport report = kx_mp4::Repair(argv[1]);
    Check(report.outcome == kx_mp4::RepairOutcome::kFailed && !report.reason.empty(),
          "a recording without repair info was repaired");
    std::printf("recorder: %s recorded with kx_mp4 %s\n", argv[1], argv[2]);
    return 0;
}
