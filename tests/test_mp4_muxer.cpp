// The muxer as an application sees it: lifecycle, set-up, the frame paths, whole files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

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
    m_output.refuseInit = true;
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

TEST_F(Muxer, WithoutAFrameTheOutputStaysEmpty) {
    ASSERT_EQ(Create("out.mp4", MP4_FLAG_REPAIR_INFO), kSuccess);
    EXPECT_EQ(m_muxer.Close(), kSuccess);
    EXPECT_TRUE(ReadFile(m_folder.Path("out.mp4")).empty());
    EXPECT_EQ(m_muxer.GetCurFileSize(), 0);
    EXPECT_EQ(ReadFile(m_folder.Path("out.mp4.info")), Hex("10")) << "it stays";
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

// Queries

TEST_F(Muxer, QueriesWhileRecording) {
    EXPECT_EQ(m_muxer.GetVideoBitrate(), -1.0);
    ASSERT_EQ(CreateIn(m_output), kSuccess);
    EXPECT_EQ(m_muxer.GetMoovSize(), 8U + 108 + 61);
    ASSERT_EQ(streams::Run(m_muxer, streams::SetUpEverything()), kSuccess);
    ASSERT_EQ(streams::Run(m_muxer, streams::WriteEverything(30)), kSuccess);
    EXPECT_EQ(m_muxer.GetDurationMS(), 1000U);
    EXPECT_EQ(m_muxer.GetCurFileSize(), static_cast<int64_t>(m_output.Size()));
    uint64_t videoBytes = 0;
    for (const auto& sample : streams::ExpectEverything(30))
        if (sample.handler == "vide") videoBytes += sample.bytes.size();
    EXPECT_DOUBLE_EQ(m_muxer.GetVideoBitrate(), static_cast<double>(videoBytes) / 1024);
    EXPECT_DOUBLE_EQ(m_muxer.GetAudioBitrate(), 120 * 48000 / (30 * 1024 * 1024.0));
    EXPECT_EQ(m_muxer.Flush(), kSuccess);
    EXPECT_EQ(m_output.calls.back(), "flush");
    ASSERT_EQ(m_muxer.Close(), kSuccess);
    EXPECT_EQ(m_muxer.GetVideoBitrate(), -1.0);
    EXPECT_EQ(m_muxer.GetMoovSize(), 0U);
}

TEST_F(Muxer, TheFlushIntervalIsAtLeastTen) {
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(m_muxer.SetRepairFlushInterval(9), kInvalid);
    EXPECT_EQ(m_muxer.SetRepairFlushInterval(10), kSuccess);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "ERROR:info file flush interval(9) too small\n"
              "change info file flush interval from 900 to 10\n");
}

// Set-up

TEST_F(Muxer, VideoDescriptionsAreValidated) {
    ASSERT_EQ(CreateIn(m_output), kSuccess);
    const struct {
        std::function<void(mp4_video_track_info_t&)> change;
        mp4_status_t status;
        std::string log;
    } kTable[] = {
        {[](auto& t) { t.timescale = 0; }, kInvalid, "invalid video timescale"},
        {[](auto& t) { t.height = 0; }, kInvalid, "invalid video width(64) or height(0)"},
        {[](auto& t) { t.width = 0; }, kInvalid, "invalid video width(0) or height(64)"},
        {[](auto& t) { t.codec = streams::Forged<mp4_video_codec>(7); },
         MP4_STATUS_INVALID_CODEC_TYPE, "invalid codec type 7"},
        {[](auto& t) { t.codec = MP4_MVC_UNKNOWN; }, MP4_STATUS_INVALID_CODEC_TYPE,
         "invalid codec type -1"},
        {[](auto& t) { t.h264.sps_size = -1; }, kInvalid, ""},
        {[](auto& t) { t.h264.pps_size = -32768; }, kInvalid, ""},
        {[](auto& t) { t = streams::HevcTrack(), t.hevc.vps_size = -1; }, kInvalid, ""},
    };
    for (const auto& row : kTable) {
        auto track = streams::H264Track();
        row.change(track);
        EXPECT_EQ(m_muxer.SetVideoTrack(&track), row.status) << row.log;
        EXPECT_TRUE(row.log.empty() || m_log.Count("error", row.log, "SetVideoTrack") == 1)
            << row.log;
        EXPECT_EQ(Video(test_pattern::Picture(0), 0), MP4_STATUS_INVALID_VIDEO_TRACK) << row.log;
    }
    EXPECT_EQ(m_muxer.SetVideoTrack(nullptr), kInvalid);
}

