// The muxer as an application sees it: lifecycle, set-up, the frame paths, whole files.
#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "Mp4Muxer.h"
#include "log_capture.h"
#include "memory_output.h"
#include "movie_reader.h"
#include "scratch_folder.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class Muxer : public ::testing::Test {
protected:
    mp4_status_t Create(const std::string& name, uint32_t flags = 0) {
        auto config = streams::FileConfig(flags);
        return m_muxer.Create(m_folder.Wide(name).c_str(), &config);
    }
    /// Opens an output in memory.
    mp4_status_t CreateInMemory(uint32_t flags = 0) {
        auto config = streams::CallbackConfig(flags, m_output.Functions());
        return m_muxer.Create(L"out.mp4", &config);
    }
    mp4_status_t Video(const Bytes& frame, uint64_t time) {
        return m_muxer.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()), time,
                                       time);
    }
    mp4_status_t Audio(const Bytes& frame, uint64_t time) {
        return m_muxer.WriteAudioFrame(frame.data(), static_cast<uint32_t>(frame.size()), time);
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
        {MP4_IO_EXTERNAL, "out", 0, MP4_STATUS_INVALID_PARAMETER,
         "error: pFunc should not be null when use external io mode"},
        {MP4_IO_FILE, m_folder.Path("missing/out"), 0, MP4_STATUS_NO_SUCH_FILE_OR_DIR,
         "init CFileWriter writer failed"},
        {MP4_IO_FILE, m_folder.Path("missing/out"), MP4_FLAG_REPAIR_INFO,
         MP4_STATUS_NO_SUCH_FILE_OR_DIR, ""},
        {MP4_IO_FILE, std::string(1023, 'a'), 0, MP4_STATUS_FILE_NAME_TOO_LONG, ""},
        {MP4_IO_FILE, std::string(2000, 'a'), 0, MP4_STATUS_FILE_NAME_TOO_LONG, ""},
        {MP4_IO_FILE, std::string(1019, 'a'), MP4_FLAG_REPAIR_INFO, MP4_STATUS_INVALID_PARAMETER,
         ""},
        {MP4_IO_FILE, std::string(2000, 'a'), MP4_FLAG_REPAIR_INFO, MP4_STATUS_INVALID_PARAMETER,
         ""},
    };
    for (const auto& row : kTable) {
        m_log.Clear();
        auto config = streams::FileConfig(row.flags);
        config.io_mode = row.mode;
        const std::wstring path(row.path.begin(), row.path.end());
        EXPECT_EQ(m_muxer.Create(path.c_str(), &config), row.status) << row.path << row.mode;
        if (!row.log.empty()) {
            EXPECT_EQ(m_log.Count("error", row.log, "Create"), 1) << row.log;
        }
        EXPECT_FALSE(m_muxer.IsOpen());
        EXPECT_EQ(m_muxer.Flush(), MP4_STATUS_FILE_NOT_OPEN);
    }
    auto config = streams::FileConfig(0);
    EXPECT_EQ(m_muxer.Create(nullptr, &config), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(m_muxer.Create(L"out", nullptr), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Create("out"), MP4_STATUS_SUCCESS) << "the object can still be used";
}

TEST_F(Muxer, CreateAnswersARefusingCallback) {
    m_output.refuseInit = true;
    EXPECT_EQ(CreateInMemory(), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(m_log.Count("error", "init external writer failed", "Create"), 1);
    EXPECT_THAT(m_output.calls, ElementsAre("init out.mp4 0 0"));
}

TEST_F(Muxer, CreateByValuesDoesTheSame) {
    EXPECT_EQ(m_muxer.Create(L"out.mp4", 1, 2, 0, MP4_IO_EXTERNAL, m_output.Functions()),
              MP4_STATUS_SUCCESS);
    EXPECT_THAT(m_output.calls, ElementsAre("init out.mp4 0 0"));
    EXPECT_TRUE(m_muxer.IsOpen());
}

TEST_F(Muxer, ALongPathLeavesRoomForTheRepairInfo) {
    std::string path = m_folder.Path("");
    while (path.size() + 2 <= 1016)
        path += "./";
    path.resize(1016, '/');
    auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
    const std::wstring good(path.begin(), path.end());
    EXPECT_EQ(m_muxer.Create((good + L"f").c_str(), &config), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("f.info")));
    EXPECT_EQ(m_muxer.Create((good + L"ff").c_str(), &config), MP4_STATUS_FILE_NAME_TOO_LONG);
}

TEST_F(Muxer, CreateLogsItsOptions) {
    EXPECT_EQ(Create("out", 32 | 8 | 64), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_log.Count("info", "mp4 flag is 104", "Create"), 1);
    EXPECT_THAT(m_log.Complaints(),
                ElementsAre("warn Create: safe mode flag already deprecated",
                            "warn Create: fast header write flag only valid in direct io mode"));
}

TEST_F(Muxer, CreateOnAnOpenMuxerLeavesTheRecordingAlone) {
    ASSERT_EQ(Create("out.mp4", MP4_FLAG_REPAIR_INFO), MP4_STATUS_SUCCESS);
    ASSERT_EQ(streams::Run(m_muxer, streams::SetUpEverything()), MP4_STATUS_SUCCESS);
    EXPECT_EQ(Create("out.mp4", MP4_FLAG_REPAIR_INFO), MP4_STATUS_DEVICE_OR_RESOURCE_BUSY);
    EXPECT_EQ(Create("other.mov"), MP4_STATUS_DEVICE_OR_RESOURCE_BUSY);
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("other.mov")));
    ASSERT_EQ(streams::Run(m_muxer, streams::WriteEverything(4)), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    streams::ExpectHolds(Movie("out.mp4"), streams::ExpectEverything(4));
}

