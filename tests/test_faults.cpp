// What a caller can do wrong, and every write, seek and sync failing once.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <map>
#include <optional>
#include <stdexcept>

#include "kx_mp4/Mp4Muxer.h"
#include "kx_mp4/buffered_io.h"
#include "log_capture.h"
#include "memory_output.h"
#include "movie_reader.h"
#include "scratch_folder.h"
#include "side_file.h"
#include "streams.h"
#include "system_calls.h"
#include "test_pattern.h"

namespace {

constexpr uint32_t kPictures = 4;

using streams::Recipe;
using Of = FaultInjection::Of;

const Recipe kRecipes[] = {{MP4_MVC_H264, false}, {MP4_MVC_H264, true},    {MP4_MVC_HEVC, false},
                           {MP4_MVC_HEVC, true},  {MP4_MVC_PRORES, false}, {MP4_MVC_PRORES, true}};

int64_t OpenDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class Faults : public ::testing::Test {
protected:
    ScratchFolder m_folder;
    LogCapture m_log;
};

TEST_F(Faults, EveryCallWithoutAFile) {
    CMp4Muxer muxer;
    for (const char* const state : {"before Create", "after Close", "after a refused Create"}) {
        for (const auto& call : streams::EveryCall())
            EXPECT_EQ(call.run(muxer), MP4_STATUS_FILE_NOT_OPEN) << call.name << " " << state;
        EXPECT_EQ(m_log.Count("error", "no open file, can't do flush", "Flush"), 1);
        EXPECT_EQ(m_log.Count("error", "file not open!"),
                  static_cast<int>(streams::EveryCall().size()) - 1)
            << state;
        EXPECT_EQ(muxer.WriteAudioFrame(nullptr, 0, 0), MP4_STATUS_SUCCESS) << "checked first";
        EXPECT_EQ(muxer.GetDurationMS(), 0U);
        EXPECT_EQ(muxer.GetMoovSize(), 0U);
        EXPECT_EQ(muxer.GetAudioBitrate(), -1.0);
        EXPECT_FALSE(muxer.IsOpen());
        EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
        EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
        auto config = streams::FileConfig(0);
        EXPECT_EQ(muxer.Create(m_folder.Wide("out.mp4").c_str(), &config), MP4_STATUS_SUCCESS);
        EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
        EXPECT_EQ(muxer.Create(nullptr, nullptr), MP4_STATUS_INVALID_PARAMETER);
        m_log.Clear();
    }
}

TEST_F(Faults, EveryCallTwiceAndInReverseOrder) {
    for (const bool reverse : {false, true}) {
        MemoryOutput output;
        auto config = streams::CallbackConfig(0, output.Functions());
        CMp4Muxer muxer;
        ASSERT_EQ(muxer.Create(L"out.mp4", &config), MP4_STATUS_SUCCESS);
        auto calls = streams::EveryCall();
        if (reverse) std::reverse(calls.begin(), calls.end());
        for (const auto& call : calls)
            for (int i = 0; i < 2; ++i)
                EXPECT_NE(call.run(muxer), MP4_STATUS_UNEXPECTED_ERROR) << call.name;
        EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
        const MovieReader movie = output.Movie();
        EXPECT_EQ(movie.File().ChildTypes(), "ftyp free mdat moov");
        for (const Track& track : movie.Tracks())
            for (const Sample& sample : track.samples)
                EXPECT_NO_THROW(movie.SampleBytes(sample));
    }
}

// No index is written, but everything that was handed over reaches the output.
TEST_F(Faults, ADestroyedMuxerReleasesItsOutput) {
    const int64_t before = OpenDescriptors();
    MemoryOutput memory;
    for (const auto& config :
         {streams::FileConfig(MP4_FLAG_REPAIR_INFO),
          streams::CallbackConfig(MP4_FLAG_REPAIR_INFO, memory.Functions()),
          streams::CallbackConfig(MP4_FLAG_REPAIR_INFO, kx_mp4_buffered_io(1U << 20))}) {
        {
            CMp4Muxer muxer;
            auto writable = config;
            WriteWholeFile(m_folder.Path("out.mp4.info"), Bytes(9000, 1));  // of another one
            ASSERT_EQ(muxer.Create(m_folder.Wide("out.mp4").c_str(), &writable),
                      MP4_STATUS_SUCCESS);
            ASSERT_EQ(streams::Run(muxer, streams::Everything(2)), MP4_STATUS_SUCCESS);
        }
        EXPECT_EQ(OpenDescriptors(), before);
        const Bytes output = config.func == memory.Functions() ? memory.Content()
                                                               : ReadFile(m_folder.Path("out.mp4"));
        const auto expected = streams::ExpectEverything(2);
        const auto frames = RecordedFrames(m_folder.Path("out.mp4.info"), output);
        EXPECT_EQ(frames.size(), expected.size());
        ExpectRecorded(frames, expected);
    }
    EXPECT_EQ(std::count(memory.calls.begin(), memory.calls.end(), "uninit"), 1);
}

/// Runs a whole recording whose output fails somewhere. Checks that the failure is reported once
/// as itself, and by every later call, and that everything is released. Returns whether the
/// recording came through without a failure.
bool FailsCleanly(const std::wstring& path, mp4_config_t config, mp4_status_t failure,
                  const std::string& where) {
    CMp4Muxer muxer;
    const mp4_status_t created = muxer.Create(path.c_str(), &config);
    if (created != MP4_STATUS_SUCCESS) {
        EXPECT_EQ(created, failure) << where;
        EXPECT_FALSE(muxer.IsOpen());
        return false;
    }
    bool failed = false;
    for (const auto& call : streams::Everything(kPictures)) {
        const mp4_status_t status = call.run(muxer);
        if (failed || status != MP4_STATUS_SUCCESS) {
            EXPECT_EQ(status, failure) << where << " " << call.name;
        }
        failed = failed || !muxer.IsOpen();
    }
    if (failed) {
        for (const auto& call : streams::EveryCall())
            EXPECT_EQ(call.run(muxer), failure) << where << " " << call.name;
        EXPECT_EQ(muxer.GetDurationMS(), 0U);
    }
    const mp4_status_t closed = muxer.Close();
    if (closed != MP4_STATUS_SUCCESS || failed) {
        EXPECT_EQ(closed, failure) << where;
    }
    EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS) << where;
    return !failed && closed == MP4_STATUS_SUCCESS;
}

