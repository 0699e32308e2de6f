// The repair info file: when it is written, pushed and removed. What it holds shows in the
// recordings.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <fstream>

#include "InfoWriter.h"
#include "kx_mp4/Mp4Muxer.h"
#include "log_capture.h"
#include "movie_reader.h"
#include "scratch_folder.h"
#include "streams.h"
#include "system_calls.h"

namespace {

void WriteWhole(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

class InfoWriter : public ::testing::Test {
protected:
    InfoWriter() {
        EXPECT_EQ(m_writer.Create(m_folder.Wide("info").c_str(), 0), MP4_STATUS_SUCCESS);
    }
    ScratchFolder m_folder;
    LogCapture m_log;
    CInfoWriter m_writer;
};

TEST_F(InfoWriter, FlushesAtItsInterval) {
    const auto syncsDuring = [this](int frames) {
        const FaultInjection count(0, ENOSPC);
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
    EXPECT_EQ(ReadFile(m_folder.Path("info")), Bytes{});
    EXPECT_EQ(full.Create(m_folder.Wide("no/info").c_str(), 0), MP4_STATUS_NO_SUCH_FILE_OR_DIR);
}

// The file beside a whole recording

class RepairInfoFile : public ::testing::Test {
protected:
    std::string Info() const { return m_folder.Path("out.mp4.info"); }

    ScratchFolder m_folder;
    LogCapture m_log;
};

TEST_F(RepairInfoFile, EveryRecordIsOneWrite) {
    CMp4Muxer muxer;
    auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
    ASSERT_EQ(muxer.Create(m_folder.Wide("out.mp4").c_str(), &config), MP4_STATUS_SUCCESS);
    for (const auto& step : streams::Everything(12)) {
        const FaultInjection count(0, ENOSPC, FaultInjection::Of::kSideFile);
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
