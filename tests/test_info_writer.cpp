// The repair info file: its records, byte for byte, and what it holds when a recording dies.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <fstream>

#include "InfoWriter.h"
#include "fault_injection.h"
#include "kx_mp4/Mp4Muxer.h"
#include "log_capture.h"
#include "repair_info_reader.h"
#include "scratch_folder.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

void WriteWhole(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

class InfoWriter : public ::testing::Test {
protected:
    InfoWriter() {
        EXPECT_EQ(m_writer.Create(m_folder.Wide("info").c_str(), 0), MP4_STATUS_SUCCESS);
    }
    /// What has been written since the last time.
    void ExpectWritten(const Bytes& bytes) {
        const Bytes file = ReadFile(m_folder.Path("info"));
        EXPECT_EQ(Bytes(file.begin() + static_cast<int64_t>(m_seen), file.end()), bytes);
        m_seen = file.size();
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
    ExpectWritten(Hex("12 00000024"));
    EXPECT_EQ(m_writer.WriteVideoFrame(1000, 3000, 0, true), MP4_STATUS_SUCCESS);
    ExpectWritten(Hex("04 0000000000000bb8 0000000000000000 01 000003e8"));
    m_writer.WriteVideoFrame(5, -1, int64_t{1} << 40, false);
    ExpectWritten(Hex("04 ffffffffffffffff 0000010000000000 00 00000005"));
    m_writer.WriteAudioFrame(4, 1024);
    ExpectWritten(Hex("05 0000000000000400 00000004"));
    m_writer.WriteSubtitleFrame(20, 100);
    ExpectWritten(Hex("07 0000000000000064 00000014"));
    m_writer.WriteTimeCode(-2);
    ExpectWritten(Hex("09 fffffffe"));
    EXPECT_EQ(m_writer.Flush(), MP4_STATUS_SUCCESS);
    m_writer.Close();
    m_writer.Close();
    EXPECT_FALSE(m_writer.IsOpen());
}

TEST_F(InfoWriter, Formats) {
    const auto h264 = streams::H264Track();
    m_writer.WriteVideoFormat(&h264);
    ExpectWritten(Hex("02 00015f90 0000000000000bb8 00 0040 0040 00000007") + test_pattern::kSps +
                  Hex("00000004") + test_pattern::kPps);
    const auto hevc = streams::HevcTrack();
    m_writer.WriteVideoFormat(&hevc);
    ExpectWritten(Hex("02 00015f90 0000000000000bb8 01 0040 0040 00000018") + streams::kHevcVps +
                  Hex("00000029") + streams::kHevcSps + Hex("00000007") + streams::kHevcPps);
    const auto prores = streams::ProResTrack(MP4_PRORES_4444_XQ);
    m_writer.WriteVideoFormat(&prores);
    ExpectWritten(Hex("02 00015f90 0000000000000bb8 02 0040 0040 05"));
    const auto audio = streams::AacTrack();
    m_writer.WriteAudioFormat(&audio);
    ExpectWritten(Hex("03 0000bb80 0000000000000400 01 bb80 0001 02"));
    const mp4_subtitle_track_info_t captions{MP4_SUBTITLE_CODEC_CC708, 0};
    m_writer.WriteSubtitleFormat(&captions);
    ExpectWritten(Hex("06 000003e8 02"));
    const mp4_time_code_track_info_t timecode{30000, 1001, 30, -2};
    m_writer.WriteTimeCodeFormat(&timecode);
    ExpectWritten(Hex("08 00007530 00000000000003e9 1e fffffffe"));
}

TEST_F(InfoWriter, Metadata) {
    m_writer.WriteMetadata("title", "abc", 0, MP4_META_DATA_TYPE_STRING, nullptr);
    ExpectWritten(Hex("01 01 00000006 7469746c6500 00000004 61626300 00000000"));
    m_writer.WriteMetadata("k", "\1\2\3", 3, MP4_META_DATA_TYPE_RAW, "ns");
    ExpectWritten(Hex("01 00 00000002 6b00 00000003 010203 00000003 6e7300"));
    const char four[4] = {'m', 'd', 't', 'a'};  // no zero ends it
    m_writer.WriteMetadata("k", "\1", 1, MP4_META_DATA_TYPE_RAW, four);
    ExpectWritten(Hex("01 00 00000002 6b00 00000001 01 00000005 6d64746100"));
    m_writer.WriteMetadata("k", "\7\0\0\0", 4, MP4_META_DATA_TYPE_INT, nullptr);
    ExpectWritten(Hex("01 15 00000002 6b00 00000004 07000000 00000000"));
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
    ExpectWritten({});
    EXPECT_EQ(full.Create(m_folder.Wide("no/info").c_str(), 0), MP4_STATUS_NO_SUCH_FILE_OR_DIR);
}

// The file beside a whole recording

class RepairInfoFile : public ::testing::Test {
protected:
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
        std::string types;
        for (const InfoRecord& record : info.records)
            types += std::to_string(record.type);
        EXPECT_EQ(types.substr(0, 15), "236811145974545");
        const auto expected = streams::ExpectEverything(25);
        const Bytes output = ReadFile(m_folder.Path("out.mp4"));
        const InfoWalk walk = ExpectWalks(info, output, flags == 16 ? 8 : 16, expected);
        EXPECT_EQ(walk.frames, expected.size());
        EXPECT_EQ(walk.end, output.size()) << "every byte is accounted for";
        ASSERT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
        EXPECT_FALSE(std::filesystem::exists(Info()));
    }
}

TEST_F(RepairInfoFile, EveryRecordIsOneWrite) {
    CMp4Muxer muxer;
    auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
    ASSERT_EQ(muxer.Create(m_folder.Wide("out.mp4").c_str(), &config), MP4_STATUS_SUCCESS);
    for (const auto& step : streams::Everything(12)) {
        const FaultInjection count(0, FaultInjection::kNone, FaultInjection::Of::kSideFile);
        ASSERT_EQ(step.run(muxer), MP4_STATUS_SUCCESS);
        const bool first = step.name == "SetVideoTrack";  // with it comes the head, and its push
        EXPECT_EQ(count.Calls(), first ? 3 : 1) << step.name;
    }
}

TEST_F(RepairInfoFile, StaysWhereItWasWhenFolderAndLocaleChange) {
    const auto before = std::filesystem::current_path();
    std::filesystem::create_directory(m_folder.Path("elsewhere"));
    WriteWhole(m_folder.Path("elsewhere/out.mp4.info"), "another recording's");
    std::filesystem::current_path(m_folder.Path(""));
    CMp4Muxer muxer;
    auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
    EXPECT_EQ(muxer.Create(L"out.mp4", &config), MP4_STATUS_SUCCESS);
    EXPECT_EQ(streams::Run(muxer, streams::Everything(2)), MP4_STATUS_SUCCESS);
    std::filesystem::current_path(m_folder.Path("elsewhere"));
    EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
    std::filesystem::current_path(before);
    EXPECT_FALSE(std::filesystem::exists(Info()));
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("elsewhere/out.mp4.info")));
}

