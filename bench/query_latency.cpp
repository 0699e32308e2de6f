/// How long CMp4Muxer's queries take while another thread's write callback sleeps for two seconds.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

#include "kx_mp4/Mp4Muxer.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kSleep = std::chrono::seconds(2);
constexpr auto kAsk = std::chrono::milliseconds(1900);
constexpr int kRuns = 5;
constexpr int kPictures = 1000;
constexpr uint64_t kTicks = 3000;

/// An output that keeps nothing and sleeps in one write when it is told to.
struct SleepyOutput {
    int64_t position = 0;
    std::atomic<bool> sleepNext{false};
    std::atomic<bool> sleeps{false};

    int Write(uint32_t size) {
        position += size;
        if (!sleepNext.exchange(false)) return 1;
        sleeps = true;
        std::this_thread::sleep_for(kSleep);
        return 1;
    }
    mp4_io_callbacks_t Callbacks() {
        mp4_io_callbacks_t callbacks{};
        callbacks.user = this;
        callbacks.tell = [](void* user) { return Of(user).position; };
        callbacks.seek = [](void* user, int64_t offset, int) {
            Of(user).position = offset;
            return 1;
        };
        callbacks.flush = [](void*) { return 1; };
        callbacks.write = [](void* user, const void*, uint32_t size) {
            return Of(user).Write(size);
        };
        return callbacks;
    }
    static SleepyOutput& Of(void* user) { return *static_cast<SleepyOutput*>(user); }
};

class Recording {
public:
    Recording() {
        mp4_video_track_info_t video{};
        video.timescale = 90000;
        video.frame_duration = kTicks;
        video.codec = MP4_MVC_PRORES;
        video.width = video.height = 64;
        video.prores.format = MP4_PRORES_422;
        m_good = muxer.Create("queries.mp4", MP4_CONTAINER_MP4, 0, m_output.Callbacks()) ==
                     MP4_STATUS_SUCCESS &&
                 muxer.SetVideoTrack(&video) == MP4_STATUS_SUCCESS;
        for (int i = 0; i < kPictures; ++i)
            Write();
    }
    bool IsGood() const { return m_good; }
    /// A write that has begun to sleep.
    std::thread BeginSleep() {
        m_output.sleepNext = true;
        std::thread writer([this] { Write(); });
        while (m_good && !m_output.sleeps) {
        }
        return writer;
    }

    CMp4Muxer muxer;

private:
    void Write() {
        static constexpr std::array<uint8_t, 1000> kPicture = {0, 0, 3, 232, 'i', 'c', 'p', 'f'};
        if (muxer.WriteVideoFrame(kPicture.data(), kPicture.size(), m_time, m_time) !=
            MP4_STATUS_SUCCESS)
            m_good = false;
        m_time += kTicks;
    }

    SleepyOutput m_output;
    uint64_t m_time = 0;
    std::atomic<bool> m_good{true};
};

/// Microseconds of each query, sorted.
std::vector<double> Ask(CMp4Muxer& muxer) {
    mp4_statistics_t figures{};
    figures.struct_size = sizeof figures;
    const std::function<void()> queries[] = {
        [&] { muxer.GetDurationMS(); },     [&] { muxer.GetMoovSize(); },
        [&] { muxer.GetVideoBitrate(); },   [&] { muxer.GetStatistics(&figures); },
        [&] { muxer.GetCurFileSize(); },    [&] { muxer.IsOpen(); },
        [&] { muxer.IsRepairInfoActive(); }};
    std::vector<double> times;
    times.reserve(size_t{1} << 25);
    const auto end = Clock::now() + kAsk;
    while (true) {
        for (const auto& query : queries) {
            const auto before = Clock::now();
            query();
            const auto after = Clock::now();
            times.push_back(std::chrono::duration<double, std::micro>(after - before).count());
            if (after < end) continue;
            std::sort(times.begin(), times.end());
            return times;
        }
    }
}

}  // namespace

int main() {
    std::printf(
        "| queries | p50 us | p99 us | p99.99 us | worst us | of them over 10 us |\n"
        "|---|---|---|---|---|---|\n");
    for (int run = 0; run < kRuns; ++run) {
        Recording recording;
        std::thread writer = recording.BeginSleep();
        const std::vector<double> times = Ask(recording.muxer);
        writer.join();
        if (!recording.IsGood() || recording.muxer.Close() != MP4_STATUS_SUCCESS) return 1;
        const auto slow = times.end() - std::upper_bound(times.begin(), times.end(), 10.0);
        std::printf("| %zu | %.2f | %.2f | %.2f | %.1f | %td |\n", times.size(),
                    times[times.size() / 2], times[times.size() / 100 * 99],
                    times[times.size() / 10000 * 9999], times.back(), slow);
    }
}
