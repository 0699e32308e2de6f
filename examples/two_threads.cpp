// Video and audio from different threads, while a third shows the duration.
//
// What it shows: the frame writers, Close and GetDurationMS may run at the same time; the muxer
// lets one at a time through and stores whole frames. Everything else (Create, the declarations of
// tracks, Flush, the other queries) belongs to one thread before the writers start or after they
// have ended. The repair info file is on: it lies beside the output until Close has succeeded, and
// from it a recording that was cut off can be repaired.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "kx_mp4/Mp4Muxer.h"
#include "test_pattern.h"

namespace {

constexpr uint32_t kSeconds = 2;
constexpr auto kVideoPace = std::chrono::milliseconds(2);  // a capture device sets its own
constexpr auto kAudioPace = std::chrono::milliseconds(1);

/// Each thread keeps its own first failure; a failed muxer answers every later call the same way.
mp4_status_t WriteVideo(CMp4Muxer& muxer) {
    for (uint32_t picture = 0; picture < kSeconds * 30; ++picture) {
        const auto frame = test_pattern::Picture(picture);
        const uint64_t time = uint64_t{picture} * 3000;
        const mp4_status_t status =
            muxer.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()), time, time);
        if (status != MP4_STATUS_SUCCESS) return status;
        std::this_thread::sleep_for(kVideoPace);
    }
    return MP4_STATUS_SUCCESS;
}

mp4_status_t WriteAudio(CMp4Muxer& muxer) {
    for (uint64_t time = 0; time < kSeconds * 48000; time += 1024) {
        // Behind its ADTS header, as many encoders give it; the header does not reach the file.
        const auto frame = test_pattern::AdtsSilence();
        const mp4_status_t status =
            muxer.WriteAudioFrame(frame.data(), static_cast<uint32_t>(frame.size()), time);
        if (status != MP4_STATUS_SUCCESS) return status;
        std::this_thread::sleep_for(kAudioPace);
    }
    return MP4_STATUS_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string path = argc > 1 ? argv[1] : "two_threads.mp4";
    CMp4Muxer muxer;
    mp4_config_t config{};
    config.io_mode = MP4_IO_FILE;
    config.flags = MP4_FLAG_REPAIR_INFO;
    mp4_status_t status = muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config);
    if (status != MP4_STATUS_SUCCESS) {
        std::fprintf(stderr, "Create failed with status %d\n", status);
        return EXIT_FAILURE;
    }

    mp4_video_track_info_t video{};
    video.timescale = 90000;
    video.frame_duration = 3000;
    video.codec = MP4_MVC_H264;
    video.width = test_pattern::kWidth;
    video.height = test_pattern::kHeight;
    mp4_audio_track_info_t audio{};
    audio.timescale = 48000;
    audio.frame_duration = 1024;
    audio.codec = MP4_MAC_ADTS;  // sample rate, channels and profile come from the first header
    const mp4_status_t videoSet = muxer.SetVideoTrack(&video);
    const mp4_status_t audioSet = muxer.SetAudioTrack(&audio);

    mp4_status_t videoStatus = videoSet;
    mp4_status_t audioStatus = audioSet;
    std::atomic<bool> recording{true};
    std::thread videoThread([&] {
        if (videoSet == MP4_STATUS_SUCCESS) videoStatus = WriteVideo(muxer);
    });
    std::thread audioThread([&] {
        if (audioSet == MP4_STATUS_SUCCESS) audioStatus = WriteAudio(muxer);
    });
    std::thread display([&] {
        while (recording) {
            std::printf("\r%5.1f s", static_cast<double>(muxer.GetDurationMS()) / 1000);
            std::fflush(stdout);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        std::printf("\n");
    });
    videoThread.join();
    audioThread.join();
    recording = false;
    display.join();

    status = muxer.Close();  // also after a failure: it saves what can be saved
    if (videoStatus == MP4_STATUS_SUCCESS && audioStatus == MP4_STATUS_SUCCESS &&
        status == MP4_STATUS_SUCCESS)
        return EXIT_SUCCESS;
    std::fprintf(stderr, "video %d, audio %d, Close %d\n", videoStatus, audioStatus, status);
    return EXIT_FAILURE;
}
