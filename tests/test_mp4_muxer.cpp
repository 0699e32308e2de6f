// The muxer as an application sees it: lifecycle, set-up, the frame paths, whole files.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "golden_text.h"
#include "kx_mp4/Mp4Muxer.h"
#include "log_capture.h"
#include "memory_output.h"
#include "movie_reader.h"
#include "scratch_folder.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

constexpr mp4_status_t kSuccess = MP4_STATUS_SUCCESS;
constexpr mp4_status_t kInvalid = MP4_STATUS_INVALID_PARAMETER;

class Muxer : public ::testing::Test {
protected:
    mp4_status_t Create(const std::string& name, uint32_t flags = 0) {
        auto config = streams::FileConfig(flags);
        return m_muxer.Create(m_folder.Wide(name).c_str(), &config);
    }
    mp4_status_t CreateIn(MemoryOutput& output, uint32_t flags = 0) {
        auto config = streams::CallbackConfig(flags, output.Functions());
        return m_muxer.Create(L"out.mp4", &config);
    }
    mp4_status_t Video(const Bytes& frame, uint64_t time) {
        return m_muxer.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()), time,
                                       time);
    }
    MovieReader Movie(const std::string& name) {
        return MovieReader(ReadFile(m_folder.Path(name)));
    }

    ScratchFolder m_folder;
    LogCapture m_log;
    MemoryOutput m_output;
    CMp4Muxer m_muxer;
};

// Create and Close

TEST_F(Muxer, CreateRefusesWhatItCannotOpen) {
    const std::string missing = m_folder.Path("missing/out");
    const std::string tooLong(2000, 'a');
    const struct {
        mp4_io_mode mode;
        std::string path;
        uint32_t flags;
        mp4_status_t status;
        std::string log;
    } kTable[] = {
        {MP4_IO_DIRECT, "out", 0, MP4_STATUS_UNSUPPORTED,
         "mac os platform do not support direct io yet"},
        {MP4_IO_SAFE_WRITE, "out", 0, MP4_STATUS_UNSUPPORTED,
         "mac os platform do not support safe write mode"},
        {streams::Forged<mp4_io_mode>(9), "out", 0, MP4_STATUS_UNSUPPORTED, ""},
        {MP4_IO_EXTERNAL, "out", 0, kInvalid,
         "error: pFunc should not be null when use external io mode"},
        {MP4_IO_FILE, missing, 0, MP4_STATUS_NO_SUCH_FILE_OR_DIR, "init CFileWriter writer failed"},
        {MP4_IO_FILE, missing, MP4_FLAG_REPAIR_INFO, MP4_STATUS_NO_SUCH_FILE_OR_DIR, ""},
        {MP4_IO_FILE, std::string(1023, 'a'), 0, MP4_STATUS_FILE_NAME_TOO_LONG, ""},
        {MP4_IO_FILE, std::string(1019, 'a'), MP4_FLAG_REPAIR_INFO, kInvalid, ""},
        {MP4_IO_FILE, tooLong, MP4_FLAG_REPAIR_INFO, kInvalid, ""},
    };
    for (const auto& row : kTable) {
        m_log.Clear();
        auto config = streams::FileConfig(row.flags);
        config.io_mode = row.mode;
        const std::wstring path(row.path.begin(), row.path.end());
        EXPECT_EQ(m_muxer.Create(path.c_str(), &config), row.status) << row.path << row.mode;
        EXPECT_TRUE(row.log.empty() || m_log.Count("error", row.log, "Create") == 1) << row.log;
        EXPECT_FALSE(m_muxer.IsOpen());
    }
    m_output.onCall = [](std::string_view callback) { return callback != "init"; };
    EXPECT_EQ(CreateIn(m_output), kInvalid);
    EXPECT_EQ(Create("out"), kSuccess) << "the object can still be used";
}

TEST_F(Muxer, ALongPathLeavesRoomForTheRepairInfo) {
    std::string path = m_folder.Path("");
    while (path.size() + 2 <= 1016)
        path += "./";
    path.resize(1016, '/');
    auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
    const std::wstring good(path.begin(), path.end());
    EXPECT_EQ(m_muxer.Create((good + L"f").c_str(), &config), kSuccess);
    EXPECT_EQ(m_muxer.Close(), kSuccess);
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("f.info")));
    EXPECT_EQ(m_muxer.Create((good + L"ff").c_str(), &config), MP4_STATUS_FILE_NAME_TOO_LONG);
}