/// What a refused Create must not touch: a recording that was cut off, and its side file.
TEST_F(RepairInfoFile, OfAnEarlierRecordingOutlivesARefusedCreate) {
    const std::string output = m_folder.Path("out.mp4");
    auto modes = std::vector<mp4_config_t>(4, streams::FileConfig(MP4_FLAG_REPAIR_INFO));
    modes[0].io_mode = MP4_IO_DIRECT;
    modes[1].io_mode = MP4_IO_SAFE_WRITE;
    modes[2].io_mode = MP4_IO_EXTERNAL;  // without callbacks
    std::filesystem::create_directory(output);
    for (mp4_config_t& config : modes) {  // the last cannot be opened: a folder is in its place
        WriteWhole(Info(), "records");
        CMp4Muxer muxer;
        EXPECT_NE(muxer.Create(m_folder.Wide("out.mp4").c_str(), &config), MP4_STATUS_SUCCESS);
        EXPECT_EQ(ReadFile(Info()).size(), 7U) << config.io_mode;
    }
    std::filesystem::remove(output);

    CMp4Muxer running;
    auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
    ASSERT_EQ(running.Create(m_folder.Wide("out.mp4").c_str(), &config), MP4_STATUS_SUCCESS);
    ASSERT_EQ(streams::Run(running, streams::Everything(2)), MP4_STATUS_SUCCESS);
    const Bytes media = ReadFile(output);
    CMp4Muxer second;
    EXPECT_EQ(second.Create(m_folder.Wide("out.mp4").c_str(), &config),
              MP4_STATUS_DEVICE_OR_RESOURCE_BUSY);
    EXPECT_EQ(ReadFile(output), media);
    EXPECT_TRUE(running.IsRepairInfoActive());
    EXPECT_EQ(running.Close(), MP4_STATUS_SUCCESS);
    EXPECT_FALSE(running.IsRepairInfoActive());
    EXPECT_EQ(second.Create(m_folder.Wide("out.mp4").c_str(), &config), MP4_STATUS_SUCCESS);
}

}  // namespace