TEST_F(Muxer, WithoutAFrameTheOutputStaysEmpty) {
    ASSERT_EQ(Create("out.mp4"), MP4_STATUS_SUCCESS);
    const auto track = streams::H264Track();
    ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_log.Count("info", "no data, ignore finish call", "Close"), 1);
    EXPECT_TRUE(ReadFile(m_folder.Path("out.mp4")).empty());
    EXPECT_EQ(m_muxer.GetCurFileSize(), 0);

    ASSERT_EQ(Create("out.mp4", MP4_FLAG_REPAIR_INFO), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    EXPECT_EQ(ReadFile(m_folder.Path("out.mp4.info")), Hex("10")) << "it stays";
}

TEST_F(Muxer, CloseTwiceAndPhases) {
    ASSERT_EQ(Create("out.mp4", MP4_FLAG_REPAIR_INFO), MP4_STATUS_SUCCESS);
    ASSERT_EQ(streams::Run(m_muxer, streams::SetUpEverything()), MP4_STATUS_SUCCESS);
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("out.mp4.info")));
    EXPECT_EQ(ReadFile(m_folder.Path("out.mp4")).size(), 44U) << "the header is written";
    ASSERT_EQ(streams::Run(m_muxer, streams::WriteEverything(1)), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("out.mp4.info")));
    std::string phases;
    for (const LogLine& line : m_log.Lines())
        if (line.level == "info" && line.function == "Close")
            phases += line.text.substr(0, line.text.find(" takes")) + ";";
    EXPECT_EQ(phases,
              "Muxer - Close - mdat finish;Muxer - Close - moov write;"
              "Muxer - Close - remove info file;Muxer - Close - uninit;");
    const Bytes file = ReadFile(m_folder.Path("out.mp4"));
    EXPECT_EQ(m_muxer.GetCurFileSize(), static_cast<int64_t>(file.size()));

    // A second Close must not remove what another recording has left in the meantime.
    std::ofstream(m_folder.Path("out.mp4.info")) << "another";
    EXPECT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("out.mp4.info")));
    EXPECT_EQ(ReadFile(m_folder.Path("out.mp4")), file);
}

TEST_F(Muxer, ThePathDecidesTheKindOfFile) {
    std::filesystem::create_directory(m_folder.Path("movies"));
    for (const auto& [name, quickTime] :
         {std::pair{"movies/out.mp4", true}, {"remove.m4v", true}, {"out.MOV", false}}) {
        ASSERT_EQ(Create(name), MP4_STATUS_SUCCESS);
        ASSERT_EQ(streams::Run(m_muxer, streams::SetUpEverything()), MP4_STATUS_SUCCESS);
        ASSERT_EQ(streams::Run(m_muxer, streams::WriteEverything(1)), MP4_STATUS_SUCCESS);
        ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        EXPECT_EQ(Movie(name).File().ChildTypes(),
                  quickTime ? "ftyp mdat moov" : "ftyp free mdat moov");
    }
}

TEST_F(Muxer, OneObjectRecordsFileAfterFile) {
    const auto expected = streams::ExpectEverything(12);
    for (const char* const name : {"a.mp4", "b.mov", "c.mp4"}) {
        ASSERT_EQ(Create(name, MP4_FLAG_REPAIR_INFO), MP4_STATUS_SUCCESS);
        EXPECT_EQ(Video(test_pattern::Picture(1), 0), MP4_STATUS_INVALID_VIDEO_TRACK)
            << "nothing is left of the file before";
        ASSERT_EQ(streams::Run(m_muxer, streams::SetUpEverything()), MP4_STATUS_SUCCESS);
        ASSERT_EQ(streams::Run(m_muxer, streams::WriteEverything(12)), MP4_STATUS_SUCCESS);
        ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        streams::ExpectHolds(Movie(name), expected);
        EXPECT_FALSE(std::filesystem::exists(m_folder.Path(name) + ".info"));
    }
    EXPECT_EQ(ReadFile(m_folder.Path("a.mp4")), ReadFile(m_folder.Path("c.mp4")));
    EXPECT_EQ(Movie("b.mov").At("moov/trak[1]/mdia/minf/stbl/stsd/mp4a").U16(16), 1);
    EXPECT_TRUE(m_log.Complaints().size() == 3) << "one for each frame without a track";
}

TEST_F(Muxer, DeferredTracksDoNotReachTheNextFile) {
    const auto track = streams::Deferred(streams::H264Track());
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(Create("out.mp4"), MP4_STATUS_SUCCESS);
        ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
        EXPECT_EQ(Video(test_pattern::Picture(1), 0), MP4_STATUS_SUCCESS);
        EXPECT_EQ(m_log.Count("warn", "no codec data, drop frame", "WriteVideoFrame"), i + 1);
        EXPECT_EQ(Video(test_pattern::Picture(0), 3000), MP4_STATUS_SUCCESS);
        ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        EXPECT_EQ(Movie("out.mp4").TrackOf("vide").samples.size(), 1U);
    }
}