TEST_F(Muxer, CreateOnAnOpenMuxerLeavesTheRecordingAlone) {
    ASSERT_EQ(Create("out.mp4", MP4_FLAG_REPAIR_INFO), kSuccess);
    ASSERT_EQ(streams::Run(m_muxer, streams::SetUpEverything()), kSuccess);
    EXPECT_EQ(Create("out.mp4", MP4_FLAG_REPAIR_INFO), MP4_STATUS_DEVICE_OR_RESOURCE_BUSY);
    EXPECT_EQ(Create("other.mov"), MP4_STATUS_DEVICE_OR_RESOURCE_BUSY);
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("other.mov")));
    ASSERT_EQ(streams::Run(m_muxer, streams::WriteEverything(4)), kSuccess);
    ASSERT_EQ(m_muxer.Close(), kSuccess);
    streams::ExpectHolds(Movie("out.mp4"), streams::ExpectEverything(4));
}

TEST_F(Muxer, ASecondCloseDoesNothing) {
    ASSERT_EQ(Create("out.mp4", MP4_FLAG_REPAIR_INFO), kSuccess);
    ASSERT_EQ(streams::Run(m_muxer, streams::SetUpEverything()), kSuccess);
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("out.mp4.info")));
    ASSERT_EQ(streams::Run(m_muxer, streams::WriteEverything(1)), kSuccess);
    EXPECT_EQ(m_muxer.Close(), kSuccess);
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("out.mp4.info")));
    const Bytes file = ReadFile(m_folder.Path("out.mp4"));
    EXPECT_EQ(m_muxer.GetCurFileSize(), static_cast<int64_t>(file.size()));

    // It must not remove what another recording has left in the meantime.
    std::ofstream(m_folder.Path("out.mp4.info")) << "another";
    EXPECT_EQ(m_muxer.Close(), kSuccess);
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("out.mp4.info")));
    EXPECT_EQ(ReadFile(m_folder.Path("out.mp4")), file);
}

TEST_F(Muxer, AFailedCloseLeavesTheSideFileAndForgetsItsPath) {
    m_output.failingWrite = 25;
    auto config = streams::CallbackConfig(MP4_FLAG_REPAIR_INFO, m_output.Functions());
    ASSERT_EQ(m_muxer.Create(m_folder.Wide("lost.mp4").c_str(), &config), kSuccess);
    EXPECT_EQ(streams::Run(m_muxer, streams::Everything(4)), MP4_STATUS_NO_SPACE_LEFT);
    EXPECT_EQ(m_muxer.Close(), MP4_STATUS_NO_SPACE_LEFT);
    for (const uint32_t flags : {0U, uint32_t{MP4_FLAG_REPAIR_INFO}}) {
        ASSERT_EQ(Create("next.mp4", flags), kSuccess);
        ASSERT_EQ(streams::Run(m_muxer, streams::Everything(1)), kSuccess);
        ASSERT_EQ(m_muxer.Close(), kSuccess);
    }
    EXPECT_FALSE(ReadFile(m_folder.Path("lost.mp4.info")).empty());
}

TEST_F(Muxer, OneObjectRecordsFileAfterFile) {
    const auto expected = streams::ExpectEverything(12);
    std::filesystem::create_directory(m_folder.Path("movies"));
    const std::pair<const char*, const char*> kFiles[] = {{"a.mp4", "ftyp free mdat moov"},
                                                          {"movies/out.mp4", "ftyp mdat moov"},
                                                          {"out.MOV", "ftyp free mdat moov"}};
    for (const auto& [name, boxes] : kFiles) {
        ASSERT_EQ(Create(name, MP4_FLAG_REPAIR_INFO), kSuccess);
        EXPECT_EQ(Video(test_pattern::Picture(1), 0), MP4_STATUS_INVALID_VIDEO_TRACK)
            << "nothing is left of the file before";
        ASSERT_EQ(streams::Run(m_muxer, streams::SetUpEverything()), kSuccess);
        ASSERT_EQ(streams::Run(m_muxer, streams::WriteEverything(12)), kSuccess);
        ASSERT_EQ(m_muxer.Close(), kSuccess);
        streams::ExpectHolds(Movie(name), expected);
        EXPECT_EQ(Movie(name).File().ChildTypes(), boxes) << "the path decides the kind of file";
        EXPECT_FALSE(std::filesystem::exists(m_folder.Path(name) + ".info"));
    }
    EXPECT_EQ(ReadFile(m_folder.Path("a.mp4")), ReadFile(m_folder.Path("out.MOV")));
}