// The error number that a callback leaves never reads as success, and how much of a frame is in the
// output of one that throws is unknown: no later frame may be indexed behind it.
TEST_F(Faults, EveryWriteCallbackFails) {
    constexpr int kThrows = 0;
    const std::pair<int, mp4_status_t> kFailures[] = {{ENOSPC, MP4_STATUS_NO_SPACE_LEFT},
                                                      {EIO, MP4_STATUS_UNEXPECTED_ERROR},
                                                      {1000, MP4_STATUS_UNEXPECTED_ERROR},
                                                      {kThrows, MP4_STATUS_UNEXPECTED_ERROR}};
    const auto expected = streams::ExpectEverything(kPictures);
    for (const auto& [code, status] : kFailures) {
        int failingWrite = 0;
        for (bool whole = false; !whole;) {
            MemoryOutput output;
            output.failingWrite = ++failingWrite;
            output.failureErrno = code;
            if (code == kThrows)
                output.onCall = [&output](std::string_view callback) {
                    if (callback == "write" && output.writes + 1 == output.failingWrite)
                        throw std::runtime_error("callback");
                    return true;
                };
            const std::string where = "write " + std::to_string(failingWrite);
            whole = FailsCleanly(m_folder.Wide("out.mp4"),
                                 streams::CallbackConfig(MP4_FLAG_REPAIR_INFO, output.Functions()),
                                 status, where);
            EXPECT_FALSE(output.open) << where << ": uninit was called";
            EXPECT_LE(output.writes, failingWrite) << where << ": nothing behind unknown bytes";
            EXPECT_EQ(std::filesystem::exists(m_folder.Path("out.mp4.info")), !whole) << where;
            if (whole) continue;
            // What was recorded before is there, and its records are: the repair finds it.
            ExpectRecorded(RecordedFrames(m_folder.Path("out.mp4.info"), output.Content()),
                           expected);
        }
        EXPECT_GT(failingWrite, 200);
        EXPECT_EQ(m_log.Count("error", "file not open!"), 0) << "the failure is told instead";
    }
}

