/// @file
/// Records with two threads until it is killed, and checks afterwards what is left. For
/// scripts/torture.sh.
///
///   torture_recorder record FILE PROGRESS SEED    writes frames; PROGRESS survives the kill
///   torture_recorder returned PROGRESS            prints how many frame calls had returned
///   torture_recorder check FILE PROGRESS SEED     compares FILE with what SEED had it write, and
///                                                 prints the numbers of pictures and audio frames
///   torture_recorder static FILE                  records in a destructor of static storage, after
///                                                 main: what the library keeps per thread, if
///                                                 anything, is gone by then

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "kx_mp4/Mp4Muxer.h"
#include "movie_reader.h"
#include "streams.h"

namespace {

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

/// What a number has the recorder write.
std::vector<streams::Step> Steps(uint32_t seed) {
    return streams::WriteEverything(20 + seed % 200, {MP4_MVC_H264, false, seed + 1});
}

void Require(bool condition, const std::string& what) {
    if (!condition) throw std::runtime_error(what);
}

void Require(mp4_status_t status, const char* call) {
    Require(status == MP4_STATUS_SUCCESS, std::string(call) + " says " + std::to_string(status));
}

struct StaticRecorder {
    CMp4Muxer muxer;

    ~StaticRecorder() {
        if (streams::Run(muxer, Steps(0)) == MP4_STATUS_SUCCESS &&
            muxer.Close() == MP4_STATUS_SUCCESS)
            return;
        std::_Exit(EXIT_FAILURE);
    }
};

void RecordAfterMain(const std::string& path) {
    static StaticRecorder recorder;
    Require(
        recorder.muxer.Create(path, MP4_CONTAINER_MP4, streams::FileConfig(MP4_FLAG_REPAIR_INFO)),
        "Create");
    Require(streams::Run(recorder.muxer, streams::SetUpEverything()), "the set-up");
}

void Record(const std::string& path, Progress& progress, uint32_t seed) {
    // Every combination of the wide fields.
    mp4_config_t config = streams::FileConfig(MP4_FLAG_REPAIR_INFO | (seed % 4));
    CMp4Muxer muxer;
    Require(muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config), "Create");
    Require(streams::Run(muxer, streams::SetUpEverything()), "the set-up");
    const auto steps = Steps(seed);
    // Sound from a thread of its own; counted are pictures and sound.
    const auto write = [&](bool sound, const std::string& counted, std::atomic<uint32_t>& returned,
                           int microseconds) {
        for (const streams::Step& step : steps) {
            if ((step.sample->handler == "soun") != sound) continue;
            Require(step.run(muxer), step.name.c_str());
            if (step.sample->handler != counted) continue;
            ++returned;
            std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
        }
    };
    std::thread audio([&] { write(true, "soun", progress.audioFrames, 200); });
    write(false, "vide", progress.pictures, 300);
    audio.join();
    Require(muxer.Close(), "Close");
}

/// Every frame whose call had returned, at most one more, and nothing else.
void CheckCount(const char* what, size_t found, uint32_t returned) {
    Require(found == returned || found == returned + 1,
            std::string(what) + ": " + std::to_string(found) + " frames in the file, " +
                std::to_string(returned) + " calls had returned");
}

void Check(const std::string& path, const Progress& progress, uint32_t seed) {
    const MovieReader movie(ReadFile(path));
    std::map<std::string, size_t> found;
    for (const Track& track : movie.Tracks())
        found[track.handler] = track.samples.size();
    CheckCount("video", found["vide"], progress.pictures);
    CheckCount("audio", found["soun"], progress.audioFrames);
    std::printf("%zu %zu\n", found["vide"], found["soun"]);
    std::vector<streams::Expected> written;
    for (const streams::Step& step : Steps(seed))
        if (found[step.sample->handler] != 0) {
            --found[step.sample->handler];
            written.push_back(*step.sample);
        }
    streams::ExpectHolds(movie, written);
    Require(!testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed(), "other samples");
}

int Run(const std::vector<std::string>& arguments) {
    if (arguments.size() == 2 && arguments[0] == "returned") {
        const Progress& progress = Map(arguments[1]);
        std::printf("%u\n", progress.pictures + progress.audioFrames);
        return 0;
    }
    if (arguments.size() == 2 && arguments[0] == "static") {
        RecordAfterMain(arguments[1]);
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
