// The ways into the muxer beside the described ones: UTF-8 paths, callbacks with an argument, log
// callbacks and length-prefixed video. Each has to give the bytes that the described way gives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <numeric>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kx_mp4/Mp4Muxer.h"
#include "log_capture.h"
#include "memory_output.h"
#include "scratch_folder.h"
#include "streams.h"

namespace {

constexpr uint32_t kPictures = 6;
constexpr std::chrono::microseconds kSlow{20000};

Bytes Wide(const std::wstring& path) {
    MemoryOutput out;
    EXPECT_EQ(
        streams::RecordEverything(path, streams::CallbackConfig(0, out.Functions()), kPictures),
        MP4_STATUS_SUCCESS);
    return out.Content();
}

TEST(Door, Utf8PathsNeedNoLocaleAndTakeTheContainerAsAValue) {
    const ScratchFolder folder;
    const struct {
        mp4_container container;
        const char* name;
        const wchar_t* same;
    } kTable[] = {
        {MP4_CONTAINER_MP4, "a mov\xC3\xAF.mp4", L"m.mp4"},
        {MP4_CONTAINER_QUICKTIME, "\xE2\x82\xAC\xF0\x9F\x8E\xA5.mp4", L"mov"},
        {MP4_CONTAINER_FROM_PATH, "x.mp4", L"x.mp4"},
        {MP4_CONTAINER_FROM_PATH, "x.mov", L"x.mov"},
    };
    for (const auto& row : kTable) {
        CMp4Muxer muxer;
        const std::string path = folder.Path(row.name);
        ASSERT_EQ(muxer.Create(path, row.container, streams::FileConfig(MP4_FLAG_REPAIR_INFO)),
                  MP4_STATUS_SUCCESS);
        EXPECT_TRUE(muxer.IsRepairInfoActive());
        ASSERT_EQ(streams::Run(muxer, streams::Everything(kPictures)), MP4_STATUS_SUCCESS);
        ASSERT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
        EXPECT_EQ(ReadFile(path), Wide(row.same)) << row.name;
    }
}

TEST(Door, PathsThatAreNoUtf8AreRefused) {
    const std::string_view kTable[] = {"",
                                       std::string_view("a\0b", 3),
                                       "\x80",
                                       "\xC0\xAF",
                                       "\xC3",
                                       "\xE2\x82",
                                       "\xED\xA0\x80",
                                       "\xF4\x90\x80\x80",
                                       "\xF5\x80\x80\x80",
                                       "\xE0\x80\xAF",
                                       "\xC3("};
    const LogCapture log;
    CMp4Muxer muxer;
    for (const std::string_view path : kTable)
        EXPECT_EQ(muxer.Create(path, MP4_CONTAINER_MP4, streams::FileConfig(0)),
                  MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(muxer.Create(std::string(1023, 'a'), MP4_CONTAINER_MP4, streams::FileConfig(0)),
              MP4_STATUS_FILE_NAME_TOO_LONG);
    EXPECT_FALSE(muxer.IsOpen());
}

TEST(Door, CallbacksOfTheSecondFormHaveAnArgumentAndTellOfFailures) {
    const LogCapture log;
    constexpr mp4_status_t kGood = MP4_STATUS_SUCCESS;
    constexpr mp4_status_t kFull = MP4_STATUS_NO_SPACE_LEFT;
    constexpr mp4_status_t kNotOpen = MP4_STATUS_FILE_NOT_OPEN;
    const struct {
        std::string failing;
        mp4_status_t create;
        mp4_status_t record;
        mp4_status_t flush;
        mp4_status_t close;
    } kTable[] = {
        {"none", kGood, kGood, kGood, kGood},
        {"init", MP4_STATUS_INVALID_PARAMETER, kNotOpen, kNotOpen, kGood},
        {"tell", kGood, kFull, kFull, kFull},
        {"write", kGood, kFull, kFull, kFull},
        {"seek", kGood, kFull, kFull, kFull},
        {"flush", kGood, kGood, kFull, kFull},
        {"uninit", kGood, kGood, kGood, kFull},
    };
    for (const auto& row : kTable) {
        MemoryOutput out;
        out.onCall = [&](std::string_view callback) { return callback != row.failing; };
        CMp4Muxer muxer;
        EXPECT_EQ(muxer.Create("out.mp4", MP4_CONTAINER_MP4, 0, out.Callbacks()), row.create);
        EXPECT_EQ(out.calls.at(0), "init out.mp4");
        EXPECT_EQ(streams::Run(muxer, streams::Everything(kPictures)), row.record) << row.failing;
        EXPECT_EQ(muxer.Flush(), row.flush) << row.failing;
        EXPECT_EQ(muxer.Close(), row.close) << row.failing;
        if (row.failing == "none") {
            EXPECT_EQ(out.Content(), Wide(L"m.mp4"));
        }
    }
    mp4_io_callbacks_t incomplete{};
    CMp4Muxer muxer;
    EXPECT_EQ(muxer.Create("out.mp4", MP4_CONTAINER_MP4, 0, incomplete),
              MP4_STATUS_INVALID_PARAMETER);
}

struct Heard {
    std::vector<std::string> lines;
    CMp4Muxer* inner = nullptr;  // used while a line is taken

    static void Take(void* user, mp4_log_level_t level, const char* source, int line,
                     const char* operation, const char* text) {
        EXPECT_GT(line, 0);
        static_cast<Heard*>(user)->lines.push_back(std::to_string(level) + " " + source + " " +
                                                   operation + ": " + text);
        if (static_cast<Heard*>(user)->inner != nullptr) static_cast<Heard*>(user)->inner->Flush();
    }
};

TEST(Door, ALogCallbackTakesTheLinesOfItsOwnMuxerOnly) {
    const LogCapture linkTime;
    Heard heard;
    CMp4Muxer mine;
    CMp4Muxer other;
    mine.SetLogCallback(Heard::Take, &heard);
    mp4_config_t config = streams::FileConfig(0);
    for (const streams::Step& step : streams::EveryCall())
        EXPECT_EQ(step.run(mine), MP4_STATUS_FILE_NOT_OPEN) << step.name;
    EXPECT_TRUE(linkTime.Lines().empty());
    EXPECT_EQ(heard.lines.size(), streams::EveryCall().size());
    // Another muxer logs inside the callback.
    heard.lines.clear();
    heard.inner = &other;
    EXPECT_EQ(mine.WriteTimeCode(0), MP4_STATUS_FILE_NOT_OPEN);
    EXPECT_EQ(mine.Close(), MP4_STATUS_SUCCESS);
    heard.inner = nullptr;
    EXPECT_EQ(linkTime.Count("error", "no open file, can't do flush", "Flush"),
              static_cast<int>(heard.lines.size()));
    EXPECT_THAT(
        heard.lines,
        ::testing::Contains(::testing::MatchesRegex("2 src/\\w+ WriteTimeCode: file not open!")));
    EXPECT_THAT(heard.lines, ::testing::Contains(::testing::MatchesRegex(
                                 "0 src/\\w+ Close: Muxer - Close - uninit .*")));

    // What goes to standard output otherwise.
    heard.lines.clear();
    const size_t before = linkTime.Lines().size();
    ASSERT_EQ(mine.Create(L"/dev/full", &config), MP4_STATUS_SUCCESS);
    EXPECT_EQ(streams::Run(mine, streams::Everything(1)), MP4_STATUS_NO_SPACE_LEFT);
    EXPECT_EQ(mine.SetRepairFlushInterval(9), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(linkTime.Lines().size(), before);
    EXPECT_THAT(heard.lines,
                ::testing::Contains(::testing::HasSubstr("Write error No space left on device !")));
    EXPECT_THAT(heard.lines, ::testing::Contains("2 src/InfoWriter setFlushInterval: "
                                                 "ERROR:info file flush interval(9) too small"));
    mine.SetLogCallback(nullptr, nullptr);
    EXPECT_EQ(mine.Close(), MP4_STATUS_NO_SPACE_LEFT);
}

/// The configuration record of these sets, as ISO/IEC 14496-15 has it; the fields that nobody reads
/// are zero.
Bytes Record(const mp4_video_track_info_t& track, uint8_t lengthSize) {
    const auto set = [](const uint8_t* data, int16_t size) {
        return Bytes{static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)} +
               Bytes(data, data + size);
    };
    const auto length = static_cast<uint8_t>(0xFC | (lengthSize - 1));
    if (track.codec == MP4_MVC_H264)
        return Bytes{1, 0, 0, 0, length, 0xE1} + set(track.h264.sps, track.h264.sps_size) +
               Bytes{1} + set(track.h264.pps, track.h264.pps_size);
    return Bytes{1} + Bytes(20) + Bytes{length, 4, 0x27, 0, 0, 0x20, 0, 1} +
           set(track.hevc.vps, track.hevc.vps_size) + Bytes{0x21, 0, 1} +
           set(track.hevc.sps, track.hevc.sps_size) + Bytes{0x22, 0, 1} +
           set(track.hevc.pps, track.hevc.pps_size);
}

mp4_status_t Write(CMp4Muxer& muxer, const Bytes& frame, uint64_t time) {
    return muxer.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()), time, time);
}

