/// @file
/// Records with two threads until it is killed, and checks afterwards what is left. For
/// scripts/torture.sh.
///
///   torture_recorder record FILE PROGRESS SEED    writes frames; PROGRESS survives the kill
///   torture_recorder returned PROGRESS            prints how many frame calls had returned
///   torture_recorder check FILE PROGRESS SEED     compares FILE with what SEED had it write, and
///                                                 prints the numbers of pictures and audio frames

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

#include "kx_mp4/Mp4Muxer.h"
#include "movie_reader.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

constexpr uint32_t kPictureTicks = 3000;
constexpr uint32_t kAacTicks = 1024;
constexpr uint32_t kGroup = 15;

/// Calls that had returned, in memory that outlives the process.
struct Progress {
    std::atomic<uint32_t> pictures;
    std::atomic<uint32_t> audioFrames;
};

Progress& Map(const std::string& path) {
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0 || ftruncate(file, sizeof(Progress)) != 0)
        throw std::runtime_error("cannot open " + path);
    void* const memory =
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (memory == MAP_FAILED) throw std::runtime_error("cannot map " + path);
    return *static_cast<Progress*>(memory);
}

Bytes Noise(uint32_t seed, uint32_t smallest, uint32_t largest) {
    std::mt19937 random(seed);
    Bytes bytes(smallest + random() % (largest - smallest));
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(1 + random() % 255);
    return bytes;
}

/// The NAL units of a picture.
std::vector<Bytes> PictureUnits(uint32_t seed, uint32_t number) {
    const bool key = number % kGroup == 0;
    const Bytes slice = Bytes{static_cast<uint8_t>(key ? 0x65 : 0x41)} +
                        Noise(seed * 7919 + number, 200, key ? 9000 : 2500);
    if (!key) return {slice};
    return {test_pattern::kSps, test_pattern::kPps, slice};
}

Bytes AudioFrame(uint32_t seed, uint32_t number) {
    Bytes frame = Bytes{0x21} + Noise(seed * 104729 + number, 80, 400);
    frame.back() = static_cast<uint8_t>(frame.back() | 7);  // ID_END
    return frame;
}

void Require(bool condition, const std::string& what) {
    if (!condition) throw std::runtime_error(what);
}

void Require(mp4_status_t status, const char* call) {
    Require(status == MP4_STATUS_SUCCESS, std::string(call) + " says " + std::to_string(status));
}

void RecordPictures(CMp4Muxer& muxer, Progress& progress, uint32_t seed, uint32_t count) {
    const Bytes caption = Hex("6102 02 fc942c fd8080");
    Require(muxer.WriteTimeCode(107892), "WriteTimeCode");
    for (uint32_t i = 0; i < count; ++i) {
        const Bytes picture = streams::AccessUnit(PictureUnits(seed, i));
        const uint64_t time = uint64_t{i} * kPictureTicks;
        Require(muxer.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()), time,
                                      time),
                "WriteVideoFrame");
        progress.pictures = i + 1;
        if (i % 10 == 0)
            Require(muxer.WriteSubtitleFrame(caption.data(), static_cast<uint32_t>(caption.size()),
                                             uint64_t{i} * 33),
                    "WriteSubtitleFrame");
        std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
}

void RecordAudio(CMp4Muxer& muxer, Progress& progress, uint32_t seed, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        const Bytes frame = AudioFrame(seed, i);
        Require(muxer.WriteAudioFrame(frame.data(), static_cast<uint32_t>(frame.size()),
                                      uint64_t{i} * kAacTicks),
                "WriteAudioFrame");
        progress.audioFrames = i + 1;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

void Record(const std::string& path, Progress& progress, uint32_t seed) {
    // Every combination of the wide fields.
    mp4_config_t config = streams::FileConfig(MP4_FLAG_REPAIR_INFO | (seed % 4));
    CMp4Muxer muxer;
    Require(muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config), "Create");
    Require(streams::Run(muxer, streams::SetUpEverything()), "the set-up");
    const uint32_t pictures = 20 + seed % 200;
    std::thread audio([&] { RecordAudio(muxer, progress, seed, pictures * 3 / 2); });
    RecordPictures(muxer, progress, seed, pictures);
    audio.join();
    Require(muxer.Close(), "Close");
}

/// Every frame whose call had returned, at most one more, and nothing else.
void CheckCount(const char* what, size_t found, uint32_t returned) {
    Require(found == returned || found == returned + 1,
            std::string(what) + ": " + std::to_string(found) + " frames in the file, " +
                std::to_string(returned) + " calls had returned");
}

void CheckSample(const MovieReader& movie, const Sample& sample, const Bytes& bytes, int64_t time,
                 bool sync) {
    const std::string where = "sample at " + std::to_string(sample.offset);
    Require(movie.SampleBytes(sample) == bytes, where + ": other bytes");
    Require(sample.dts == time, where + ": other time");
    Require(sample.sync == sync, where + ": other sync mark");
}

void Check(const std::string& path, const Progress& progress, uint32_t seed) {
    const MovieReader movie(ReadFile(path));
    size_t pictures = 0;
    size_t audioFrames = 0;
    for (const Track& track : movie.Tracks()) {
        for (size_t i = 0; i < track.samples.size(); ++i) {
            const auto number = static_cast<uint32_t>(i);
            const Sample& sample = track.samples[i];
            if (track.handler == "vide") {
                CheckSample(movie, sample, streams::LengthPrefixed(PictureUnits(seed, number)),
                            int64_t{number} * kPictureTicks, number % kGroup == 0);
                ++pictures;
            } else if (track.handler == "soun") {
                CheckSample(movie, sample, AudioFrame(seed, number), int64_t{number} * kAacTicks,
                            true);
                ++audioFrames;
            }
        }
    }
    CheckCount("video", pictures, progress.pictures);
    CheckCount("audio", audioFrames, progress.audioFrames);
    std::printf("%zu %zu\n", pictures, audioFrames);
}

int Run(const std::vector<std::string>& arguments) {
    if (arguments.size() == 2 && arguments[0] == "returned") {
        const Progress& progress = Map(arguments[1]);
        std::printf("%u\n", progress.pictures + progress.audioFrames);
        return 0;
    }
    if (arguments.size() != 4) throw std::runtime_error("usage: see the head of this program");
    Progress& progress = Map(arguments[2]);
    const auto seed = static_cast<uint32_t>(std::stoul(arguments[3]));
    if (arguments[0] == "record")
        Record(arguments[1], progress, seed);
    else
        Check(arguments[1], progress, seed);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run({argv + 1, argv + argc});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "torture_recorder: %s\n", error.what());
        return 1;
    }
}
