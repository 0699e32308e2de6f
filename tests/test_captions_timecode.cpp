// Caption packets and timecode counters on their way into the file.
#include <gtest/gtest.h>

#include "Mp4Muxer.h"
#include "log_capture.h"
#include "memory_output.h"
#include "movie_reader.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

class CaptionsAndTimecode : public ::testing::Test {
protected:
    void SetUp() override { Create(0); }
    void Create(uint32_t flags) {
        auto config = streams::CallbackConfig(flags, m_output.Functions());
        ASSERT_EQ(m_muxer.Create(L"out.mp4", &config), MP4_STATUS_SUCCESS);
    }
    mp4_status_t Declare(mp4_subtitle_codec codec, uint32_t timescale = 1000) {
        const mp4_subtitle_track_info_t track{codec, timescale};
        return m_muxer.SetSubtitleTrack(&track);
    }
    mp4_status_t Write(const std::string& packet, uint64_t time) {
        const Bytes bytes = Hex(packet);
        return m_muxer.WriteSubtitleFrame(bytes.data(), static_cast<uint32_t>(bytes.size()), time);
    }
    const MovieReader& Close() {
        EXPECT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        m_movie = std::make_unique<MovieReader>(m_output.Movie());
        return *m_movie;
    }

    LogCapture m_log;
    MemoryOutput m_output;
    CMp4Muxer m_muxer;
    std::unique_ptr<MovieReader> m_movie;
};

TEST_F(CaptionsAndTimecode, Cea608PacketsBecomeAtoms) {
    ASSERT_EQ(Declare(MP4_SUBTITLE_CODEC_CC608), MP4_STATUS_SUCCESS);
    const struct {
        std::string packet;
        std::string sample;
        bool malformed;
    } kTable[] = {
        {"6102 02 fc942c fd8080", "0000000a 63646174 942c 0000000a 63647432 8080", false},
        {"6102 00 fc942c", "0000000a 63646174 942c", false},
        {"6102 02 fc942c fc2c94", "0000000a 63646174 942c 0000000a 63646174 2c94", false},
        {"6102 01 fc942c fd", "0000000a 63646174 942c", false},  // trailing bytes are ignored
        {"6102 03 fe1111 fd8080 ff2222", "0000000a 63647432 8080", false},  // DTVCC is skipped
        {"6102 01 fe1111", "", false},
        {"6102 01 fc94", "", true},
        {"6002 01 fc942c", "", true},
        {"6101 01 fc942c", "", true},
    };
    uint64_t time = 0;
    int malformed = 0;
    for (const auto& row : kTable) {
        EXPECT_EQ(Write(row.packet, time += 100), MP4_STATUS_SUCCESS) << row.packet;
        malformed += row.malformed ? 1 : 0;
        EXPECT_EQ(m_log.Count("error", "subtitle 608 frame format error"), malformed) << row.packet;
    }
    const MovieReader& movie = Close();
    const Track& track = movie.TrackOf("clcp");
    EXPECT_EQ(track.entryType, "c608");
    ASSERT_EQ(track.samples.size(), std::size(kTable));
    for (size_t i = 0; i < std::size(kTable); ++i) {
        EXPECT_EQ(movie.SampleBytes(track.samples[i]), Hex(kTable[i].sample)) << kTable[i].packet;
        EXPECT_EQ(track.samples[i].dts, static_cast<int64_t>(i) * 100);
    }
    EXPECT_EQ(movie.At("moov/trak/tkhd").U32(84), 0U) << "no video, no size";
    EXPECT_EQ(movie.At("moov/trak/tkhd").U16(44), 0x100);
}

TEST_F(CaptionsAndTimecode, Cea708PacketsBecomeOneAtom) {
    ASSERT_EQ(Declare(MP4_SUBTITLE_CODEC_CC708, 0), MP4_STATUS_SUCCESS);
    const struct {
        std::string packet;
        std::string sample;
        bool malformed;
    } kTable[] = {
        {"6101 03 966955", "0000000b 63636470 966955", false},
        {"6101 02 966955", "0000000a 63636470 9669", false},
        {"6101 00", "00000008 63636470", false},
        {"6101 09 9669551122", "", true},
        {"6101", "", true},
        {"6102 03 966955", "", true},
    };
    uint64_t time = 0;
    int malformed = 0;
    for (const auto& row : kTable) {
        EXPECT_EQ(Write(row.packet, time += 40), MP4_STATUS_SUCCESS) << row.packet;
        malformed += row.malformed ? 1 : 0;
        EXPECT_EQ(m_log.Count("error", "subtitle 708 frame format error"), malformed) << row.packet;
    }
    const MovieReader& movie = Close();
    const Track& track = movie.TrackOf("clcp");
    EXPECT_EQ(track.entryType, "c708");
    EXPECT_EQ(track.timescale, 1000U) << "1000 stands for 0";
    ASSERT_EQ(track.samples.size(), std::size(kTable));
    for (size_t i = 0; i < std::size(kTable); ++i)
        EXPECT_EQ(movie.SampleBytes(track.samples[i]), Hex(kTable[i].sample)) << kTable[i].packet;
}