TEST_F(Faults, EverySystemCallOfTheOutputFails) {
    const auto path = m_folder.Wide("out.mp4");
    const auto expected = streams::ExpectEverything(kPictures);
    auto* const buffered = kx_mp4_buffered_io(4096);
    for (const bool forGood : {false, true}) {
        for (const auto& config :
             {streams::FileConfig(0), streams::FileConfig(MP4_FLAG_REPAIR_INFO),
              streams::CallbackConfig(0, buffered)}) {
            const int64_t before = OpenDescriptors();
            int failingCall = 0;
            for (bool reached = true; reached;) {
                const FaultInjection fault(++failingCall, ENOSPC, Of::kOutput, forGood);
                const std::string where = "call " + std::to_string(failingCall);
                const mp4_status_t failure = config.func != nullptr && failingCall == 1
                                                 ? MP4_STATUS_INVALID_PARAMETER  // `init` refused
                                                 : MP4_STATUS_NO_SPACE_LEFT;
                const bool whole = FailsCleanly(path, config, failure, where);
                reached = fault.Hit();
                // The buffered output reports what it does when it is closed to nobody; all that
                // was written is with the system by then.
                EXPECT_TRUE(whole != reached || config.func != nullptr) << where;
            }
            EXPECT_GT(failingCall, config.func == nullptr ? 30 : 5);
            EXPECT_EQ(OpenDescriptors(), before);
            streams::ExpectHolds(MovieReader(ReadFile(m_folder.Path("out.mp4"))), expected);
        }
    }
}

TEST_F(Faults, AnInterruptedCallIsMadeAgain) {
    const auto path = m_folder.Wide("out.mp4");
    auto* const buffered = kx_mp4_buffered_io(4096);
    for (const auto& config : {streams::FileConfig(MP4_FLAG_REPAIR_INFO),
                               streams::CallbackConfig(MP4_FLAG_REPAIR_INFO, buffered)}) {
        int failingCall = 0;
        for (bool hit = true; hit;) {
            const FaultInjection fault(++failingCall, EINTR);
            ASSERT_EQ(streams::RecordEverything(path, config, kPictures), MP4_STATUS_SUCCESS)
                << failingCall;
            hit = fault.Hit();
        }
        EXPECT_GT(failingCall, 30);
    }
}

// Whatever fails in the side file, the movie holds everything, the call in which it failed says so
// once, and Flush says so from then on.
TEST_F(Faults, EverySystemCallOfTheSideFileFails) {
    for (const Recipe& recipe : kRecipes) {
        for (const bool forGood : {false, true}) {
            int failingCall = 0;
            int dead = 0;
            for (bool hit = true; hit;) {
                std::filesystem::remove(m_folder.Path("out.mp4.info"));
                const FaultInjection fault(++failingCall, ENOSPC, Of::kSideFile, forGood);
                const std::string where = Name(recipe) + ", call " + std::to_string(failingCall);
                MemoryOutput output;
                auto config = streams::CallbackConfig(MP4_FLAG_REPAIR_INFO, output.Functions());
                CMp4Muxer muxer;
                const mp4_status_t created =
                    muxer.Create(m_folder.Wide("out.mp4").c_str(), &config);
                EXPECT_EQ(muxer.IsRepairInfoActive(), created == MP4_STATUS_SUCCESS);
                if (created != MP4_STATUS_SUCCESS) {
                    EXPECT_EQ(created, MP4_STATUS_NO_SPACE_LEFT) << where;
                    EXPECT_FALSE(output.open);
                    continue;
                }
                int failures = 0;
                for (const auto& step : streams::Everything(kPictures, recipe)) {
                    const mp4_status_t status = step.run(muxer);
                    if (status == MP4_STATUS_SUCCESS) continue;
                    EXPECT_EQ(status, MP4_STATUS_NO_SPACE_LEFT) << where << " " << step.name;
                    ++failures;
                }
                EXPECT_LE(failures, 1) << where;
                EXPECT_EQ(muxer.IsRepairInfoActive(), failures == 0) << where;
                const bool flushed = muxer.Flush() == MP4_STATUS_SUCCESS;
                EXPECT_EQ(muxer.IsRepairInfoActive(), flushed) << where;
                dead += failures;
                EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS) << where;
                hit = fault.Hit();
                streams::ExpectHolds(output.Movie(), streams::ExpectEverything(kPictures, recipe));
            }
            // Head, push, seven descriptions and items, eleven samples.
            EXPECT_GE(dead, 20) << Name(recipe);
        }
    }
}

