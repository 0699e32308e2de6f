/// How long a frame call takes: CMp4Muxer and CMp4Recorder side by side, on a device that works and
/// on one that stalls. Prints Markdown. Frames come at their pace, 6 Mbit/s of video and sound from
/// a thread of its own, so a run lasts as long as it records.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "PosixStorage.h"
#include "RecorderState.h"
#include "kx_mp4/Mp4Muxer.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

constexpr auto kVideoPace = nanoseconds(33333333);
constexpr auto kAudioPace = nanoseconds(21333333);
constexpr size_t kPictureBytes = 6000000 / 8 / 30;
constexpr size_t kSoundBytes = 340;
constexpr auto kBeforeStall = std::chrono::seconds(2);

/// One write that takes long, two seconds after the first one.
class Stall {
public:
    explicit Stall(std::chrono::milliseconds length = {}) : m_length(length) {}

    /// Called before a write.
    void Take() {
        const auto now = Clock::now();
        if (m_begin == Clock::time_point()) m_begin = now;
        if (m_length.count() == 0 || m_done || now - m_begin < kBeforeStall) return;
        m_done = true;
        std::this_thread::sleep_for(m_length);
    }

private:
    std::chrono::milliseconds m_length;
    Clock::time_point m_begin;
    bool m_done = false;
};

/// Files whose writes stall.
class StallingStorage final : public kx_mp4::IStorage {
public:
    explicit StallingStorage(Stall stall) : m_stall(stall) {}
    std::unique_ptr<kx_mp4::IStorageFile> Create(const std::string& path, int& error) override {
        auto file = m_files.Create(path, error);
        if (file == nullptr) return nullptr;
        return std::make_unique<File>(*this, std::move(file));
    }
    bool Exists(const std::string& path) override { return m_files.Exists(path); }
    int Push(const std::string& path) override { return m_files.Push(path); }
    int PushFolder(const std::string& path) override { return m_files.PushFolder(path); }
    int Remove(const std::string& path) override { return m_files.Remove(path); }

private:
    class File final : public kx_mp4::IStorageFile {
    public:
        File(StallingStorage& storage, std::unique_ptr<kx_mp4::IStorageFile> file)
            : m_storage(storage), m_file(std::move(file)) {}
        int WriteAt(uint64_t position, const uint8_t* bytes, size_t size) override {
            m_storage.m_stall.Take();
            return m_file->WriteAt(position, bytes, size);
        }
        int Reserve(uint64_t from, uint64_t to) override { return m_file->Reserve(from, to); }
        int Trim(uint64_t size) override { return m_file->Trim(size); }
        int Push() override { return m_file->Push(); }

    private:
        StallingStorage& m_storage;
        std::unique_ptr<kx_mp4::IStorageFile> m_file;
    };

    kx_mp4::PosixStorage m_files;
    Stall m_stall;
};

/// A plain file behind the muxer's callbacks, whose writes stall.
class StallingCallbacks {
public:
    StallingCallbacks(const std::string& path, Stall stall)
        : m_file(std::fopen(path.c_str(), "wb")), m_stall(stall) {
        std::setvbuf(m_file, nullptr, _IONBF, 0);
    }
    ~StallingCallbacks() { std::fclose(m_file); }
    StallingCallbacks(const StallingCallbacks&) = delete;
    StallingCallbacks& operator=(const StallingCallbacks&) = delete;

    mp4_io_callbacks_t Callbacks() {
        mp4_io_callbacks_t callbacks{};
        callbacks.user = this;
        callbacks.tell = [](void* user) {
            return static_cast<int64_t>(std::ftell(Of(user).m_file));
        };
        callbacks.seek = [](void* user, int64_t offset, int whence) {
            return std::fseek(Of(user).m_file, static_cast<long>(offset), whence) == 0 ? 1 : 0;
        };
        callbacks.write = [](void* user, const void* bytes, uint32_t size) {
            Of(user).m_stall.Take();
            return std::fwrite(bytes, 1, size, Of(user).m_file) == size ? 1 : 0;
        };
        return callbacks;
    }

private:
    static StallingCallbacks& Of(void* user) { return *static_cast<StallingCallbacks*>(user); }

    std::FILE* m_file;
    Stall m_stall;
};

mp4_video_track_info_t VideoTrack() {
    static constexpr uint8_t kSps[] = {0x67, 0x42, 0xC0, 0x0A, 0xDA, 0x10, 0x99};
    static constexpr uint8_t kPps[] = {0x68, 0xCE, 0x3C, 0x80};
    mp4_video_track_info_t info{};
    info.timescale = 90000;
    info.codec = MP4_MVC_H264;
    info.width = 64;
    info.height = 64;
    info.h264 = {kSps, sizeof kSps, kPps, sizeof kPps};
    return info;
}

mp4_audio_track_info_t AudioTrack() {
    mp4_audio_track_info_t info{};
    info.timescale = 48000;
    info.codec = MP4_MAC_AAC;
    info.sample_rate = 48000;
    info.channels = 2;
    info.profile = 2;
    return info;
}

struct Calls {
    std::vector<double> microseconds;
    uint64_t refused = 0;
};

