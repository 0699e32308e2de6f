// The repair info file: its records, byte for byte, and what it holds when a recording dies.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <map>

#include "InfoWriter.h"
#include "Mp4Muxer.h"
#include "fault_injection.h"
#include "log_capture.h"
#include "memory_output.h"
#include "repair_info_reader.h"
#include "scratch_folder.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

class InfoWriter : public ::testing::Test {
protected:
    InfoWriter() {
        EXPECT_EQ(m_writer.Create(m_folder.Wide("info").c_str(), 0), MP4_STATUS_SUCCESS);
    }
    /// What has been written since the last time.
    Bytes Written() {
        const Bytes file = ReadFile(m_folder.Path("info"));
        const Bytes fresh(file.begin() + static_cast<int64_t>(m_seen), file.end());
        m_seen = file.size();
        return fresh;
    }

    ScratchFolder m_folder;
    LogCapture m_log;
    CInfoWriter m_writer;
    size_t m_seen = 0;
};

TEST_F(InfoWriter, FramesAndHeader) {
    EXPECT_TRUE(m_writer.IsOpen());
    EXPECT_EQ(m_writer.WriteFlag(0x12), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_writer.WriteMdatOffset(36), MP4_STATUS_SUCCESS);
    EXPECT_EQ(Written(), Hex("12 00000024"));
    EXPECT_EQ(m_writer.WriteVideoFrame(1000, 3000, 0, true), MP4_STATUS_SUCCESS);
    EXPECT_EQ(Written(), Hex("04 0000000000000bb8 0000000000000000 01 000003e8"));
    m_writer.WriteVideoFrame(5, -1, int64_t{1} << 40, false);
    EXPECT_EQ(Written(), Hex("04 ffffffffffffffff 0000010000000000 00 00000005"));
    m_writer.WriteAudioFrame(4, 1024);
    EXPECT_EQ(Written(), Hex("05 0000000000000400 00000004"));
    m_writer.WriteSubtitleFrame(20, 100);
    EXPECT_EQ(Written(), Hex("07 0000000000000064 00000014"));
    m_writer.WriteTimeCode(-2);
    EXPECT_EQ(Written(), Hex("09 fffffffe"));
    EXPECT_EQ(m_writer.Flush(), MP4_STATUS_SUCCESS);
    m_writer.Close();
    m_writer.Close();
    EXPECT_FALSE(m_writer.IsOpen());
}

TEST_F(InfoWriter, Formats) {
    const auto h264 = streams::H264Track();
    m_writer.WriteVideoFormat(&h264);
    EXPECT_EQ(Written(), Hex("02 00015f90 0000000000000bb8 00 0040 0040 00000007") +
                             test_pattern::kSps + Hex("00000004") + test_pattern::kPps);
    const auto hevc = streams::HevcTrack();
    m_writer.WriteVideoFormat(&hevc);
    EXPECT_EQ(Written(), Hex("02 00015f90 0000000000000bb8 01 0040 0040 00000018") +
                             streams::kHevcVps + Hex("00000029") + streams::kHevcSps +
                             Hex("00000007") + streams::kHevcPps);
    const auto prores = streams::ProResTrack(MP4_PRORES_4444_XQ);
    m_writer.WriteVideoFormat(&prores);
    EXPECT_EQ(Written(), Hex("02 00015f90 0000000000000bb8 02 0040 0040 05"));
    const auto audio = streams::AacTrack();
    m_writer.WriteAudioFormat(&audio);
    EXPECT_EQ(Written(), Hex("03 0000bb80 0000000000000400 01 bb80 0001 02"));
    const mp4_subtitle_track_info_t captions{MP4_SUBTITLE_CODEC_CC708, 0};
    m_writer.WriteSubtitleFormat(&captions);
    EXPECT_EQ(Written(), Hex("06 000003e8 02"));
    const mp4_time_code_track_info_t timecode{30000, 1001, 30, -2};
    m_writer.WriteTimeCodeFormat(&timecode);
    EXPECT_EQ(Written(), Hex("08 00007530 00000000000003e9 1e fffffffe"));
}

TEST_F(InfoWriter, Metadata) {
    m_writer.WriteMetadata("title", "abc", 0, MP4_META_DATA_TYPE_STRING, nullptr);
    EXPECT_EQ(Written(), Hex("01 01 00000006 7469746c6500 00000004 61626300 00000000"));
    m_writer.WriteMetadata("k", "\1\2\3", 3, MP4_META_DATA_TYPE_RAW, "ns");
    EXPECT_EQ(Written(), Hex("01 00 00000002 6b00 00000003 010203 00000003 6e7300"));
    m_writer.WriteMetadata("k", "\7\0\0\0", 4, MP4_META_DATA_TYPE_INT, nullptr);
    EXPECT_EQ(Written(), Hex("01 15 00000002 6b00 00000004 07000000 00000000"));
}

