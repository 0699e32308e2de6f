// What a caller can do wrong, and every write, seek and sync failing once.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <stdexcept>

#include "Mp4Muxer.h"
#include "fault_injection.h"
#include "log_capture.h"
#include "memory_output.h"
#include "movie_reader.h"
#include "repair_info_reader.h"
#include "scratch_folder.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

constexpr uint32_t kPictures = 4;

std::vector<streams::Step> Recording(uint32_t pictures) {
    auto calls = streams::SetUpEverything();
    for (auto& call : streams::WriteEverything(pictures))
        calls.push_back(std::move(call));
    return calls;
}

/// Every operation that answers with a status and needs a file, with arguments that are fine and
/// with null everything.
std::vector<streams::Step> EveryCall() {
    auto calls = Recording(1);
    using Muxer = CMp4Muxer;
    const std::pair<const char*, mp4_status_t (*)(Muxer&)> kOthers[] = {
        {"SetVideoTrack null", [](Muxer& m) { return m.SetVideoTrack(nullptr); }},
        {"SetAudioTrack null", [](Muxer& m) { return m.SetAudioTrack(nullptr); }},
        {"SetSubtitleTrack null", [](Muxer& m) { return m.SetSubtitleTrack(nullptr); }},
        {"SetTCMDTrack null", [](Muxer& m) { return m.SetTCMDTrack(nullptr); }},
        {"SetMetadata null",
         [](Muxer& m) {
             return m.SetMetadata(nullptr, nullptr, 0, MP4_META_DATA_TYPE_RAW, nullptr);
         }},
        {"WriteVideoFrame null", [](Muxer& m) { return m.WriteVideoFrame(nullptr, 0, 0, 0); }},
        {"WriteSubtitleFrame null", [](Muxer& m) { return m.WriteSubtitleFrame(nullptr, 0, 0); }},
        {"Flush", [](Muxer& m) { return m.Flush(); }}};
    for (const auto& [name, run] : kOthers)
        calls.push_back({name, run});
    return calls;
}

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
        for (const auto& call : EveryCall())
            EXPECT_EQ(call.run(muxer), MP4_STATUS_FILE_NOT_OPEN) << call.name << " " << state;
        EXPECT_EQ(m_log.Count("error", "no open file, can't do flush", "Flush"), 1);
        EXPECT_EQ(m_log.Count("error", "file not open!"), static_cast<int>(EveryCall().size()) - 1)
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
        auto calls = EveryCall();
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