TEST_F(Muxer, AudioCaptionAndTimecodeDescriptionsAreValidated) {
    ASSERT_EQ(CreateIn(m_output), kSuccess);
    const std::pair<mp4_audio_track_info_t, std::string> kTable[] = {
        {{0, 0, MP4_MAC_AAC, 48000, 2, 2}, "invalid timescale in audio track"},
        {{48000, 0, MP4_MAC_AAC, 0, 2, 2}, "invalid audio channel(2) or sample rate(0)"},
        {{48000, 0, MP4_MAC_AAC, 48000, 0, 2}, "invalid audio channel(0) or sample rate(48000)"},
        {{48000, 0, MP4_MAC_UNKNOWN, 48000, 2, 2}, "invalid audio codec 0"},
        {{48000, 0, streams::Forged<mp4_audio_codec>(3), 48000, 2, 2}, "invalid audio codec 3"},
    };
    for (const auto& [track, log] : kTable) {
        EXPECT_EQ(m_muxer.SetAudioTrack(&track), kInvalid) << log;
        EXPECT_EQ(m_log.Count("error", log, "SetAudioTrack"), 1) << log;
    }
    const auto adts = streams::AdtsTrack();
    EXPECT_EQ(m_muxer.SetAudioTrack(&adts), kSuccess);
    EXPECT_EQ(m_muxer.SetAudioTrack(nullptr), kInvalid);
    EXPECT_EQ(m_muxer.SetSubtitleTrack(nullptr), kInvalid);
    EXPECT_EQ(m_muxer.SetTCMDTrack(nullptr), kInvalid);
}

TEST_F(Muxer, MetadataIsValidated) {
    ASSERT_EQ(CreateIn(m_output), kSuccess);
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
        {nullptr, "x", 1, MP4_META_DATA_TYPE_STRING, kInvalid, "invalid meta data"},
        {"title", nullptr, 1, MP4_META_DATA_TYPE_STRING, kInvalid, "invalid meta data"},
        {"k", bytes, 0, MP4_META_DATA_TYPE_INT, kInvalid, "invalid meta(k) data length 0"},
        {"title", "x", 0, MP4_META_DATA_TYPE_RAW, kInvalid, "invalid meta(title) data length 0"},
        {"k", bytes, 3, MP4_META_DATA_TYPE_INT, kInvalid, ""},
        {"k", bytes, 4, MP4_META_DATA_TYPE_INT, kSuccess, ""},
        {"k", "x", 0, MP4_META_DATA_TYPE_STRING, kSuccess, ""},
    };
    for (const auto& row : kTable) {
        m_log.Clear();
        EXPECT_EQ(m_muxer.SetMetadata(row.key, row.data, row.size, row.type, nullptr), row.status);
        EXPECT_TRUE(row.log.empty() || m_log.Count("error", row.log, "SetMetadata") == 1);
    }
    // Raw bytes without a terminator, for a well-known key: not a byte past them is read.
    const auto raw = std::make_unique<char[]>(2);
    raw[0] = raw[1] = 'y';
    EXPECT_EQ(m_muxer.SetMetadata("artist", raw.get(), 2, MP4_META_DATA_TYPE_RAW, nullptr),
              kSuccess);
    const auto track = streams::AacTrack();
    ASSERT_EQ(m_muxer.SetAudioTrack(&track), kSuccess);
    ASSERT_EQ(Audio(test_pattern::kSilence, 0), kSuccess);
    ASSERT_EQ(m_muxer.Close(), kSuccess);
    const MovieReader movie = m_output.Movie();
    EXPECT_EQ(movie.At("moov/udta/meta/ilst/\251ART/data").Text(16, 2), "yy");
    EXPECT_EQ(movie.At("moov/meta/keys").U32(12), 2U);
    EXPECT_EQ(movie.At("moov/meta/ilst").children.size(), 2U);
}