TEST_F(InfoWriter, FlushesAtItsInterval) {
    const auto syncsDuring = [this](int frames) {
        const FaultInjection count(0, FaultInjection::kNone);
        int plain = INT_MAX;  // calls of a frame without a sync
        for (int i = 0; i < frames; ++i) {
            const int before = count.Calls();
            m_writer.WriteVideoFrame(1, 0, 0, false);
            plain = std::min(plain, count.Calls() - before);
        }
        return count.Calls() - plain * frames;
    };
    EXPECT_EQ(syncsDuring(899), 0);
    EXPECT_EQ(syncsDuring(2), 1);
    EXPECT_EQ(syncsDuring(898), 0) << "to the 1799th";
    EXPECT_EQ(syncsDuring(2), 1);
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(m_writer.setFlushInterval(9));
    EXPECT_TRUE(m_writer.setFlushInterval(10));
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(syncsDuring(9), 1);
    for (int i = 0; i < 50; ++i)
        m_writer.WriteAudioFrame(4, 0);
    EXPECT_EQ(syncsDuring(8), 0) << "only video frames count";
}

TEST_F(InfoWriter, AFailureClosesTheFile) {
    CInfoWriter full;
    ASSERT_EQ(full.Create(L"/dev/full", 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(full.WriteFlag(1), MP4_STATUS_NO_SPACE_LEFT);
    EXPECT_FALSE(full.IsOpen());
    {
        const FaultInjection fault(1, EROFS);
        EXPECT_EQ(m_writer.Flush(), MP4_STATUS_READONLY_FILE_SYSTEM);
    }
    EXPECT_FALSE(m_writer.IsOpen());
    EXPECT_EQ(m_writer.WriteAudioFrame(1, 2), MP4_STATUS_SUCCESS) << "dropped";
    EXPECT_TRUE(Written().empty());
    EXPECT_EQ(full.Create(m_folder.Wide("no/info").c_str(), 0), MP4_STATUS_NO_SUCH_FILE_OR_DIR);
}

// The file beside a whole recording

const std::map<int, std::string> kHandlerOfFrame{
    {4, "vide"}, {5, "soun"}, {7, "clcp"}, {9, "tmcd"}};

/// Walks the records: every frame is where the one before it ended, and is what was written.
/// Returns how many frames there are; all of them must lie within the media data.
size_t ExpectWalks(const RepairInfo& info, const Bytes& output, uint32_t mdatHeader,
                   const std::vector<streams::Expected>& expected) {
    uint64_t at = uint64_t{info.mdatOffset} + mdatHeader;
    size_t frames = 0;
    for (const InfoRecord& record : info.records) {
        const auto handler = kHandlerOfFrame.find(record.type);
        if (handler == kHandlerOfFrame.end()) continue;
        if (frames == expected.size() || at + record.size > output.size()) {
            ADD_FAILURE() << "a frame too many, or past the end";
            return frames;
        }
        const auto begin = output.begin() + static_cast<int64_t>(at);
        EXPECT_EQ(handler->second, expected[frames].handler);
        EXPECT_EQ(Bytes(begin, begin + record.size), expected[frames].bytes) << frames;
        if (record.type != 9) {
            EXPECT_EQ(record.dts, expected[frames].time);
        }
        EXPECT_EQ(record.sync, expected[frames].sync);
        at += record.size;
        ++frames;
    }
    if (frames == expected.size()) {
        EXPECT_EQ(at, output.size()) << "every byte is accounted for";
    }
    return frames;
}

std::string TypesOf(const RepairInfo& info, size_t count) {
    std::string types;
    for (size_t i = 0; i < count && i < info.records.size(); ++i)
        types += std::to_string(info.records[i].type);
    return types;
}

class RepairInfoFile : public ::testing::Test {
protected:
    std::string Output() const { return m_folder.Path("out.mp4"); }
    std::string Info() const { return m_folder.Path("out.mp4.info"); }

    ScratchFolder m_folder;
    LogCapture m_log;
};

TEST_F(RepairInfoFile, AccountsForEveryByteOfTheMedia) {
    for (const uint32_t flags : {16U, 18U}) {
        CMp4Muxer muxer;
        auto config = streams::FileConfig(flags);
        ASSERT_EQ(muxer.Create(m_folder.Wide("out.mp4").c_str(), &config), MP4_STATUS_SUCCESS);
        EXPECT_EQ(ReadFile(Info()), Bytes{static_cast<uint8_t>(flags)});
        ASSERT_EQ(streams::Run(muxer, streams::SetUpEverything()), MP4_STATUS_SUCCESS);
        ASSERT_EQ(streams::Run(muxer, streams::WriteEverything(25)), MP4_STATUS_SUCCESS);
        const RepairInfo info(ReadFile(Info()));
        EXPECT_EQ(info.flags, flags);
        EXPECT_EQ(info.mdatOffset, 36U);
        EXPECT_EQ(info.cutOff, 0U);
        EXPECT_EQ(TypesOf(info, 15), "236811145974545");
        const auto expected = streams::ExpectEverything(25);
        EXPECT_EQ(ExpectWalks(info, ReadFile(Output()), flags == 16 ? 8 : 16, expected),
                  expected.size());
        ASSERT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
        EXPECT_FALSE(std::filesystem::exists(Info()));
    }
}

TEST_F(RepairInfoFile, IsWholeWhenTheProcessIsKilled) {
    constexpr int kPictures = 200;
    for (const int delay : {2000, 20000}) {
        int pipes[2];
        ASSERT_EQ(pipe(pipes), 0);
        const pid_t child = fork();
        if (child == 0) {
            CMp4Muxer muxer;
            auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
            muxer.Create(m_folder.Wide("out.mp4").c_str(), &config);
            streams::Run(muxer, streams::SetUpEverything());
            for (const auto& step : streams::WriteEverything(kPictures)) {
                if (step.run(muxer) != MP4_STATUS_SUCCESS) _exit(1);
                if (write(pipes[1], "f", 1) != 1) _exit(2);
            }
            pause();
        }
        char written[64] = {};
        ASSERT_EQ(read(pipes[0], written, 1), 1) << "the first frame is written";
        usleep(static_cast<useconds_t>(delay));
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status));
        close(pipes[1]);
        size_t returned = 1;
        for (ssize_t count = 0; (count = read(pipes[0], written, sizeof written)) > 0;)
            returned += static_cast<size_t>(count);
        close(pipes[0]);

        const RepairInfo info(ReadFile(Info()));
        const size_t found =
            ExpectWalks(info, ReadFile(Output()), 8, streams::ExpectEverything(kPictures));
        EXPECT_GE(found, returned) << "every frame whose call had returned";
        EXPECT_LE(found, returned + 1);
    }
}