/// Writes frames at their pace for some time and notes how long each call takes.
template <class Write>
Calls Feed(nanoseconds pace, std::chrono::seconds time, Write write) {
    Calls calls;
    const auto count = static_cast<uint64_t>(nanoseconds(time) / pace);
    calls.microseconds.reserve(count);
    const auto begin = Clock::now();
    for (uint64_t number = 0; number < count; ++number) {
        std::this_thread::sleep_until(begin + pace * static_cast<int64_t>(number));
        const auto start = Clock::now();
        if (write(number) != MP4_STATUS_SUCCESS) ++calls.refused;
        calls.microseconds.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return calls;
}

template <class Target>
Calls FeedBoth(Target& target, std::chrono::seconds time) {
    std::vector<uint8_t> picture(kPictureBytes, 0xFF);
    std::copy_n("\0\0\0\1", 4, picture.begin());
    const std::vector<uint8_t> sound(kSoundBytes, 0x21);
    Calls audio;
    std::thread microphone([&] {
        audio = Feed(kAudioPace, time, [&](uint64_t number) {
            return target.WriteAudioFrame(sound.data(), kSoundBytes, number * 1024);
        });
    });
    Calls all = Feed(kVideoPace, time, [&](uint64_t number) {
        picture[4] = number % 30 == 0 ? 0x65 : 0x41;
        return target.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()),
                                      number * 3000, number * 3000);
    });
    microphone.join();
    all.microseconds.insert(all.microseconds.end(), audio.microseconds.begin(),
                            audio.microseconds.end());
    all.refused += audio.refused;
    return all;
}

void PrintRow(const std::string& name, Calls calls, uint64_t lost) {
    std::vector<double>& times = calls.microseconds;
    std::sort(times.begin(), times.end());
    const auto at = [&times](double part) {
        return times[static_cast<size_t>(part * static_cast<double>(times.size() - 1))];
    };
    std::printf("| %s | %zu | %.1f | %.1f | %.1f | %.1f | %llu |\n", name.c_str(), times.size(),
                at(0.5), at(0.99), at(0.999), times.back(),
                static_cast<unsigned long long>(calls.refused + lost));
    std::fflush(stdout);
}

void RunMuxer(const std::string& name, const std::string& path, Stall stall,
              std::chrono::seconds time) {
    StallingCallbacks output(path, stall);
    CMp4Muxer muxer;
    muxer.Create(path, MP4_CONTAINER_MP4, 0, output.Callbacks());
    const auto video = VideoTrack();
    const auto audio = AudioTrack();
    muxer.SetVideoTrack(&video);
    muxer.SetAudioTrack(&audio);
    const Calls calls = FeedBoth(muxer, time);
    muxer.Close();
    PrintRow(name, calls, 0);
}

void RunRecorder(const std::string& name, const std::string& path, Stall stall,
                 std::chrono::seconds time) {
    StallingStorage storage(stall);
    kx_mp4::RecorderState recorder(storage);
    kx_mp4::RecorderOptions options;
    options.pattern = path + "-%i.mp4";
    options.segment_ms = 5000;
    recorder.Start(options);
    const auto video = VideoTrack();
    const auto audio = AudioTrack();
    recorder.SetVideoTrack(&video);
    recorder.SetAudioTrack(&audio);
    const Calls calls = FeedBoth(recorder, time);
    recorder.Stop(0);
    const auto figures = recorder.Statistics();
    PrintRow(name, calls, calls.microseconds.size() - figures.frames_written - calls.refused);
}

/// The same frames as fast as they can be handed over.
void RunThroughput(const std::string& folder) {
    constexpr uint64_t kFrames = 40000;
    std::vector<uint8_t> picture(kPictureBytes, 0xFF);
    std::copy_n("\0\0\0\1", 4, picture.begin());
    const auto video = VideoTrack();
    const auto measure = [&](auto& target, const std::function<void()>& close) {
        target.SetVideoTrack(&video);
        const auto start = Clock::now();
        for (uint64_t number = 0; number < kFrames; ++number) {
            picture[4] = number % 30 == 0 ? 0x65 : 0x41;
            target.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()),
                                   number * 3000, number * 3000);
        }
        close();
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        return static_cast<double>(kFrames * kPictureBytes) / 1e6 / seconds;
    };
    CMp4Muxer muxer;
    const std::string path = folder + "/plain.mp4";
    muxer.Create(path, MP4_CONTAINER_MP4, mp4_config_t{});
    const double plain = measure(muxer, [&muxer] { muxer.Close(); });
    std::filesystem::remove(path);
    CMp4Recorder recorder;
    kx_mp4::RecorderOptions options;
    options.pattern = folder + "/queued.mp4";
    options.flags = 0;
    options.on_queue_full = kx_mp4::QueueFull::kWait;
    options.wait_ms = 60000;
    recorder.Start(options);
    const double queued = measure(recorder, [&recorder] { recorder.Stop(0); });
    std::filesystem::remove(folder + "/queued.mp4");
    std::printf("\n| writer | MB/s |\n|---|---|\n| CMp4Muxer | %.0f |\n| CMp4Recorder | %.0f |\n",
                plain, queued);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures how long frame calls take.");
    std::string folder = "/dev/shm";
    int64_t seconds = 60;
    int64_t stallMs = 7000;
    app.add_option("--directory", folder, "Where to write");
    app.add_option("--seconds", seconds, "Of each run");
    app.add_option("--stall", stallMs, "Milliseconds of one write in the runs that stall");
    CLI11_PARSE(app, argc, argv);
    const std::string scratch = folder + "/recorder_latency";
    std::filesystem::create_directories(scratch);
    const std::chrono::seconds time(seconds);
    const Stall stall{std::chrono::milliseconds(stallMs)};
    std::printf("| writer | calls | p50 us | p99 us | p99.9 us | worst us | lost |\n");
    std::printf("|---|---|---|---|---|---|---|\n");
    RunMuxer("CMp4Muxer", scratch + "/a.mp4", Stall(), time);
    RunRecorder("CMp4Recorder", scratch + "/b", Stall(), time);
    RunMuxer("CMp4Muxer, one write stalls", scratch + "/c.mp4", stall, time);
    RunRecorder("CMp4Recorder, one write stalls", scratch + "/d", stall, time);
    RunThroughput(scratch);
    std::filesystem::remove_all(scratch);
    return 0;
}