// The frame paths

TEST_F(Muxer, FramesThatCannotBeStored) {
    ASSERT_EQ(CreateIn(m_output), kSuccess);
    EXPECT_EQ(Video(test_pattern::Picture(0), 0), MP4_STATUS_INVALID_VIDEO_TRACK);
    EXPECT_EQ(m_log.Count("error", "invalid video track!", "WriteVideoFrame"), 1);
    const auto track = streams::H264Track();
    ASSERT_EQ(m_muxer.SetVideoTrack(&track), kSuccess);
    for (const char* const frame : {"000001", "ffffffffff", "00000001"})
        EXPECT_EQ(Video(Hex(frame), 0), MP4_STATUS_INVALID_VIDEO_STREAM) << frame;
    EXPECT_EQ(m_log.Count("error", "Parse video frame fail !", "WriteVideoFrame"), 3);
    EXPECT_EQ(m_muxer.WriteVideoFrame(nullptr, 5, 0, 0), kSuccess);
    EXPECT_EQ(m_muxer.WriteVideoFrame(track.h264.sps, 0, 0, 0), kSuccess);
    EXPECT_EQ(m_muxer.WriteAudioFrame(nullptr, 5, 0), kSuccess);
    EXPECT_EQ(m_muxer.WriteAudioFrame(track.h264.sps, 0, 0), kSuccess);
    EXPECT_EQ(m_output.writes, 0) << "not even the header";

    EXPECT_EQ(Audio(test_pattern::kSilence, 0), MP4_STATUS_NO_SPACE_LEFT_IN_HEADER);
    EXPECT_EQ(Video(test_pattern::Picture(0), 0), kSuccess);
    ASSERT_EQ(m_muxer.Close(), kSuccess);
    const MovieReader movie = m_output.Movie();
    EXPECT_EQ(movie.Tracks().size(), 1U);
    EXPECT_EQ(movie.SampleBytes(movie.TrackOf("vide").samples.at(0)),
              streams::LengthPrefixed(streams::PictureUnits(0)));
}