TEST_F(RepairInfoFile, TellsOfConfigurationsFoundInTheStream) {
    CMp4Muxer muxer;
    auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
    ASSERT_EQ(muxer.Create(m_folder.Wide("out.mov").c_str(), &config), MP4_STATUS_SUCCESS);
    const auto video = streams::Deferred(streams::H264Track());
    const auto audio = streams::AdtsTrack();
    ASSERT_EQ(muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    ASSERT_EQ(muxer.SetAudioTrack(&audio), MP4_STATUS_SUCCESS);
    EXPECT_EQ(ReadFile(m_folder.Path("out.mov.info")), Hex("10")) << "nothing to record yet";
    const Bytes adts = test_pattern::AdtsSilence();
    const Bytes picture = test_pattern::Picture(0);
    ASSERT_EQ(muxer.WriteAudioFrame(adts.data(), 11, 0), MP4_STATUS_SUCCESS);
    ASSERT_EQ(muxer.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()), 0, 0),
              MP4_STATUS_SUCCESS);
    const RepairInfo info(ReadFile(m_folder.Path("out.mov.info")));
    EXPECT_EQ(info.mdatOffset, 20U);
    EXPECT_EQ(TypesOf(info, 9), "3524");
    EXPECT_EQ(info.records[0].body, Hex("0000bb80 0000000000000400 02 bb80 0001 02"));
    EXPECT_EQ(info.records[2].body.size(), 17U + 4 + 7 + 4 + 4);
    EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
}

TEST_F(RepairInfoFile, ItsFailureDoesNotEndTheRecording) {
    // Every write of the side file fails in turn; the output goes through callbacks, so that the
    // system calls that are counted are all the side file's.
    const auto steps = streams::SetUpEverything();
    const auto frames = streams::WriteEverything(6);
    int failingCall = 0;
    for (bool hit = true; hit;) {
        const FaultInjection fault(++failingCall, ENOSPC);
        MemoryOutput output;
        auto config = streams::CallbackConfig(MP4_FLAG_REPAIR_INFO, output.Functions());
        CMp4Muxer muxer;
        const auto path = m_folder.Wide("out.mp4");
        mp4_status_t status = muxer.Create(path.c_str(), &config);
        if (status != MP4_STATUS_SUCCESS) {
            EXPECT_EQ(status, MP4_STATUS_NO_SPACE_LEFT);
            EXPECT_FALSE(std::filesystem::exists(Info()));
            continue;
        }
        int failures = 0;
        for (const auto* const list : {&steps, &frames}) {
            for (const auto& step : *list) {
                status = step.run(muxer);
                if (status == MP4_STATUS_SUCCESS) continue;
                EXPECT_EQ(status, MP4_STATUS_NO_SPACE_LEFT) << step.name;
                ++failures;
            }
        }
        hit = fault.Hit();
        EXPECT_EQ(failures, hit ? 1 : 0) << failingCall;
        EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS) << failingCall;
        const MovieReader movie = output.Movie();
        EXPECT_EQ(movie.Tracks().size(), 4U) << failingCall;
        streams::ExpectHolds(movie, streams::ExpectEverything(6));
    }
    EXPECT_GT(failingCall, 100);
}

}  // namespace