TEST_F(CaptionsAndTimecode, PacketsThatCannotBeStored) {
    EXPECT_EQ(m_muxer.WriteSubtitleFrame(nullptr, 4, 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.WriteSubtitleFrame(test_pattern::kSps.data(), 0, 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_log.Count("warn", "write subtitle frame with empty data", "WriteSubtitleFrame"), 2);
    EXPECT_EQ(m_output.writes, 0);
    EXPECT_EQ(Write("6102 01 fc942c", 0), MP4_STATUS_INVALID_SUBTITLE_TYPE);
    EXPECT_EQ(m_log.Count("error", "unknown subtitle codec type 0", "WriteSubtitleFrame"), 1);
    EXPECT_EQ(Declare(streams::Forged<mp4_subtitle_codec>(5)), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_log.Count("error", "unknown subtitle codec 5"), 1);
    EXPECT_EQ(Write("6102 01 fc942c", 0), MP4_STATUS_INVALID_SUBTITLE_TYPE);
    EXPECT_EQ(Close().Tracks().size(), 0U);
}

TEST_F(CaptionsAndTimecode, ACaptionBeforeAnyOtherFrameLandsInTheMedia) {
    const auto video = streams::H264Track();
    ASSERT_EQ(m_muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    ASSERT_EQ(Declare(MP4_SUBTITLE_CODEC_CC608), MP4_STATUS_SUCCESS);
    ASSERT_EQ(Write("6102 01 fc942c", 0), MP4_STATUS_SUCCESS);
    const MovieReader& movie = Close();
    EXPECT_EQ(movie.TrackOf("clcp").samples.at(0).offset, 44U);
    EXPECT_EQ(movie.At("moov").ChildTypes(), "mvhd trak udta") << "no video frame, no video track";
    EXPECT_EQ(movie.At("moov/trak/tkhd").U32(84), 64U << 16);
}

TEST_F(CaptionsAndTimecode, TimecodeLastsAsLongAsTheVideo) {
    const auto video = streams::H264Track();
    const mp4_time_code_track_info_t timecode{30000, 1001, 30, 1};
    ASSERT_EQ(m_muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.SetTCMDTrack(&timecode), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.WriteTimeCode(300), MP4_STATUS_SUCCESS);
    for (uint32_t i = 0; i < 30; ++i) {
        const Bytes picture = test_pattern::Picture(i);
        ASSERT_EQ(m_muxer.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()),
                                          uint64_t{i} * 3000, uint64_t{i} * 3000),
                  MP4_STATUS_SUCCESS);
    }
    const MovieReader& movie = Close();
    const Track& track = movie.TrackOf("tmcd");
    ASSERT_EQ(track.samples.size(), 1U);
    EXPECT_EQ(movie.SampleBytes(track.samples[0]), Hex("0000012c"));
    EXPECT_EQ(track.lastDuration, 30000);
    EXPECT_EQ(track.duration, 30000U);
    EXPECT_EQ(movie.At("moov/trak[1]/tkhd").U32(28), 1000U);
    EXPECT_EQ(movie.At("moov/trak/tref/tmcd").U32(8), track.id);
    EXPECT_EQ(track.box->At("mdia/minf/stbl/stsd/tmcd").Content(16, 20),
              Hex("00000000 00000001 00007530 000003e9 1e 00 0000"));
}

TEST_F(CaptionsAndTimecode, TimecodeWithoutATrackIsOnlyMediaData) {
    ASSERT_EQ(m_muxer.WriteTimeCode(-1), MP4_STATUS_SUCCESS);
    const MovieReader& movie = Close();
    EXPECT_EQ(movie.At("mdat").Content(8, 4), Hex("ffffffff"));
    EXPECT_EQ(movie.Tracks().size(), 0U);
}

TEST_F(CaptionsAndTimecode, FurtherTimecodesTakeNoTime) {
    const auto video = streams::H264Track();
    const mp4_time_code_track_info_t timecode{30, 1, 30, 0};
    ASSERT_EQ(m_muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.SetTCMDTrack(&timecode), MP4_STATUS_SUCCESS);
    for (const int count : {0, 1, 2})
        ASSERT_EQ(m_muxer.WriteTimeCode(count), MP4_STATUS_SUCCESS);
    const Bytes picture = test_pattern::Picture(0);
    ASSERT_EQ(m_muxer.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()), 0, 0),
              MP4_STATUS_SUCCESS);
    const Track& track = Close().TrackOf("tmcd");
    ASSERT_EQ(track.samples.size(), 3U);
    EXPECT_EQ(track.samples[2].dts, 0);
    EXPECT_EQ(track.chunks, 1U);
}

}  // namespace