TEST_F(Muxer, ParameterSetsAreCollectedFromSeveralFrames) {
    const Bytes idr = Hex("658884");
    const Bytes hevc = Hex("260180");
    const struct {
        mp4_video_track_info_t track;
        std::vector<std::vector<Bytes>> frames;
        const char* configuration;
    } kTable[] = {
        {streams::H264Track(),
         {{idr}, {test_pattern::kPps, idr}, {idr}, {test_pattern::kSps, idr}, {idr}},
         "moov/trak/mdia/minf/stbl/stsd/avc1/avcC"},
        {streams::HevcTrack(),
         {{hevc},
          {streams::kHevcPps},
          {streams::kHevcSps, hevc},
          {streams::kHevcVps, hevc},
          {hevc}},
         "moov/trak/mdia/minf/stbl/stsd/hvc1/hvcC"},
    };
    for (const auto& row : kTable) {
        Bytes configurations[2];
        m_log.Clear();
        for (const bool deferred : {false, true}) {
            MemoryOutput output;
            ASSERT_EQ(CreateIn(output), kSuccess);
            const auto track = deferred ? streams::Deferred(row.track) : row.track;
            ASSERT_EQ(m_muxer.SetVideoTrack(&track), kSuccess);
            uint64_t time = 0;
            for (const auto& units : row.frames) {
                // Every frame in memory of its own, which is gone after the call.
                const auto frame = std::make_unique<Bytes>(streams::AccessUnit(units));
                EXPECT_EQ(Video(*frame, time += 3000), kSuccess);
            }
            ASSERT_EQ(m_muxer.Close(), kSuccess);
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
        EXPECT_EQ(m_log.Count("warn", "no codec data, drop frame", "WriteVideoFrame"), 1);
        EXPECT_EQ(m_log.Count("warn", "no codec data, 3 frames dropped", "WriteVideoFrame"), 1);
    }
}

TEST_F(Muxer, SetsThatCannotBeDescribedAreNotTaken) {
    ASSERT_EQ(CreateIn(m_output), kSuccess);
    auto track = streams::Deferred(streams::H264Track());
    track.h264.sps = test_pattern::kPps.data();  // a pointer with size 0 counts as absent
    ASSERT_EQ(m_muxer.SetVideoTrack(&track), kSuccess);
    Bytes huge = test_pattern::kSps;
    huge.resize(40000, 0x11);  // past the 16-bit size
    EXPECT_EQ(Video(streams::AccessUnit({huge, test_pattern::kPps, Hex("658884")}), 0), kSuccess);
    EXPECT_EQ(m_log.Count("warn", "no codec data, drop frame", "WriteVideoFrame"), 1);
    EXPECT_EQ(Video(test_pattern::Picture(0), 3000), kSuccess);
    ASSERT_EQ(m_muxer.Close(), kSuccess);
    const MovieReader movie = m_output.Movie();
    EXPECT_EQ(movie.At("moov/trak/mdia/minf/stbl/stsd/avc1/avcC").Content(16, 7),
              test_pattern::kSps);
}

// A set of which no configuration can be made is refused when it is declared, and leaves the
// earlier declaration in place; in a stream it is passed over, with one warning. Close never fails
// for it.
TEST_F(Muxer, AUselessParameterSetIsRefusedOrPassedOver) {
    const Bytes cutOff = Hex("4201010160");  // ends within the profile
    const Bytes shortSps = Hex("674200");
    auto h264 = streams::H264Track();
    h264.h264.sps_size = 3;
    auto hevc = streams::HevcTrack();
    hevc.hevc.sps = cutOff.data();
    hevc.hevc.sps_size = 5;
    auto mixed = streams::HevcTrack();
    std::swap(mixed.hevc.vps, mixed.hevc.sps);
    std::swap(mixed.hevc.vps_size, mixed.hevc.sps_size);
    auto deferred = streams::Deferred(streams::HevcTrack());
    deferred.hevc.sps = cutOff.data();
    deferred.hevc.sps_size = 5;
    for (const bool fromStream : {false, true}) {
        for (const bool isHevc : {false, true}) {
            MemoryOutput output;
            ASSERT_EQ(CreateIn(output), kSuccess);
            const auto good = isHevc ? streams::HevcTrack() : streams::H264Track();
            const auto track = fromStream ? streams::Deferred(good) : good;
            ASSERT_EQ(m_muxer.SetVideoTrack(&track), kSuccess);
            for (const auto& bad : {h264, hevc, mixed, deferred})
                EXPECT_EQ(m_muxer.SetVideoTrack(&bad), MP4_STATUS_UNEXPECTED_ERROR);
            const auto codec = isHevc ? MP4_MVC_HEVC : MP4_MVC_H264;
            const auto odd = streams::AccessUnit({isHevc ? cutOff : shortSps});
            for (int i = 0; i < 3; ++i)
                EXPECT_EQ(Video(odd, 0), kSuccess);
            EXPECT_EQ(m_log.Count("warn",
                                  "a video parameter set in the stream cannot be described "
                                  "and is not taken"),
                      fromStream ? 1 : 0);
            m_log.Clear();
            EXPECT_EQ(Video(streams::AccessUnit(streams::PictureUnits(0, codec)), 3000), kSuccess);
            ASSERT_EQ(m_muxer.Close(), kSuccess);
            const MovieReader movie = output.Movie();
            EXPECT_EQ(movie.TrackOf("vide").samples.size(), fromStream ? 1U : 4U) << isHevc;
        }
    }
}

TEST_F(Muxer, AdtsHeadersAreTakenOffAndConfigureTheTrack) {
    const auto adts = streams::AdtsTrack();
    const auto raw = streams::AacTrack();
    const struct {
        mp4_audio_track_info_t track;
        std::string frame;
        std::string sample;  // empty: refused
        uint32_t rate;
        std::string config;
    } kTable[] = {
        {adts, "fff15080 0000fc 2110", "2110", 44100, "1210"},
        {adts, "fff14c40 0000fc 2110", "2110", 48000, "1188"},
        {adts, "fff14080 0000fc 2110", "2110", 0, "1010"},      // 96000 Hz has no room in the entry
        {adts, "fff10d80 0000fc 2110", "2110", 48000, "09b0"},  // AAC Main, 6 channels
        {adts, "2110 0000 0000 0000", "", 0, ""},
        {adts, "fff15080 0000fc", "", 0, ""},
        {raw, "fff15080 0000fc", "fff15080 0000fc", 48000, "1188"},
        // With a CRC, of a buffer that is the frame, that is more, and that holds two blocks.
        {adts, "fff05080 017ffc abcd 2110", "2110", 44100, "1210"},
        {adts, "fff05080 015ffc abcd 2110", "abcd 2110", 44100, "1210"},
        {adts, "fff05080 017ffd abcd 2110", "2110", 44100, "1210"},
        {raw, "fff95080 0000fc 21", "21", 48000, "1188"},
        {raw, "ffe15080 0000fc 21", "ffe15080 0000fc 21", 48000, "1188"},
    };
    for (const auto& row : kTable) {
        const bool good = !row.sample.empty();
        MemoryOutput output;
        ASSERT_EQ(CreateIn(output), kSuccess);
        ASSERT_EQ(m_muxer.SetAudioTrack(&row.track), kSuccess);
        EXPECT_EQ(Audio(Hex(row.frame), 0), good ? kSuccess : MP4_STATUS_INVALID_ADTS_STREAM);
        if (good) {
            EXPECT_EQ(Audio(Hex("2120"), 1024), kSuccess) << "raw once it is configured";
        }
        const bool oneFrame = row.frame.substr(9, 8) == "017ffc a";
        const bool odd = row.frame.substr(0, 4) == "fff0" && !oneFrame;
        int warnings = 0;
        for (const auto& line : m_log.Lines())
            warnings += line.text.find("a call takes one frame") != std::string::npos ? 1 : 0;
        EXPECT_TRUE(!odd || warnings == 1) << row.frame;
        EXPECT_TRUE(!oneFrame || warnings == 0) << row.frame;
        m_log.Clear();
        ASSERT_EQ(m_muxer.Close(), kSuccess);
        if (!good) continue;
        const MovieReader movie = output.Movie();
        ASSERT_EQ(movie.TrackOf("soun").samples.size(), 2U);
        EXPECT_EQ(movie.SampleBytes(movie.TrackOf("soun").samples[0]), Hex(row.sample));
        const Box& entry = movie.At("moov/trak/mdia/minf/stbl/stsd/mp4a");
        EXPECT_EQ(entry.U32(32), row.rate << 16) << row.frame;
        EXPECT_EQ(entry.At("esds").Content(43, 2), Hex(row.config)) << row.frame;
    }
}

TEST_F(Muxer, CompositionOffsetsOfReorderedPictures) {
    // Decoded 0 1 2 3 4, shown 0 3 1 2 4: one picture of delay.
    const uint64_t kShown[] = {1, 4, 2, 3, 5};
    constexpr const char* kLostOffsets =
        "presentation time 3000 differs from decode time 0, but only decode times are recorded: "
        "call SetCompositionOffsets before the first frame";
    for (const bool enabled : {true, false}) {
        MemoryOutput output;
        ASSERT_EQ(CreateIn(output), kSuccess);
        EXPECT_EQ(m_muxer.SetCompositionOffsets(enabled), kSuccess);
        const auto track = streams::H264Track();
        ASSERT_EQ(m_muxer.SetVideoTrack(&track), kSuccess);
        const Bytes picture = test_pattern::Picture(0);
        const auto size = static_cast<uint32_t>(picture.size());
        for (uint64_t i = 0; i < 5; ++i)
            ASSERT_EQ(m_muxer.WriteVideoFrame(picture.data(), size, kShown[i] * 3000, i * 3000),
                      kSuccess);
        EXPECT_EQ(m_muxer.SetCompositionOffsets(!enabled), kInvalid);
        if (enabled) {
            output.calls.clear();
            EXPECT_EQ(m_muxer.WriteVideoFrame(picture.data(), size, uint64_t{1} << 40, 15000),
                      kInvalid);
            EXPECT_EQ(m_muxer.WriteVideoFrame(picture.data(), size, 15000, 11999), kInvalid);
            EXPECT_TRUE(output.calls.empty()) << "nothing of them is written";
        }
        EXPECT_EQ(m_log.Count("warn", kLostOffsets, "WriteVideoFrame"), enabled ? 0 : 1);
        ASSERT_EQ(m_muxer.Close(), kSuccess);
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
    const uint64_t kTimes[] = {
        5000, 4000, 4000, uint64_t{1} << 33, UINT64_MAX, 0, uint64_t{1} << 63, 7};
    const auto video = streams::H264Track();
    const auto audio = streams::AacTrack();
    for (const uint32_t flags : {0U, uint32_t{MP4_FLAG_64BIT_TIME}}) {
        for (size_t count = 1; count <= std::size(kTimes); ++count) {
            MemoryOutput output;
            ASSERT_EQ(CreateIn(output, flags), kSuccess);
            ASSERT_EQ(m_muxer.SetVideoTrack(&video), kSuccess);
            ASSERT_EQ(m_muxer.SetAudioTrack(&audio), kSuccess);
            for (size_t i = 0; i < count; ++i) {
                EXPECT_EQ(Video(test_pattern::Picture(0), kTimes[i]), kSuccess);
                EXPECT_EQ(Audio(test_pattern::kSilence, kTimes[i]), kSuccess);
                m_muxer.GetDurationMS();
                m_muxer.GetMoovSize();
            }
            ASSERT_EQ(m_muxer.Close(), kSuccess);
            const MovieReader movie = output.Movie();
            ASSERT_EQ(movie.TrackOf("vide").samples.size(), count);
            if (count == 1) continue;
            EXPECT_EQ(movie.TrackOf("vide").samples[1].dts, -1000) << "stored as it is";
        }
    }
    for (const std::string& line : m_log.Complaints())
        EXPECT_EQ(line.find("size"), std::string::npos) << line;
}

TEST_F(Muxer, OddTimesAreLoggedOncePerTrackAndRun) {
    ASSERT_EQ(CreateIn(m_output), kSuccess);
    const auto video = streams::H264Track();
    const auto audio = streams::AacTrack();
    const mp4_subtitle_track_info_t captions{MP4_SUBTITLE_CODEC_CC708, 0};
    ASSERT_EQ(m_muxer.SetVideoTrack(&video), kSuccess);
    ASSERT_EQ(m_muxer.SetAudioTrack(&audio), kSuccess);
    ASSERT_EQ(m_muxer.SetSubtitleTrack(&captions), kSuccess);
    const Bytes packet = Hex("6101 03 966955");
    const struct {
        std::string name;
        std::string function;
        uint64_t timescale;
        std::function<mp4_status_t(uint64_t)> write;
    } kTracks[] = {
        {"video", "WriteVideoFrame", video.timescale,
         [&](uint64_t time) { return Video(test_pattern::Picture(0), time); }},
        {"audio", "WriteAudioFrame", audio.timescale,
         [&](uint64_t time) { return Audio(test_pattern::kSilence, time); }},
        {"caption", "WriteSubtitleFrame", 1000,
         [&](uint64_t time) { return m_muxer.WriteSubtitleFrame(packet.data(), 6, time); }},
    };
    for (const auto& track : kTracks) {
        m_log.Clear();
        const uint64_t hour = 3600 * track.timescale;
        const uint64_t jump = 100 + 2 * hour + 1;
        // The first time, however late, is none; nor is an hour, nor a time that stands still.
        for (const uint64_t time :
             {uint64_t{100}, 100 + hour, jump, jump + 9, jump + 9, uint64_t{7}, uint64_t{6},
              uint64_t{5}, uint64_t{9}, uint64_t{8}})
            EXPECT_EQ(track.write(time), kSuccess);
        for (uint64_t time = 100; time > 0; --time)
            EXPECT_EQ(track.write(time * 2 * hour), kSuccess);
        const auto line = [&](const char* what, uint64_t from, uint64_t to) {
            return "warn " + track.function + ": " + track.name + " decode time " + what +
                   " from " + std::to_string(from) + " to " + std::to_string(to);
        };
        EXPECT_THAT(m_log.Complaints(),
                    testing::ElementsAre(line("jumps", 100 + hour, jump) + ", by more than an hour",
                                         line("goes back", jump + 9, 7), line("goes back", 9, 8)));
    }
    ASSERT_EQ(m_muxer.Close(), kSuccess);
    EXPECT_EQ(m_output.Movie().TrackOf("vide").samples.size(), 110U) << "stored as they are";
}

TEST_F(Muxer, TellsHowFarApartTheStartsAreWhenVideoHadToWait) {
    const Bytes packet = Hex("6101 03 966955");
    for (const char* const other : {"audio", "caption", ""}) {
        m_log.Clear();
        MemoryOutput output;
        ASSERT_EQ(CreateIn(output), kSuccess);
        const auto video = streams::Deferred(streams::H264Track());
        const auto audio = streams::AacTrack();
        const mp4_subtitle_track_info_t captions{MP4_SUBTITLE_CODEC_CC708, 1000};
        ASSERT_EQ(m_muxer.SetVideoTrack(&video), kSuccess);
        ASSERT_EQ(m_muxer.SetAudioTrack(&audio), kSuccess);
        ASSERT_EQ(m_muxer.SetSubtitleTrack(&captions), kSuccess);
        const Bytes slice = streams::AccessUnit({Hex("419a02")});
        for (uint64_t second = 1; second < 4; ++second) {
            mp4_status_t status = kSuccess;
            if (other[0] == 'a') status = Audio(test_pattern::kSilence, second * 48000);
            if (other[0] == 'c')
                status = m_muxer.WriteSubtitleFrame(packet.data(), 6, second * 1000);
            EXPECT_EQ(status, kSuccess);
            EXPECT_EQ(Video(slice, second * 90000), kSuccess);
        }
        const bool found = other[0] != '\0';
        if (found) {
            EXPECT_EQ(Video(test_pattern::Picture(0), 360090), kSuccess);
            EXPECT_EQ(Video(test_pattern::Picture(1), 363090), kSuccess);
        }
        ASSERT_EQ(m_muxer.Close(), kSuccess);
        std::vector<std::string> expected = {"warn WriteVideoFrame: no codec data, drop frame",
                                             "warn Close: no codec data, 3 frames dropped"};
        if (found)
            expected = {expected[0], "warn WriteVideoFrame: no codec data, 3 frames dropped",
                        "warn WriteVideoFrame: video waited for its parameter sets: the first "
                        "picture is at 4001 ms, the first " +
                            std::string(other) + " sample at 1000 ms, 3001 ms apart"};
        auto complaints = m_log.Complaints();
        complaints.resize(std::min(complaints.size(), expected.size()));
        EXPECT_EQ(complaints, expected);
        EXPECT_EQ(m_log.Count("warn", expected.back().substr(expected.back().find(": ") + 2)), 1);
    }
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

/// Compares with a kept text; KX_MP4_UPDATE_GOLDEN=1 in the environment keeps the new one.
void ExpectGolden(const std::string& name, const std::string& text) {
    const std::string path = std::string(KX_MP4_GOLDEN_FOLDER) + "/" + name + ".txt";
    if (std::getenv("KX_MP4_UPDATE_GOLDEN") != nullptr) std::ofstream(path) << text;
    std::ostringstream kept;
    kept << std::ifstream(path).rdbuf();
    EXPECT_EQ(text, kept.str()) << path;
}

TEST_F(Muxer, GoldenFiles) {
    for (const char* const form : {"mp4", "mov"}) {
        for (const uint32_t flags : {0U, 3U}) {
            const std::string name = std::string("everything.") + form;
            ASSERT_EQ(
                streams::RecordEverything(m_folder.Wide(name), streams::FileConfig(flags), 12),
                kSuccess);
            ExpectGolden(std::string("everything_") + form + (flags == 0 ? "" : "_64bit"),
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
        ExpectGolden(name, Text(output.Movie()));
    }
}

// A frame of 2 GiB or more is refused before a byte of it is read, and a refused declaration leaves
// the one before it in place.
TEST_F(Muxer, WhatIsRefusedChangesNothing) {
    MemoryOutput output;
    ASSERT_EQ(CreateIn(output), kSuccess);
    const auto h264 = streams::H264Track();
    const auto adts = streams::AdtsTrack();
    ASSERT_EQ(m_muxer.SetVideoTrack(&h264), kSuccess);
    ASSERT_EQ(m_muxer.SetAudioTrack(&adts), kSuccess);
    auto badVideo = h264;
    badVideo.codec = streams::Forged<mp4_video_codec>(9);
    EXPECT_EQ(m_muxer.SetVideoTrack(&badVideo), MP4_STATUS_INVALID_CODEC_TYPE);
    auto noRate = streams::AacTrack();
    noRate.sample_rate = 0;
    auto badAudio = adts;
    badAudio.codec = MP4_MAC_UNKNOWN;
    for (const auto& track : {noRate, badAudio})
        EXPECT_EQ(m_muxer.SetAudioTrack(&track), MP4_STATUS_INVALID_PARAMETER);
    const uint8_t byte = 0;
    for (const uint32_t size : {0x80000000U, UINT32_MAX}) {
        EXPECT_EQ(m_muxer.WriteVideoFrame(&byte, size, 0, 0), MP4_STATUS_INVALID_PARAMETER);
        EXPECT_EQ(m_muxer.WriteAudioFrame(&byte, size, 0), MP4_STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(Video(test_pattern::Picture(0), 0), kSuccess);
    EXPECT_EQ(Audio(test_pattern::AdtsSilence(), 0), kSuccess);
    ASSERT_EQ(m_muxer.Close(), kSuccess);
    EXPECT_EQ(output.Movie().Tracks().size(), 2U);
}

TEST_F(Muxer, CallbacksComeInOrder) {
    MemoryOutput output;
    ASSERT_EQ(CreateIn(output), MP4_STATUS_SUCCESS);
    const auto track = streams::H264Track();
    ASSERT_EQ(m_muxer.SetVideoTrack(&track), MP4_STATUS_SUCCESS);
    EXPECT_THAT(output.calls, testing::ElementsAre("init out.mp4 0 0"));
    const auto writesAndSeeks = [&output] {
        std::vector<std::string> calls;
        for (const std::string& call : output.calls)
            if (call != "tell") calls.push_back(call);
        output.calls.clear();
        return calls;
    };
    writesAndSeeks();
    ASSERT_EQ(Video(Hex("00000001 09f0 00000001 658884"), 0), MP4_STATUS_SUCCESS);
    EXPECT_THAT(
        writesAndSeeks(),
        testing::ElementsAre("write 4", "write 4", "write 4", "write 4", "write 4", "write 4",
                             "write 4", "seek 0 0", "write 4", "seek 28 0",  // ftyp
                             "write 4", "write 4",                           // free
                             "write 4", "write 4",                           // mdat
                             "write 4", "write 2", "write 4", "write 3"));   // the sample
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    auto calls = writesAndSeeks();
    ASSERT_GT(calls.size(), 5U);
    EXPECT_EQ(calls.back(), "uninit");
    calls.resize(5);  // the size of mdat, then moov at the end
    EXPECT_THAT(calls,
                testing::ElementsAre("seek 36 0", "write 4", "seek 57 0", "write 4", "write 4"));
}

}  // namespace