TEST_F(Faults, ADestroyedMuxerLeavesNothingOpen) {
    const int64_t before = OpenDescriptors();
    {
        CMp4Muxer muxer;
        auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
        ASSERT_EQ(muxer.Create(m_folder.Wide("out.mp4").c_str(), &config), MP4_STATUS_SUCCESS);
        ASSERT_EQ(streams::Run(muxer, Recording(2)), MP4_STATUS_SUCCESS);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("out.mp4.info"))) << "for the repair";
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
    for (const auto& call : Recording(kPictures)) {
        const mp4_status_t status = call.run(muxer);
        if (failed || status != MP4_STATUS_SUCCESS) {
            EXPECT_EQ(status, failure) << where << " " << call.name;
        }
        failed = failed || !muxer.IsOpen();
    }
    if (failed) {
        for (const auto& call : EveryCall())
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

TEST_F(Faults, EveryWriteCallbackFails) {
    const std::pair<int, mp4_status_t> kFailures[] = {{ENOSPC, MP4_STATUS_NO_SPACE_LEFT},
                                                      {EIO, MP4_STATUS_UNEXPECTED_ERROR}};
    const auto expected = streams::ExpectEverything(kPictures);
    for (const auto& [code, status] : kFailures) {
        int failingWrite = 0;
        for (bool whole = false; !whole;) {
            MemoryOutput output;
            output.failingWrite = ++failingWrite;
            output.failureErrno = code;
            const std::string where = "write " + std::to_string(failingWrite);
            whole = FailsCleanly(m_folder.Wide("out.mp4"),
                                 streams::CallbackConfig(MP4_FLAG_REPAIR_INFO, output.Functions()),
                                 status, where);
            EXPECT_FALSE(output.open) << where << ": uninit was called";
            EXPECT_EQ(std::filesystem::exists(m_folder.Path("out.mp4.info")), !whole) << where;
            if (whole) continue;
            // What was recorded before is there, and its records are: the repair finds it.
            const RepairInfo info(ReadFile(m_folder.Path("out.mp4.info")));
            ExpectWalks(info, output.Content(), 8, expected);
        }
        EXPECT_GT(failingWrite, 200);
    }
}

TEST_F(Faults, EverySystemCallFails) {
    const std::pair<int, mp4_status_t> kFailures[] = {{ENOSPC, MP4_STATUS_NO_SPACE_LEFT},
                                                      {EINTR, MP4_STATUS_UNEXPECTED_ERROR}};
    for (const auto& [code, status] : kFailures) {
        const int64_t before = OpenDescriptors();
        int failingCall = 0;
        for (bool whole = false; !whole;) {
            const FaultInjection fault(++failingCall, code);
            whole = FailsCleanly(m_folder.Wide("out.mp4"), streams::FileConfig(0), status,
                                 "call " + std::to_string(failingCall));
            EXPECT_EQ(fault.Hit(), !whole) << failingCall;
        }
        EXPECT_GT(failingCall, 30);
        EXPECT_EQ(OpenDescriptors(), before);
        streams::ExpectHolds(MovieReader(ReadFile(m_folder.Path("out.mp4"))),
                             streams::ExpectEverything(kPictures));
    }
}

TEST_F(Faults, ShortWritesAreCompleted) {
    const auto path = m_folder.Wide("out.mp4");
    Bytes whole;
    bool hit = true;
    for (int failingCall = 0; hit; ++failingCall) {  // no call is the 0th
        const FaultInjection fault(failingCall, FaultInjection::kShortWrite);
        const auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
        ASSERT_EQ(streams::RecordEverything(path, config, kPictures), MP4_STATUS_SUCCESS);
        hit = fault.Hit();
        if (failingCall == 0) whole = ReadFile(m_folder.Path("out.mp4"));
        ASSERT_EQ(ReadFile(m_folder.Path("out.mp4")), whole) << failingCall;
    }
}

// How much of a frame is in the output is then unknown: no later frame may be indexed behind it.
TEST_F(Faults, CallbacksThatThrowEndTheRecording) {
    static int s_left = 0;
    static mp4_file_io_func_t s_functions;
    int limit = 0;
    for (bool whole = false; !whole; ++limit) {
        MemoryOutput output;
        s_functions = *output.Functions();
        s_left = limit;
        mp4_file_io_func_t functions = s_functions;
        functions.write = [](kx_mp4_handle handle, const void* bytes, uint32_t size) {
            if (s_left-- == 0) throw std::runtime_error("callback");
            return s_functions.write(handle, bytes, size);
        };
        auto config = streams::CallbackConfig(0, &functions);
        CMp4Muxer muxer;
        ASSERT_EQ(muxer.Create(L"out.mp4", &config), MP4_STATUS_SUCCESS);
        bool failed = false;
        for (const auto& call : Recording(kPictures)) {
            const mp4_status_t status = call.run(muxer);
            failed = failed || status != MP4_STATUS_SUCCESS;
            if (failed && call.name.find("Write") == 0) {
                EXPECT_EQ(status, MP4_STATUS_UNEXPECTED_ERROR) << limit << " " << call.name;
            }
        }
        const mp4_status_t closed = muxer.Close();
        whole = closed == MP4_STATUS_SUCCESS;
        EXPECT_TRUE(!failed || closed == MP4_STATUS_UNEXPECTED_ERROR) << limit;
        EXPECT_FALSE(output.open);
    }
    EXPECT_GT(limit, 200);
}

}  // namespace
