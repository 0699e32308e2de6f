// The smallest complete recording: one H.264 track and one AAC track into one file.
//
// What it shows: a muxer is created on a path, the tracks are described once, every frame is one
// call with its timestamp in the track's own ticks, and Close is what makes the file playable.
// Every call answers with a status; an application has to look at it.
#include <kx_mp4/Mp4Muxer.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// Two pictures as an encoder gives them: 64 x 64, grey, a key frame each with its parameter sets.
// (Key frames in a row have to tell themselves apart, so there are two.)
constexpr uint8_t kPictures[2][43] = {
    {0,    0,    0,    1,    0x67, 0x42, 0xC0, 0x0A, 0xDA, 0x10, 0x99, 0,    0,    0,    1,
     0x68, 0xCE, 0x3C, 0x80, 0,    0,    0,    1,    0x65, 0x88, 0x84, 0xA2, 0x72, 0x72, 0x72,
     0x72, 0x72, 0x72, 0x72, 0x72, 0x72, 0x72, 0x72, 0x72, 0x72, 0x72, 0x72, 0x78},
    {0,    0,    0,    1,    0x67, 0x42, 0xC0, 0x0A, 0xDA, 0x10, 0x99, 0,    0,    0,    1,
     0x68, 0xCE, 0x3C, 0x80, 0,    0,    0,    1,    0x65, 0x88, 0x82, 0x28, 0x9C, 0x9C, 0x9C,
     0x9C, 0x9C, 0x9C, 0x9C, 0x9C, 0x9C, 0x9C, 0x9C, 0x9C, 0x9C, 0x9C, 0x9C, 0x9E}};
constexpr uint8_t kSilence[] = {0x00, 0x00, 0x00, 0x07};  // 1024 samples of AAC, mono

void Check(mp4_status_t status, const char* operation) {
    if (status == MP4_STATUS_SUCCESS) return;
    std::fprintf(stderr, "%s: %s\n", operation, mp4_status_string(status));
    std::exit(EXIT_FAILURE);
}

// The muxer takes wide characters, and gives the system the bytes that the locale makes of them.
std::wstring Wide(const char* path) {
    std::wstring wide(std::string(path).size() + 1, L'\0');
    const size_t length = std::mbstowcs(&wide[0], path, wide.size());
    if (length == static_cast<size_t>(-1)) Check(MP4_STATUS_INVALID_PARAMETER, path);
    wide.resize(length);
    return wide;
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    const char* const path = argc > 1 ? argv[1] : "recording.mp4";

    // A path that contains "mov" gives a QuickTime movie, any other an MP4 file.
    CMp4Muxer muxer;
    mp4_config_t config{};
    config.io_mode = MP4_IO_FILE;
    Check(muxer.Create(Wide(path).c_str(), &config), "Create");

    // The parameter sets are part of the stream here, so the muxer may find them there. An encoder
    // that hands them out separately gives them in `h264`.
    mp4_video_track_info_t video{};
    video.timescale = 90000;  // ticks per second of the video timestamps
    video.frame_duration = 3600;
    video.codec = MP4_MVC_H264;
    video.width = 64;
    video.height = 64;
    Check(muxer.SetVideoTrack(&video), "SetVideoTrack");

    mp4_audio_track_info_t audio{};
    audio.timescale = 48000;
    audio.frame_duration = 1024;
    audio.codec = MP4_MAC_AAC;
    audio.sample_rate = 48000;
    audio.channels = 1;
    audio.profile = 2;  // AAC LC
    Check(muxer.SetAudioTrack(&audio), "SetAudioTrack");

    Check(muxer.SetMetadata("title", "Grey", 0, MP4_META_DATA_TYPE_STRING, nullptr), "SetMetadata");

    // Two seconds. Frames of the tracks are written as they come, roughly in order of time.
    uint64_t audioTime = 0;
    for (uint64_t picture = 0; picture < 50; ++picture) {
        const auto& frame = kPictures[picture % 2];
        const uint64_t time = picture * video.frame_duration;
        Check(muxer.WriteVideoFrame(frame, sizeof frame, time, time), "WriteVideoFrame");
        for (; audioTime * video.timescale <= time * audio.timescale;
             audioTime += audio.frame_duration) {
            Check(muxer.WriteAudioFrame(kSilence, sizeof kSilence, audioTime), "WriteAudioFrame");
        }
    }

    // Appends the index. Without it the file holds frames that no player can find.
    Check(muxer.Close(), "Close");
    std::printf("%s: %lld bytes\n", path, static_cast<long long>(muxer.GetCurFileSize()));
    return EXIT_SUCCESS;
}
