// The smallest complete recording: one H.264 track and one AAC track into one file.
//
// What it shows: a muxer is created on a path, the tracks are described once, every frame is one
// call with its timestamp in the track's own ticks, and Close is what makes the file playable.
// Every call answers with a status; an application has to look at it.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Mp4Muxer.h"
#include "test_pattern.h"

namespace {

void Check(mp4_status_t status, const char* operation) {
    if (status == MP4_STATUS_SUCCESS) return;
    std::fprintf(stderr, "%s failed with status %d\n", operation, status);
    std::exit(EXIT_FAILURE);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string path = argc > 1 ? argv[1] : "recording.mp4";

    // A path that contains "mov" gives a QuickTime movie, any other an MP4 file.
    CMp4Muxer muxer;
    mp4_config_t config{};
    config.io_mode = MP4_IO_FILE;
    Check(muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config), "Create");

    // The parameter sets are part of the stream here, so the muxer may find them there. An encoder
    // that hands them out separately gives them in `h264`.
    mp4_video_track_info_t video{};
    video.timescale = 90000;  // ticks per second of the video timestamps
    video.frame_duration = 3600;
    video.codec = MP4_MVC_H264;
    video.width = test_pattern::kWidth;
    video.height = test_pattern::kHeight;
    Check(muxer.SetVideoTrack(&video), "SetVideoTrack");

    mp4_audio_track_info_t audio{};
    audio.timescale = 48000;
    audio.frame_duration = 1024;
    audio.codec = MP4_MAC_AAC;
    audio.sample_rate = 48000;
    audio.channels = 1;
    audio.profile = 2;  // AAC LC
    Check(muxer.SetAudioTrack(&audio), "SetAudioTrack");

    Check(muxer.SetMetadata("title", "Test pattern", 0, MP4_META_DATA_TYPE_STRING, nullptr),
          "SetMetadata");

    // Two seconds. Frames of the tracks are written as they come, roughly in order of time.
    uint64_t audioTime = 0;
    for (uint32_t picture = 0; picture < 50; ++picture) {
        const auto frame = test_pattern::Picture(picture);  // Annex-B, as encoders give it
        const uint64_t time = uint64_t{picture} * video.frame_duration;
        Check(muxer.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()), time, time),
              "WriteVideoFrame");
        for (; audioTime * video.timescale <= time * audio.timescale;
             audioTime += audio.frame_duration) {
            const auto& silence = test_pattern::kSilence;
            Check(muxer.WriteAudioFrame(silence.data(), static_cast<uint32_t>(silence.size()),
                                        audioTime),
                  "WriteAudioFrame");
        }
    }

    // Appends the index. Without it the file holds frames that no player can find.
    Check(muxer.Close(), "Close");
    std::printf("%s: %lld bytes\n", path.c_str(), static_cast<long long>(muxer.GetCurFileSize()));
    return EXIT_SUCCESS;
}