TEST(Door, LengthPrefixedVideoGivesTheFileOfStartCodes) {
    const LogCapture log;
    for (const mp4_video_track_info_t& track : {streams::H264Track(), streams::HevcTrack()}) {
        for (const uint8_t lengthSize : Bytes{0, 1, 2, 4}) {
            const ScratchFolder folder;
            CMp4Muxer muxer;
            ASSERT_EQ(
                muxer.Create(folder.Path("out.mp4"), MP4_CONTAINER_MP4, streams::FileConfig(0)),
                MP4_STATUS_SUCCESS);
            const Bytes record = Record(track, lengthSize);
            ASSERT_EQ(lengthSize == 0 ? muxer.SetVideoTrack(&track)
                                      : muxer.SetVideoTrack(&track, record.data(),
                                                            static_cast<uint32_t>(record.size())),
                      MP4_STATUS_SUCCESS);
            for (uint32_t i = 0; i < kPictures; ++i) {
                std::vector<Bytes> units = streams::PictureUnits(i, track.codec);
                for (Bytes& unit : units) {  // so that it fits a length of one byte
                    unit.resize(std::min<size_t>(unit.size(), 200));
                    unit.back() = 0x80;
                }
                ASSERT_EQ(Write(muxer,
                                lengthSize == 0 ? streams::AccessUnit(units)
                                                : streams::LengthPrefixed(units, lengthSize),
                                uint64_t{i} * 3000),
                          MP4_STATUS_SUCCESS);
            }
            ASSERT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
            static Bytes s_startCodes;
            const Bytes file = ReadFile(folder.Path("out.mp4"));
            if (lengthSize == 0) s_startCodes = file;
            EXPECT_EQ(file, s_startCodes) << int{lengthSize};
        }
    }
}