// Whole files

TEST_F(Muxer, CallbacksGiveTheSameFile) {
    for (const uint32_t flags : {0U, 1U | 2U, 16U}) {
        MemoryOutput output;
        const auto path = m_folder.Wide("out.mov");
        ASSERT_EQ(streams::RecordEverything(path, streams::FileConfig(flags), 20), kSuccess);
        auto config = streams::CallbackConfig(flags, output.Functions());
        ASSERT_EQ(streams::RecordEverything(path, config, 20), kSuccess);
        EXPECT_EQ(output.Content(), ReadFile(m_folder.Path("out.mov"))) << flags;
        EXPECT_FALSE(output.open);
        streams::ExpectHolds(output.Movie(), streams::ExpectEverything(20));
    }
    EXPECT_TRUE(m_log.Complaints().empty());
}

/// The boxes of a file as text, without the media data.
std::string Text(const MovieReader& movie) {
    std::string text;
    for (const Box& box : movie.File().children)
        text += box.type == "mdat" ? "mdat " + std::to_string(box.size) + "\n" : box.Dump();
    return text;
}

TEST_F(Muxer, GoldenFiles) {
    for (const char* const form : {"mp4", "mov"}) {
        for (const uint32_t flags : {0U, 3U}) {
            const std::string name = std::string("everything.") + form;
            ASSERT_EQ(
                streams::RecordEverything(m_folder.Wide(name), streams::FileConfig(flags), 12),
                kSuccess);
            ExpectKept(std::string("everything_") + form + (flags == 0 ? "" : "_64bit"),
                       Text(Movie(name)));
        }
    }
    const std::pair<const char*, mp4_video_track_info_t> kTracks[] = {
        {"hevc", streams::HevcTrack()}, {"prores", streams::ProResTrack(MP4_PRORES_422_HQ)}};
    for (const auto& [name, track] : kTracks) {
        MemoryOutput output;
        auto config = streams::CallbackConfig(0, output.Functions());
        ASSERT_EQ(m_muxer.Create(L"out.mov", &config), kSuccess);
        ASSERT_EQ(m_muxer.SetVideoTrack(&track), kSuccess);
        const auto captions = streams::CaptionTrack(MP4_SUBTITLE_CODEC_CC708);
        ASSERT_EQ(m_muxer.SetSubtitleTrack(&captions), kSuccess);
        ASSERT_EQ(Video(Hex("00000001 2601 80"), 0), kSuccess);
        const Bytes packet = Hex("6101 03 966955");
        ASSERT_EQ(m_muxer.WriteSubtitleFrame(packet.data(), 6, 0), kSuccess);
        ASSERT_EQ(m_muxer.Close(), kSuccess);
        ExpectKept(name, Text(output.Movie()));
    }
}

// Its size does not fit the index; not a byte of it is read.
TEST_F(Muxer, AFrameOf2GiBIsRefused) {
    ASSERT_EQ(CreateIn(m_output), kSuccess);
    const auto prores = streams::ProResTrack(MP4_PRORES_422);
    const auto aac = streams::AacTrack();
    ASSERT_EQ(m_muxer.SetVideoTrack(&prores), kSuccess);
    ASSERT_EQ(m_muxer.SetAudioTrack(&aac), kSuccess);
    const uint8_t byte = 0;
    m_output.dropFrom = 0x7FFFFFFF;
    for (const uint32_t size : {0x7FFFFFFFU, 0x80000000U, UINT32_MAX}) {
        const mp4_status_t expected = size == 0x7FFFFFFF ? kSuccess : kInvalid;
        EXPECT_EQ(m_muxer.WriteVideoFrame(&byte, size, 0, 0), expected);
        EXPECT_EQ(m_muxer.WriteAudioFrame(&byte, size, 0), expected);
    }
    ASSERT_EQ(m_muxer.Close(), kSuccess);
    const MovieReader movie = m_output.Movie();
    for (const char* const handler : {"vide", "soun"})
        EXPECT_EQ(movie.TrackOf(handler).samples.size(), 1U);
}

}  // namespace