/// The samples of each track, in order: what the movie holds or, without an index, what the side
/// file accounts for.
std::map<std::string, std::vector<Bytes>> Recorded(const std::string& path, bool finished) {
    std::map<std::string, std::vector<Bytes>> samples;
    const Bytes file = ReadFile(path);
    if (!finished) {
        for (RecordedFrame& frame : RecordedFrames(path + ".info", file))
            samples[frame.handler].push_back(std::move(frame.bytes));
        return samples;
    }
    const MovieReader movie(file);
    for (const Track& track : movie.Tracks())
        for (const Sample& sample : track.samples)
            samples[track.handler].push_back(movie.SampleBytes(sample));
    return samples;
}

/// Whether every sample whose call was acknowledged is there; others may be there too.
void ExpectAcknowledged(const std::map<std::string, std::vector<Bytes>>& recorded,
                        const std::vector<streams::Expected>& acknowledged,
                        const std::string& where) {
    std::map<std::string, size_t> next;
    for (const streams::Expected& sample : acknowledged) {
        const auto track = recorded.find(sample.handler);
        ASSERT_NE(track, recorded.end()) << where << " " << sample.handler;
        size_t& index = next[sample.handler];
        // Pictures that come while the parameter sets are looked for are dropped, as they may be.
        if (sample.handler == "vide" && index == 0 && track->second[0] != sample.bytes) continue;
        while (index < track->second.size() && track->second[index] != sample.bytes)
            ++index;
        ASSERT_LT(index++, track->second.size()) << where << " " << sample.handler;
    }
}

// At every allocation in turn, once and for good, from the beginning and while the index grows:
// what was acknowledged is in the index or, when the index is lost, in the side file.
TEST_F(Faults, MemoryIsRefused) {
    const struct {
        Recipe recipe;
        uint32_t pictures;
        size_t untouched;  // steps before memory is refused
    } kCases[] = {{kRecipes[1], 40, 0}, {kRecipes[3], 40, 0}, {kRecipes[0], 265, 580}};
    for (const auto& row : kCases) {
        for (const bool forGood : {false, true}) {
            const auto steps = streams::Everything(row.pictures, row.recipe);
            int failingCall = 0;
            for (bool hit = true; hit;) {
                std::vector<streams::Expected> acknowledged;
                const std::string where = Name(row.recipe) + ", " + std::to_string(++failingCall);
                mp4_status_t closed = MP4_STATUS_SUCCESS;
                bool created = false;
                {
                    CMp4Muxer muxer;
                    auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
                    std::optional<FaultInjection> fault;
                    const auto refuse = [&] {
                        fault.emplace(failingCall, ENOMEM, Of::kMemory, forGood);
                    };
                    const std::wstring path = m_folder.Wide("out.mp4");
                    if (row.untouched == 0) refuse();
                    created = muxer.Create(path.c_str(), &config) == MP4_STATUS_SUCCESS;
                    for (size_t i = 0; i < steps.size(); ++i) {
                        if (i != 0 && i == row.untouched) refuse();
                        const mp4_status_t status = steps[i].run(muxer);
                        const FaultPause ours;
                        if (status == MP4_STATUS_SUCCESS && steps[i].sample)
                            acknowledged.push_back(*steps[i].sample);
                    }
                    closed = muxer.Close();
                    hit = fault->Hit();
                }
                if (!created) {
                    EXPECT_TRUE(acknowledged.empty()) << where;
                    continue;
                }
                const bool finished = closed == MP4_STATUS_SUCCESS;
                EXPECT_TRUE(finished || closed == MP4_STATUS_UNEXPECTED_ERROR) << where;
                ExpectAcknowledged(Recorded(m_folder.Path("out.mp4"), finished), acknowledged,
                                   where);
            }
            EXPECT_GT(failingCall, 20 - static_cast<int>(row.untouched) / 50);
        }
    }
}