// Queries

TEST_F(Muxer, QueriesWithAndWithoutAFile) {
    EXPECT_EQ(m_muxer.GetVideoBitrate(), -1.0);
    EXPECT_EQ(m_muxer.GetAudioBitrate(), -1.0);
    EXPECT_EQ(m_muxer.GetMoovSize(), 0U);
    EXPECT_EQ(m_muxer.GetDurationMS(), 0U);
    EXPECT_EQ(m_log.Count("error", "no open file, can't get duration", "GetDurationMS"), 1);
    EXPECT_EQ(m_muxer.Flush(), MP4_STATUS_FILE_NOT_OPEN);
    EXPECT_EQ(m_log.Count("error", "no open file, can't do flush", "Flush"), 1);

    ASSERT_EQ(CreateInMemory(), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.GetMoovSize(), 8U + 108 + 61);
    ASSERT_EQ(streams::Run(m_muxer, streams::SetUpEverything()), MP4_STATUS_SUCCESS);
    ASSERT_EQ(streams::Run(m_muxer, streams::WriteEverything(30)), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.GetDurationMS(), 1000U);
    EXPECT_EQ(m_muxer.GetCurFileSize(), static_cast<int64_t>(m_output.Size()));
    uint64_t videoBytes = 0;
    for (const auto& sample : streams::ExpectEverything(30))
        if (sample.handler == "vide") videoBytes += sample.bytes.size();
    EXPECT_DOUBLE_EQ(m_muxer.GetVideoBitrate(), static_cast<double>(videoBytes) / 1024);
    EXPECT_DOUBLE_EQ(m_muxer.GetAudioBitrate(), 120 * 48000 / (30 * 1024 * 1024.0));
    EXPECT_EQ(m_muxer.Flush(), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_output.calls.back(), "flush");
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.GetVideoBitrate(), -1.0);
    EXPECT_EQ(m_muxer.GetMoovSize(), 0U);
}