TEST(Door, LengthsAndRecordsThatDoNotHoldAreRefusedBeforeAnythingIsWritten) {
    const LogCapture log;
    const ScratchFolder folder;
    CMp4Muxer muxer;
    ASSERT_EQ(muxer.Create(folder.Path("out.mp4"), MP4_CONTAINER_MP4, streams::FileConfig(0)),
              MP4_STATUS_SUCCESS);
    for (const mp4_video_track_info_t& track : {streams::HevcTrack(), streams::H264Track()}) {
        Bytes record = Record(track, 4);
        for (uint32_t size = 0; size < record.size(); ++size)
            EXPECT_EQ(muxer.SetVideoTrack(&track, record.data(), size),
                      MP4_STATUS_INVALID_PARAMETER);
        EXPECT_EQ(muxer.SetVideoTrack(&track, nullptr, 9), MP4_STATUS_INVALID_PARAMETER);
        EXPECT_GE(log.Count("error", "the decoder configuration record cannot be read"), 20);
        record[0] = 2;
        EXPECT_EQ(muxer.SetVideoTrack(&track, record.data(), static_cast<uint32_t>(record.size())),
                  MP4_STATUS_INVALID_PARAMETER);
        const Bytes three = Record(track, 3);
        EXPECT_EQ(muxer.SetVideoTrack(&track, three.data(), static_cast<uint32_t>(three.size())),
                  MP4_STATUS_INVALID_PARAMETER);
    }
    const mp4_video_track_info_t track = streams::H264Track();
    const Bytes record = Record(track, 4);
    ASSERT_EQ(muxer.SetVideoTrack(&track, record.data(), static_cast<uint32_t>(record.size())),
              MP4_STATUS_SUCCESS);
    // A declaration that is refused leaves this one, and its lengths of four bytes.
    const Bytes narrow = Record(track, 1);
    mp4_video_track_info_t refused = track;
    refused.timescale = 0;
    EXPECT_EQ(muxer.SetVideoTrack(&refused, narrow.data(), static_cast<uint32_t>(narrow.size())),
              MP4_STATUS_INVALID_PARAMETER);
    for (const char* frame : {"00000002 65", "ffffffff 6588", "00000001 65 00", "00000000", "65"})
        EXPECT_EQ(Write(muxer, Hex(frame), 0), MP4_STATUS_INVALID_VIDEO_STREAM) << frame;
    ASSERT_EQ(Write(muxer, Hex("00000000 00000002 6588"), 0), MP4_STATUS_SUCCESS);
    ASSERT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
    const MovieReader movie(ReadFile(folder.Path("out.mp4")));
    const Track& video = movie.TrackOf("vide");
    ASSERT_EQ(video.samples.size(), 1U);
    EXPECT_EQ(movie.SampleBytes(video.samples[0]), Hex("00000002 6588"));
}

