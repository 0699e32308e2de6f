// Two endless sources, video and audio, each on a thread of its own, recorded into segments.
//
// What it shows: the calls return at once whatever the storage device does, a callback tells of
// every finished file, and the recording ends properly at Ctrl-C, or after the seconds given.
//
// usage: live_segments PATTERN [SECONDS], such as live_segments '/videos/%H%M%S.mp4'
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "kx_mp4/recorder.h"
#include "test_pattern.h"

namespace {

std::atomic<bool> g_ended{false};

/// Calls `write` with the number of each frame when its time comes, like a device that captures.
template <class Write>
void Capture(std::chrono::nanoseconds pace, Write write) {
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t number = 0; !g_ended; ++number) {
        std::this_thread::sleep_until(start + number * pace);
        // Busy says that this frame was dropped; the recorder goes on.
        if (write(number) == MP4_STATUS_NO_SPACE_LEFT) g_ended = true;
    }
}

void TellSegment(const kx_mp4::RecorderSegment& segment) {
    std::printf("%s: %s, %llu pictures, %llu bytes\n", segment.path.c_str(),
                mp4_status_string(segment.status),
                static_cast<unsigned long long>(segment.video.samples),
                static_cast<unsigned long long>(segment.bytes));
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGINT, [](int) { g_ended = true; });
    kx_mp4::RecorderOptions options;
    options.pattern = argc > 1 ? argv[1] : "live-%i.mp4";
    options.segment_ms = 1000;
    options.on_segment = TellSegment;
    CMp4Recorder recorder;
    if (recorder.Start(options) != MP4_STATUS_SUCCESS) return EXIT_FAILURE;

    mp4_video_track_info_t video{};
    video.timescale = 90000;
    video.codec = MP4_MVC_H264;
    video.width = test_pattern::kWidth;
    video.height = test_pattern::kHeight;
    mp4_audio_track_info_t audio{};
    audio.timescale = 48000;
    audio.codec = MP4_MAC_ADTS;
    if (recorder.SetVideoTrack(&video) != MP4_STATUS_SUCCESS ||
        recorder.SetAudioTrack(&audio) != MP4_STATUS_SUCCESS)
        return EXIT_FAILURE;

    std::thread camera([&recorder] {
        Capture(std::chrono::nanoseconds(33333333), [&recorder](uint32_t number) {
            const auto frame = test_pattern::Picture(number);
            const uint64_t time = uint64_t{number} * 3000;
            return recorder.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()), time,
                                            time);
        });
    });
    std::thread microphone([&recorder] {
        Capture(std::chrono::nanoseconds(21333333), [&recorder](uint32_t number) {
            const auto frame = test_pattern::AdtsSilence();
            return recorder.WriteAudioFrame(frame.data(), static_cast<uint32_t>(frame.size()),
                                            uint64_t{number} * 1024);
        });
    });
    const auto limit = std::chrono::seconds(argc > 2 ? std::atoi(argv[2]) : 86400);
    const auto start = std::chrono::steady_clock::now();
    while (!g_ended && std::chrono::steady_clock::now() - start < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    g_ended = true;
    camera.join();
    microphone.join();
    return recorder.Stop(10000).status == MP4_STATUS_SUCCESS ? EXIT_SUCCESS : EXIT_FAILURE;
}