TEST_F(Muxer, TheFlushIntervalIsAtLeastTen) {
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(m_muxer.SetRepairFlushInterval(9), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(m_muxer.SetRepairFlushInterval(10), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.SetRepairFlushInterval(0), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(m_muxer.SetRepairFlushInterval(20), MP4_STATUS_SUCCESS);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "ERROR:info file flush interval(9) too small\n"
              "change info file flush interval from 900 to 10\n"
              "ERROR:info file flush interval(0) too small\n"
              "change info file flush interval from 10 to 20\n");
}

// Set-up

TEST_F(Muxer, VideoDescriptionsAreValidated) {
    ASSERT_EQ(CreateInMemory(), MP4_STATUS_SUCCESS);
    const struct {
        std::function<void(mp4_video_track_info_t&)> change;
        mp4_status_t status;
        std::string log;
    } kTable[] = {
        {[](auto& t) { t.timescale = 0; }, MP4_STATUS_INVALID_PARAMETER, "invalid video timescale"},
        {[](auto& t) { t.width = 1920, t.height = 0; }, MP4_STATUS_INVALID_PARAMETER,
         "invalid video width(1920) or height(0)"},
        {[](auto& t) { t.width = 0; }, MP4_STATUS_INVALID_PARAMETER,
         "invalid video width(0) or height(64)"},
        {[](auto& t) { t.codec = streams::Forged<mp4_video_codec>(7); },
         MP4_STATUS_INVALID_CODEC_TYPE, "invalid codec type 7"},
        {[](auto& t) { t.codec = MP4_MVC_UNKNOWN; }, MP4_STATUS_INVALID_CODEC_TYPE,
         "invalid codec type -1"},
        {[](auto& t) { t.h264.sps_size = -1; }, MP4_STATUS_INVALID_PARAMETER, ""},
        {[](auto& t) { t.h264.pps_size = -32768; }, MP4_STATUS_INVALID_PARAMETER, ""},
        {[](auto& t) { t = streams::HevcTrack(), t.hevc.vps_size = -1; },
         MP4_STATUS_INVALID_PARAMETER, ""},
    };
    for (const auto& row : kTable) {
        m_log.Clear();
        auto track = streams::H264Track();
        row.change(track);
        EXPECT_EQ(m_muxer.SetVideoTrack(&track), row.status) << row.log;
        if (!row.log.empty()) {
            EXPECT_EQ(m_log.Count("error", row.log, "SetVideoTrack"), 1);
        }
        EXPECT_EQ(Video(test_pattern::Picture(0), 0), MP4_STATUS_INVALID_VIDEO_TRACK) << row.log;
    }
    EXPECT_EQ(m_muxer.SetVideoTrack(nullptr), MP4_STATUS_INVALID_PARAMETER);
}

TEST_F(Muxer, AudioCaptionAndTimecodeDescriptionsAreValidated) {
    ASSERT_EQ(CreateInMemory(), MP4_STATUS_SUCCESS);
    const struct {
        mp4_audio_track_info_t track;
        mp4_status_t status;
        std::string log;
    } kTable[] = {
        {{0, 0, MP4_MAC_AAC, 48000, 2, 2},
         MP4_STATUS_INVALID_PARAMETER,
         "error invalid timescale in audio track"},
        {{48000, 0, MP4_MAC_AAC, 0, 2, 2},
         MP4_STATUS_INVALID_PARAMETER,
         "error invalid audio channel(2) or sample rate(0)"},
        {{48000, 0, MP4_MAC_AAC, 48000, 0, 2},
         MP4_STATUS_INVALID_PARAMETER,
         "error invalid audio channel(0) or sample rate(48000)"},
        {{48000, 0, MP4_MAC_UNKNOWN, 48000, 2, 2},
         MP4_STATUS_INVALID_PARAMETER,
         "error invalid audio codec 0"},
        {{48000, 0, streams::Forged<mp4_audio_codec>(3), 48000, 2, 2},
         MP4_STATUS_INVALID_PARAMETER,
         "error invalid audio codec 3"},
        {{48000, 0, MP4_MAC_ADTS, 0, 2, 2},
         MP4_STATUS_SUCCESS,
         "info audio codec is adts, wait audio stream to get meta data"},
        {{48000, 0, MP4_MAC_ADTS, 48000, 2, 2}, MP4_STATUS_SUCCESS, ""},
    };
    for (const auto& row : kTable) {
        m_log.Clear();
        EXPECT_EQ(m_muxer.SetAudioTrack(&row.track), row.status) << row.log;
        if (row.log.empty()) continue;
        const size_t blank = row.log.find(' ');
        EXPECT_EQ(m_log.Count(row.log.substr(0, blank), row.log.substr(blank + 1), "SetAudioTrack"),
                  1)
            << row.log;
    }
    EXPECT_EQ(m_muxer.SetAudioTrack(nullptr), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(m_muxer.SetSubtitleTrack(nullptr), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(m_muxer.SetTCMDTrack(nullptr), MP4_STATUS_INVALID_PARAMETER);
}

TEST_F(Muxer, MetadataIsValidated) {
    ASSERT_EQ(CreateInMemory(), MP4_STATUS_SUCCESS);
    const int value = 1;
    const auto* const bytes = reinterpret_cast<const char*>(&value);
    const struct {
        const char* key;
        const char* data;
        uint32_t size;
        mp4_meta_data_type_t type;
        mp4_status_t status;
        std::string log;
    } kTable[] = {
        {nullptr, "x", 1, MP4_META_DATA_TYPE_STRING, MP4_STATUS_INVALID_PARAMETER,
         "invalid meta data"},
        {"title", nullptr, 1, MP4_META_DATA_TYPE_STRING, MP4_STATUS_INVALID_PARAMETER,
         "invalid meta data"},
        {"k", bytes, 0, MP4_META_DATA_TYPE_INT, MP4_STATUS_INVALID_PARAMETER,
         "invalid meta(k) data length 0"},
        {"title", "x", 0, MP4_META_DATA_TYPE_RAW, MP4_STATUS_INVALID_PARAMETER,
         "invalid meta(title) data length 0"},
        {"k", bytes, 3, MP4_META_DATA_TYPE_INT, MP4_STATUS_INVALID_PARAMETER, ""},
        {"k", bytes, 4, MP4_META_DATA_TYPE_INT, MP4_STATUS_SUCCESS, ""},
        {"title", "x", 0, MP4_META_DATA_TYPE_STRING, MP4_STATUS_SUCCESS, ""},
        {"k", "x", 0, MP4_META_DATA_TYPE_STRING, MP4_STATUS_SUCCESS, ""},
    };
    for (const auto& row : kTable) {
        m_log.Clear();
        EXPECT_EQ(m_muxer.SetMetadata(row.key, row.data, row.size, row.type, nullptr), row.status);
        if (!row.log.empty()) {
            EXPECT_EQ(m_log.Count("error", row.log, "SetMetadata"), 1) << row.log;
        }
    }
    // Raw bytes without a terminator, for a well-known key: not a byte past them is read.
    const auto raw = std::make_unique<char[]>(2);
    raw[0] = raw[1] = 'y';
    EXPECT_EQ(m_muxer.SetMetadata("artist", raw.get(), 2, MP4_META_DATA_TYPE_RAW, nullptr),
              MP4_STATUS_SUCCESS);
    const auto track = streams::AacTrack();
    ASSERT_EQ(m_muxer.SetAudioTrack(&track), MP4_STATUS_SUCCESS);
    ASSERT_EQ(Audio(test_pattern::kSilence, 0), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    const MovieReader movie = m_output.Movie();
    EXPECT_EQ(movie.At("moov/udta/meta/ilst/\251ART/data").Text(16, 2), "yy");
    EXPECT_EQ(movie.At("moov/meta/keys").U32(12), 2U);
    EXPECT_EQ(movie.At("moov/meta/ilst").children.size(), 2U);
}

TEST_F(Muxer, AVideoTrackCanBeDeclaredAgain) {
    ASSERT_EQ(CreateInMemory(), MP4_STATUS_SUCCESS);
    const auto h264 = streams::H264Track();
    const auto prores = streams::ProResTrack(MP4_PRORES_422);
    EXPECT_EQ(m_muxer.SetVideoTrack(&h264), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.SetVideoTrack(&prores), MP4_STATUS_SUCCESS);
    const Bytes frame = Hex("0000000c 69637066 00000001");
    EXPECT_EQ(Video(frame, 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(Video(frame, 3000), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    const MovieReader movie = m_output.Movie();
    const Track& track = movie.TrackOf("vide");
    EXPECT_EQ(track.id, 1U);
    EXPECT_EQ(track.entryType, "apcn");
    EXPECT_EQ(movie.SampleBytes(track.samples.at(1)), frame) << "unchanged";
    EXPECT_TRUE(track.samples[1].sync);
}

// The frame paths

TEST_F(Muxer, UnitsAreStoredBehindTheirLengths) {
    ASSERT_EQ(CreateInMemory(), MP4_STATUS_SUCCESS);
    const auto track = streams::H264Track();
    ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
    EXPECT_EQ(Video(Hex("00000001 09f0 00000001 658884"), 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(Video(Hex("ff ff 000001 419a 00000001 06"), 3000), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    const MovieReader movie = m_output.Movie();
    const auto& samples = movie.TrackOf("vide").samples;
    ASSERT_EQ(samples.size(), 2U);
    EXPECT_EQ(movie.SampleBytes(samples[0]), Hex("00000002 09f0 00000003 658884"));
    EXPECT_TRUE(samples[0].sync);
    EXPECT_EQ(movie.SampleBytes(samples[1]), Hex("00000002 419a 00000001 06"));
    EXPECT_FALSE(samples[1].sync);
}

TEST_F(Muxer, HevcSyncSamplesAreIdrPictures) {
    ASSERT_EQ(CreateInMemory(), MP4_STATUS_SUCCESS);
    const auto track = streams::HevcTrack();
    ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
    const std::pair<int, bool> kTypes[] = {{19, true}, {1, false}, {20, true}, {21, false}};
    uint64_t time = 0;
    for (const auto& [type, sync] : kTypes) {
        EXPECT_EQ(Video(Hex("00000001") + Bytes{static_cast<uint8_t>(type << 1), 1, 0x80}, time),
                  MP4_STATUS_SUCCESS);
        time += 3000;
    }
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    const MovieReader movie = m_output.Movie();
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(movie.TrackOf("vide").samples.at(i).sync, kTypes[i].second) << kTypes[i].first;
}

TEST_F(Muxer, FramesThatCannotBeStored) {
    ASSERT_EQ(CreateInMemory(), MP4_STATUS_SUCCESS);
    EXPECT_EQ(Video(test_pattern::Picture(0), 0), MP4_STATUS_INVALID_VIDEO_TRACK);
    EXPECT_EQ(m_log.Count("error", "invalid video track!", "WriteVideoFrame"), 1);
    const auto track = streams::H264Track();
    ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
    for (const char* const frame : {"000001", "ffffffffff", "00000001"})
        EXPECT_EQ(Video(Hex(frame), 0), MP4_STATUS_INVALID_VIDEO_STREAM) << frame;
    EXPECT_EQ(m_log.Count("error", "Parse video frame fail !", "WriteVideoFrame"), 3);
    EXPECT_EQ(m_muxer.WriteVideoFrame(nullptr, 5, 0, 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.WriteVideoFrame(track.h264.sps, 0, 0, 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_log.Count("error", "write video frame with empty data", "WriteVideoFrame"), 2);
    EXPECT_EQ(m_muxer.WriteAudioFrame(nullptr, 5, 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.WriteAudioFrame(track.h264.sps, 0, 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_log.Count("warn", "write audio frame with empty data", "WriteAudioFrame"), 2);
    EXPECT_EQ(m_output.writes, 0) << "not even the header";

    EXPECT_EQ(Audio(test_pattern::kSilence, 0), MP4_STATUS_NO_SPACE_LEFT_IN_HEADER);
    EXPECT_EQ(m_log.Count("error", "call AfterWriteAudioFrame failed", "WriteAudioFrame"), 1);
    EXPECT_EQ(Video(test_pattern::Picture(0), 0), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    const MovieReader movie = m_output.Movie();
    EXPECT_EQ(movie.Tracks().size(), 1U);
    EXPECT_EQ(movie.SampleBytes(movie.TrackOf("vide").samples.at(0)),
              streams::LengthPrefixed(streams::PictureUnits(0)));
}

TEST_F(Muxer, ParameterSetsAreCollectedFromSeveralFrames) {
    const Bytes idr = Hex("658884");
    const Bytes hevcIdr = Hex("260180");
    const struct {
        mp4_video_track_info_t track;
        std::vector<std::vector<Bytes>> frames;
        const char* configuration;
    } kTable[] = {
        {streams::H264Track(),
         {{idr}, {test_pattern::kPps, idr}, {idr}, {test_pattern::kSps, idr}, {idr}},
         "moov/trak/mdia/minf/stbl/stsd/avc1/avcC"},
        {streams::HevcTrack(),
         {{hevcIdr},
          {streams::kHevcPps},
          {streams::kHevcSps, hevcIdr},
          {streams::kHevcVps, hevcIdr},
          {hevcIdr}},
         "moov/trak/mdia/minf/stbl/stsd/hvc1/hvcC"},
    };
    for (const auto& row : kTable) {
        Bytes configurations[2];
        for (const bool deferred : {false, true}) {
            MemoryOutput output;
            m_log.Clear();
            auto config = streams::CallbackConfig(0, output.Functions());
            ASSERT_EQ(m_muxer.Create(L"out.mp4", &config), MP4_STATUS_SUCCESS);
            const auto track = deferred ? streams::Deferred(row.track) : row.track;
            ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
            uint64_t time = 0;
            for (const auto& units : row.frames) {
                // Every frame in memory of its own, which is gone after the call.
                const auto frame = std::make_unique<Bytes>(streams::AccessUnit(units));
                EXPECT_EQ(Video(*frame, time += 3000), MP4_STATUS_SUCCESS);
            }
            ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
            const MovieReader movie = output.Movie();
            const Box& box = movie.At(row.configuration);
            configurations[deferred ? 1 : 0] = box.Content(0, box.size);
            const auto& samples = movie.TrackOf("vide").samples;
            ASSERT_EQ(samples.size(), deferred ? 2U : 5U);
            EXPECT_EQ(movie.SampleBytes(samples[samples.size() - 2]),
                      streams::LengthPrefixed(row.frames[3]))
                << "with the sets inside";
        }
        EXPECT_EQ(configurations[0], configurations[1]);
        EXPECT_EQ(m_log.Count("info", "no codec data in video track info, try to find it in stream",
                              "SetVideoTrack"),
                  1);
        EXPECT_EQ(m_log.Count("info", "found video codec data in stream, set video track info"), 1);
        EXPECT_EQ(m_log.Count("warn", "no codec data, drop frame", "WriteVideoFrame"), 3);
    }
}

TEST_F(Muxer, SetsThatCannotBeDescribedAreNotTaken) {
    ASSERT_EQ(CreateInMemory(), MP4_STATUS_SUCCESS);
    auto track = streams::Deferred(streams::H264Track());
    track.h264.sps = test_pattern::kPps.data();  // a pointer with size 0 counts as absent
    ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
    Bytes huge = test_pattern::kSps;
    huge.resize(40000, 0x11);  // past the 16-bit size
    EXPECT_EQ(Video(streams::AccessUnit({huge, test_pattern::kPps, Hex("658884")}), 0),
              MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_log.Count("warn", "no codec data, drop frame", "WriteVideoFrame"), 1);
    EXPECT_EQ(Video(test_pattern::Picture(0), 3000), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    const MovieReader movie = m_output.Movie();
    EXPECT_EQ(movie.At("moov/trak/mdia/minf/stbl/stsd/avc1/avcC").Content(16, 7),
              test_pattern::kSps);
}

TEST_F(Muxer, AUselessConfigurationFailsCloseOnly) {
    ASSERT_EQ(Create("out.mp4", MP4_FLAG_REPAIR_INFO), MP4_STATUS_SUCCESS);
    auto track = streams::H264Track();
    track.h264.sps_size = 3;
    ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
    ASSERT_EQ(Video(test_pattern::Picture(0), 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.Close(), MP4_STATUS_UNEXPECTED_ERROR);
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("out.mp4.info"))) << "kept for the repair";
    EXPECT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("out.mp4.info")));
}

TEST_F(Muxer, AdtsHeadersAreTakenOff) {
    const struct {
        mp4_audio_track_info_t track;
        Bytes frame;
        mp4_status_t status;
        Bytes sample;
    } kTable[] = {
        {streams::AdtsTrack(), Hex("fff15080 0000fc 2110"), MP4_STATUS_SUCCESS, Hex("2110")},
        {streams::AdtsTrack(), Hex("2110 0000 0000 0000"), MP4_STATUS_INVALID_ADTS_STREAM, {}},
        {streams::AdtsTrack(), Hex("fff15080 0000fc"), MP4_STATUS_INVALID_ADTS_STREAM, {}},
        {streams::AacTrack(), Hex("fff15080 0000fc"), MP4_STATUS_SUCCESS, Hex("fff150800000fc")},
        {streams::AacTrack(), Hex("fff95080 0000fc 21"), MP4_STATUS_SUCCESS, Hex("21")},
        {streams::AacTrack(), Hex("ffe15080 0000fc 21"), MP4_STATUS_SUCCESS,
         Hex("ffe15080 0000fc 21")},
        {streams::AdtsTrack(), Hex("fff07480 0000fc 2110"), MP4_STATUS_SUCCESS, Hex("2110")},
    };
    for (const auto& row : kTable) {
        MemoryOutput output;
        m_log.Clear();
        auto config = streams::CallbackConfig(0, output.Functions());
        ASSERT_EQ(m_muxer.Create(L"out.mp4", &config), MP4_STATUS_SUCCESS);
        ASSERT_EQ(m_muxer.SetAudioTrack(&row.track), MP4_STATUS_SUCCESS);
        EXPECT_EQ(Audio(row.frame, 0), row.status);
        ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        if (row.status != MP4_STATUS_SUCCESS) {
            EXPECT_EQ(
                m_log.Count("error", "invalid ADTS stream, please check it.", "WriteAudioFrame"),
                1);
            continue;
        }
        const MovieReader movie = output.Movie();
        EXPECT_EQ(movie.SampleBytes(movie.TrackOf("soun").samples.at(0)), row.sample);
    }
}

TEST_F(Muxer, AdtsHeadersConfigureTheTrack) {
    const struct {
        Bytes header;
        uint32_t rate;
        Bytes config;
    } kTable[] = {
        {Hex("fff15080 0000fc"), 44100, Hex("1210")}, {Hex("fff14c40 0000fc"), 48000, Hex("1188")},
        {Hex("fff14080 0000fc"), 0, Hex("1010")},      // 96000 Hz does not fit the sample entry
        {Hex("fff14480 0000fc"), 0, Hex("1090")},      // neither does 88200 Hz
        {Hex("fff10d80 0000fc"), 48000, Hex("09b0")},  // AAC Main, 6 channels
    };
    for (const auto& row : kTable) {
        MemoryOutput output;
        m_log.Clear();
        auto config = streams::CallbackConfig(0, output.Functions());
        ASSERT_EQ(m_muxer.Create(L"out.mp4", &config), MP4_STATUS_SUCCESS);
        const auto track = streams::AdtsTrack();
        ASSERT_EQ(m_muxer.SetAudioTrack(&track), MP4_STATUS_SUCCESS);
        EXPECT_EQ(Audio(row.header + Hex("2110"), 0), MP4_STATUS_SUCCESS);
        EXPECT_EQ(Audio(Hex("2120"), 1024), MP4_STATUS_SUCCESS) << "raw once it is configured";
        EXPECT_EQ(m_log.Count("info", "ADTS stream, get and set audio track", "WriteAudioFrame"),
                  1);
        ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        const MovieReader movie = output.Movie();
        EXPECT_EQ(movie.TrackOf("soun").samples.size(), 2U);
        const Box& entry = movie.At("moov/trak/mdia/minf/stbl/stsd/mp4a");
        EXPECT_EQ(entry.U32(32), row.rate << 16);
        EXPECT_EQ(entry.At("esds").Content(43, 2), row.config);
    }
}

TEST_F(Muxer, CompositionOffsetsOfReorderedPictures) {
    // Decoded 0 1 2 3 4, shown 0 3 1 2 4: one picture of delay.
    const uint64_t kShown[] = {1, 4, 2, 3, 5};
    for (const bool enabled : {true, false}) {
        MemoryOutput output;
        auto config = streams::CallbackConfig(0, output.Functions());
        ASSERT_EQ(m_muxer.Create(L"out.mp4", &config), MP4_STATUS_SUCCESS);
        EXPECT_EQ(m_muxer.SetCompositionOffsets(enabled), MP4_STATUS_SUCCESS);
        const auto track = streams::H264Track();
        ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
        for (uint32_t i = 0; i < 5; ++i) {
            const Bytes picture = test_pattern::Picture(i);
            ASSERT_EQ(m_muxer.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()),
                                              kShown[i] * 3000, i * uint64_t{3000}),
                      MP4_STATUS_SUCCESS);
        }
        EXPECT_EQ(m_muxer.SetCompositionOffsets(!enabled), MP4_STATUS_INVALID_PARAMETER);
        const Bytes picture = test_pattern::Picture(0);
        if (enabled) {
            EXPECT_EQ(m_muxer.WriteVideoFrame(picture.data(), 20, uint64_t{1} << 40, 15000),
                      MP4_STATUS_INVALID_PARAMETER);
        }
        ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        const MovieReader movie = output.Movie();
        const Track& found = movie.TrackOf("vide");
        ASSERT_EQ(found.samples.size(), 5U);
        for (size_t i = 0; i < 5; ++i)
            EXPECT_EQ(found.samples[i].cts, 3000 * static_cast<int64_t>(enabled ? kShown[i] : i));
        EXPECT_EQ(found.box->At("mdia/minf/stbl").Find("ctts") != nullptr, enabled);
        EXPECT_EQ(found.box->At("edts/elst").U32(20), enabled ? 3000U : 0U) << "first shown";
        EXPECT_EQ(movie.At("moov/mvhd").U32(24), 166U) << "five pictures";
    }
}

TEST_F(Muxer, TimestampsOfEveryKindGiveAFileThatCanBeRead) {
    ASSERT_EQ(CreateInMemory(MP4_FLAG_64BIT_TIME), MP4_STATUS_SUCCESS);
    const auto video = streams::H264Track();
    const auto audio = streams::AacTrack();
    ASSERT_EQ(m_muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.SetAudioTrack(&audio), MP4_STATUS_SUCCESS);
    const uint64_t kTimes[] = {
        5000, 4000, 4000, uint64_t{1} << 33, UINT64_MAX, 0, uint64_t{1} << 63, 7};
    for (const uint64_t time : kTimes) {
        EXPECT_EQ(Video(test_pattern::Picture(0), time), MP4_STATUS_SUCCESS);
        EXPECT_EQ(Audio(test_pattern::kSilence, time), MP4_STATUS_SUCCESS);
        m_muxer.GetDurationMS();
    }
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    const MovieReader movie = m_output.Movie();
    EXPECT_EQ(movie.TrackOf("vide").samples.size(), std::size(kTimes));
    EXPECT_EQ(movie.TrackOf("vide").samples[1].dts, -1000) << "stored as it is";
}

// Whole files

TEST_F(Muxer, CallbacksGiveTheSameFile) {
    for (const uint32_t flags : {0U, 1U | 2U, 16U}) {
        for (const char* const name : {"out.mp4", "out.mov"}) {
            MemoryOutput output;
            const auto path = m_folder.Wide(name);
            ASSERT_EQ(streams::RecordEverything(path, streams::FileConfig(flags), 20),
                      MP4_STATUS_SUCCESS);
            ASSERT_EQ(streams::RecordEverything(
                          path, streams::CallbackConfig(flags, output.Functions()), 20),
                      MP4_STATUS_SUCCESS);
            EXPECT_EQ(output.Content(), ReadFile(m_folder.Path(name))) << name << flags;
            EXPECT_FALSE(output.open);
            streams::ExpectHolds(output.Movie(), streams::ExpectEverything(20));
        }
    }
    EXPECT_TRUE(m_log.Complaints().empty());
}

TEST_F(Muxer, CallbacksComeInOrder) {
    ASSERT_EQ(CreateInMemory(), MP4_STATUS_SUCCESS);
    const auto track = streams::H264Track();
    ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
    EXPECT_THAT(m_output.calls, ElementsAre("init out.mp4 0 0"));
    const auto positions = [this] {
        std::vector<std::string> calls;  // what is written, and where it is patched
        for (const std::string& call : m_output.calls)
            if (call != "tell") calls.push_back(call);
        m_output.calls.clear();
        return calls;
    };
    positions();
    ASSERT_EQ(Video(Hex("00000001 09f0 00000001 658884"), 0), MP4_STATUS_SUCCESS);
    EXPECT_THAT(positions(),
                ElementsAre("write 4", "write 4", "write 4", "write 4", "write 4", "write 4",
                            "write 4", "seek 0 0", "write 4", "seek 28 0",  // ftyp
                            "write 4", "write 4",                           // free
                            "write 4", "write 4",                           // mdat
                            "write 4", "write 2", "write 4", "write 3"));   // the sample
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    const auto calls = positions();
    ASSERT_GT(calls.size(), 5U);
    EXPECT_THAT(std::vector<std::string>(calls.begin(), calls.begin() + 5),
                ElementsAre("seek 36 0", "write 4", "seek 57 0", "write 4", "write 4"))
        << "the size of mdat, then moov at the end";
    EXPECT_EQ(calls.back(), "uninit");
}

TEST_F(Muxer, MediaPastFourGibibytes) {
    m_output.dropFrom = 1 << 20;
    ASSERT_EQ(CreateInMemory(MP4_FLAG_64BIT_SIZE), MP4_STATUS_SUCCESS);
    const auto video = streams::ProResTrack(MP4_PRORES_4444_XQ);
    const auto audio = streams::AacTrack();
    ASSERT_EQ(m_muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.SetAudioTrack(&audio), MP4_STATUS_SUCCESS);
    const Bytes large(64 << 20);
    for (uint64_t i = 0; i < 70; ++i) {
        ASSERT_EQ(Video(large, i * 3000), MP4_STATUS_SUCCESS);
        ASSERT_EQ(Audio(test_pattern::kSilence, i * 1024), MP4_STATUS_SUCCESS);
    }
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    const MovieReader movie = m_output.Movie();
    EXPECT_EQ(movie.At("mdat").size, 16 + 70 * (uint64_t{64 << 20} + 4));
    const Sample& last = movie.TrackOf("soun").samples.at(69);
    EXPECT_EQ(last.offset, 36 + 16 + 70 * uint64_t{64 << 20} + 69 * 4);
    EXPECT_EQ(movie.SampleBytes(last), test_pattern::kSilence);
}

/// The boxes of a file as text, without the media data.
std::string Text(const MovieReader& movie) {
    std::string text;
    for (const Box& box : movie.File().children)
        text += box.type == "mdat" ? "mdat " + std::to_string(box.size) + "\n" : box.Dump();
    return text;
}

/// Compares with a kept text; KX_MP4_UPDATE_GOLDEN=1 in the environment keeps the new one.
void ExpectGolden(const std::string& name, const std::string& text) {
    const std::string path = std::string(KX_MP4_GOLDEN_FOLDER) + "/" + name + ".txt";
    if (std::getenv("KX_MP4_UPDATE_GOLDEN") != nullptr) std::ofstream(path) << text;
    std::ostringstream kept;
    kept << std::ifstream(path).rdbuf();
    EXPECT_EQ(text, kept.str()) << path;
}

TEST_F(Muxer, GoldenFilesWithEveryTrack) {
    for (const char* const form : {"mp4", "mov"}) {
        for (const uint32_t flags : {0U, 3U}) {
            const std::string name = std::string("everything.") + form;
            ASSERT_EQ(
                streams::RecordEverything(m_folder.Wide(name), streams::FileConfig(flags), 12),
                MP4_STATUS_SUCCESS);
            ExpectGolden(std::string("everything_") + form + (flags == 0 ? "" : "_64bit"),
                         Text(Movie(name)));
        }
    }
}

TEST_F(Muxer, GoldenFilesOfTheOtherCodecs) {
    const std::pair<const char*, mp4_video_track_info_t> kTracks[] = {
        {"hevc", streams::HevcTrack()}, {"prores", streams::ProResTrack(MP4_PRORES_422_HQ)}};
    for (const auto& [name, track] : kTracks) {
        MemoryOutput output;
        auto config = streams::CallbackConfig(0, output.Functions());
        ASSERT_EQ(m_muxer.Create(L"out.mov", &config), MP4_STATUS_SUCCESS);
        ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
        const auto captions = streams::CaptionTrack(MP4_SUBTITLE_CODEC_CC708);
        ASSERT_EQ(m_muxer.SetSubtitleTrack(&captions), MP4_STATUS_SUCCESS);
        ASSERT_EQ(Video(Hex("00000001 2601 80"), 0), MP4_STATUS_SUCCESS);
        const Bytes packet = Hex("6101 03 966955");
        ASSERT_EQ(m_muxer.WriteSubtitleFrame(packet.data(), 6, 0), MP4_STATUS_SUCCESS);
        ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        ExpectGolden(name, Text(output.Movie()));
    }
}

}  // namespace