TEST(Door, StatisticsCountWhatIsInTheFileAndWhatIsNot) {
    const LogCapture log;
    const ScratchFolder folder;
    CMp4Muxer muxer;
    mp4_statistics_t statistics{};
    EXPECT_EQ(muxer.GetStatistics(nullptr), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(muxer.GetStatistics(&statistics), MP4_STATUS_INVALID_PARAMETER);
    statistics.struct_size = sizeof statistics;
    ASSERT_EQ(muxer.Create(folder.Path("out.mp4"), MP4_CONTAINER_MP4,
                           streams::FileConfig(MP4_FLAG_REPAIR_INFO)),
              MP4_STATUS_SUCCESS);
    const mp4_video_track_info_t deferred = streams::Deferred(streams::H264Track());
    const mp4_audio_track_info_t audio = streams::AacTrack();
    ASSERT_EQ(muxer.SetVideoTrack(&deferred), MP4_STATUS_SUCCESS);
    ASSERT_EQ(muxer.SetAudioTrack(&audio), MP4_STATUS_SUCCESS);
    ASSERT_EQ(Write(muxer, Hex("00000001 4188"), 0), MP4_STATUS_SUCCESS);  // no parameter sets yet
    for (const uint64_t time : {9000U, 12000U, 3000U})
        ASSERT_EQ(Write(muxer, streams::AccessUnit(streams::PictureUnits(0)), time),
                  MP4_STATUS_SUCCESS);
    const Bytes sound(7, 0x21);
    ASSERT_EQ(muxer.WriteAudioFrame(sound.data(), 7, 1024), MP4_STATUS_SUCCESS);
    ASSERT_EQ(muxer.Flush(), MP4_STATUS_SUCCESS);
    ASSERT_EQ(muxer.GetStatistics(&statistics), MP4_STATUS_SUCCESS);
    const auto picture = streams::LengthPrefixed(streams::PictureUnits(0)).size();
    EXPECT_EQ(statistics.video.samples, 3U);
    EXPECT_EQ(statistics.video.bytes, 3 * picture);
    EXPECT_EQ(statistics.video.first_time, 9000);
    EXPECT_EQ(statistics.video.last_time, 3000);
    EXPECT_EQ(statistics.video.timescale, 90000U);
    EXPECT_EQ(statistics.video.dropped, 1U);
    EXPECT_EQ(statistics.video.odd_times, 1U);
    EXPECT_EQ(statistics.audio.samples, 1U);
    EXPECT_EQ(statistics.audio.bytes, 7U);
    EXPECT_EQ(statistics.index_bytes, muxer.GetMoovSize());
    EXPECT_EQ(statistics.repair_info_active, 1U);
    EXPECT_GE(statistics.longest_write_us, statistics.last_write_us);
    EXPECT_EQ(
        std::accumulate(std::begin(statistics.calls), std::end(statistics.calls), uint64_t{0}), 5U);

    // An older caller's record is not written past its end.
    mp4_statistics_t older{};
    older.struct_size = offsetof(mp4_statistics_t, audio);
    older.audio.samples = 77;
    ASSERT_EQ(muxer.GetStatistics(&older), MP4_STATUS_SUCCESS);
    EXPECT_EQ(older.video.samples, 3U);
    EXPECT_EQ(older.audio.samples, 77U);

    ASSERT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
    ASSERT_EQ(muxer.GetStatistics(&statistics), MP4_STATUS_SUCCESS);
    EXPECT_EQ(statistics.video.samples, 3U) << "those of the last recording";
    EXPECT_EQ(statistics.repair_info_active, 0U);
    EXPECT_EQ(statistics.index_bytes, 0U);
}

TEST(Door, StatisticsTimeWritesPushesAndCalls) {
    MemoryOutput out;
    CMp4Muxer muxer;
    ASSERT_EQ(muxer.Create("out.mp4", MP4_CONTAINER_MP4, 0, out.Callbacks()), MP4_STATUS_SUCCESS);
    ASSERT_EQ(streams::Run(muxer, streams::Everything(kPictures)), MP4_STATUS_SUCCESS);
    const auto slowly = [&](const std::string& slow, auto&& operation) {
        out.onCall = [slow](std::string_view callback) {
            if (callback == slow) std::this_thread::sleep_for(kSlow);
            return true;
        };
        EXPECT_EQ(operation(), MP4_STATUS_SUCCESS);
        out.onCall = nullptr;
        EXPECT_EQ(operation(), MP4_STATUS_SUCCESS);
    };
    slowly("write", [&] { return muxer.WriteTimeCode(1); });
    slowly("flush", [&] { return muxer.Flush(); });
    mp4_statistics_t statistics{};
    statistics.struct_size = sizeof statistics;
    ASSERT_EQ(muxer.GetStatistics(&statistics), MP4_STATUS_SUCCESS);
    const uint64_t slow = kSlow.count();
    EXPECT_GE(statistics.longest_write_us, slow);
    EXPECT_LT(statistics.last_write_us, slow);
    EXPECT_GE(statistics.longest_push_us, slow);
    EXPECT_LT(statistics.last_push_us, slow);
    constexpr size_t kBits = 15;  // of the slow call's microseconds
    EXPECT_EQ(std::accumulate(statistics.calls + kBits, std::end(statistics.calls), uint64_t{0}),
              1U);
}

}  // namespace