TEST_F(Faults, ShortWritesAreCompleted) {
    const auto path = m_folder.Wide("out.mp4");
    Bytes whole;
    int failingCall = 0;
    for (bool hit = true; hit; ++failingCall) {  // no call is the 0th
        const FaultInjection fault(failingCall, FaultInjection::kShortWrite);
        const auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
        ASSERT_EQ(streams::RecordEverything(path, config, kPictures), MP4_STATUS_SUCCESS);
        hit = failingCall == 0 || fault.Hit();
        if (failingCall == 0) whole = ReadFile(m_folder.Path("out.mp4"));
        ASSERT_EQ(ReadFile(m_folder.Path("out.mp4")), whole) << failingCall;
    }
    EXPECT_GT(failingCall, 40);
}

// `tell` or `uninit` may throw as well: the output is released, once.
TEST_F(Faults, UninitFollowsEveryInitOnce) {
    for (const bool tellThrows : {false, true}) {
        for (const bool close : {false, true}) {
            MemoryOutput output;
            {
                CMp4Muxer muxer;
                auto config = streams::CallbackConfig(0, output.Functions());
                ASSERT_EQ(muxer.Create(L"out.mp4", &config), MP4_STATUS_SUCCESS);
                output.onCall = [&](std::string_view callback) {
                    if (callback == "uninit" || (callback == "tell" && tellThrows))
                        throw std::runtime_error("callback");
                    return true;
                };
                if (close) {
                    EXPECT_EQ(muxer.Close(), MP4_STATUS_UNEXPECTED_ERROR);
                }
            }
            EXPECT_EQ(std::count(output.calls.begin(), output.calls.end(), "uninit"), 1)
                << tellThrows << close;
        }
    }
}

TEST_F(Faults, ACallbackMayRecordIntoAnotherMuxer) {
    MemoryOutput inside;
    CMp4Muxer inner;
    auto config = streams::CallbackConfig(0, inside.Functions());
    ASSERT_EQ(inner.Create(L"inside.mp4", &config), MP4_STATUS_SUCCESS);
    const auto steps = streams::Everything(500);
    size_t ran = 0;
    MemoryOutput outside;
    outside.onCall = [&](std::string_view) {
        return steps[ran++].run(inner) == MP4_STATUS_SUCCESS;
    };
    auto around = streams::CallbackConfig(0, outside.Functions());
    EXPECT_EQ(streams::RecordEverything(L"outside.mp4", around, kPictures), MP4_STATUS_SUCCESS);
    streams::ExpectHolds(outside.Movie(), streams::ExpectEverything(kPictures));
    EXPECT_EQ(inner.Close(), MP4_STATUS_SUCCESS);
    std::vector<streams::Expected> written;
    for (size_t i = 0; i < ran; ++i)
        if (steps[i].sample) written.push_back(*steps[i].sample);
    EXPECT_GT(written.size(), 200U);
    streams::ExpectHolds(inside.Movie(), written);
}

}  // namespace
