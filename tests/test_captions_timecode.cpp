// Caption packets and timecode counters on their way into the file.
#include <gtest/gtest.h>

#include "kx_mp4/Mp4Muxer.h"
#include "log_capture.h"
#include "memory_output.h"
#include "movie_reader.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

constexpr auto k608 = MP4_SUBTITLE_CODEC_CC608;
constexpr auto k708 = MP4_SUBTITLE_CODEC_CC708;

class CaptionsAndTimecode : public ::testing::Test {
protected:
    void SetUp() override {
        auto config = streams::CallbackConfig(0, m_output.Functions());
        ASSERT_EQ(m_muxer.Create(L"out.mp4", &config), MP4_STATUS_SUCCESS);
    }
    mp4_status_t Declare(mp4_subtitle_codec codec) {
        const mp4_subtitle_track_info_t track{codec, 1000};
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

TEST_F(CaptionsAndTimecode, PacketsBecomeAtoms) {
    const struct {
        mp4_subtitle_codec codec;
        std::string packet;
        std::string sample;
        int complaints;
    } kTable[] = {
        {k608, "6102 02 fc942c fd8080", "0000000a 63646174 942c 0000000a 63647432 8080", 0},
        {k608, "6102 00 fc942c", "0000000a 63646174 942c", 0},
        {k608, "6102 02 fc942c fc2c94", "0000000a 63646174 942c 0000000a 63646174 2c94", 0},
        {k608, "6102 01 fc942c fd", "0000000a 63646174 942c", 0},  // trailing bytes are ignored
        {k608, "6102 03 fe1111 fd8080 ff2222", "0000000a 63647432 8080", 0},  // DTVCC is skipped
        {k608, "6102 01 fe1111", "", 0},
        {k608, "6102 01 fc94", "", 1},
        {k608, "6002 01 fc942c", "", 1},
        {k608, "6101 01 fc942c", "", 1},
        {k708, "6101 03 966955", "0000000b 63636470 966955", 0},
        {k708, "6101 02 966955", "0000000a 63636470 9669", 0},
        {k708, "6101 00", "00000008 63636470", 0},
        {k708, "6101 09 9669551122", "", 1},
        {k708, "6101", "", 1},
        {k708, "6102 03 966955", "", 1},
    };
    for (const auto& row : kTable) {
        m_log.Clear();
        MemoryOutput output;
        auto config = streams::CallbackConfig(0, output.Functions());
        CMp4Muxer muxer;
        ASSERT_EQ(muxer.Create(L"out.mp4", &config), MP4_STATUS_SUCCESS);
        const mp4_subtitle_track_info_t info{row.codec, 0};
        ASSERT_EQ(muxer.SetSubtitleTrack(&info), MP4_STATUS_SUCCESS);
        const Bytes packet = Hex(row.packet);
        EXPECT_EQ(muxer.WriteSubtitleFrame(packet.data(), static_cast<uint32_t>(packet.size()), 40),
                  MP4_STATUS_SUCCESS);
        const char* const name = row.codec == k608 ? "608" : "708";
        EXPECT_EQ(m_log.Count("error", std::string("subtitle ") + name + " frame format error"),
                  row.complaints)
            << row.packet;
        ASSERT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
        const MovieReader movie = output.Movie();
        const Track& track = movie.TrackOf("clcp");
        EXPECT_EQ(track.entryType, std::string("c") + name);
        EXPECT_EQ(track.timescale, 1000U) << "1000 stands for 0";
        EXPECT_EQ(movie.SampleBytes(track.samples.at(0)), Hex(row.sample)) << row.packet;
    }
}

TEST_F(CaptionsAndTimecode, PacketsThatCannotBeStored) {
    EXPECT_EQ(m_muxer.WriteSubtitleFrame(nullptr, 4, 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_muxer.WriteSubtitleFrame(test_pattern::kSps.data(), 0, 0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_output.writes, 0);
    EXPECT_EQ(Write("6102 01 fc942c", 0), MP4_STATUS_INVALID_SUBTITLE_TYPE);
    EXPECT_EQ(Declare(streams::Forged<mp4_subtitle_codec>(5)), MP4_STATUS_SUCCESS);
    EXPECT_EQ(Write("6102 01 fc942c", 0), MP4_STATUS_INVALID_SUBTITLE_TYPE);
    EXPECT_EQ(Close().Tracks().size(), 0U);
}

TEST_F(CaptionsAndTimecode, ACaptionBeforeAnyOtherFrameLandsInTheMedia) {
    const auto video = streams::H264Track();
    ASSERT_EQ(m_muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    ASSERT_EQ(Declare(k608), MP4_STATUS_SUCCESS);
    ASSERT_EQ(Write("6102 01 fc942c", 0), MP4_STATUS_SUCCESS);
    const MovieReader& movie = Close();
    EXPECT_EQ(movie.TrackOf("clcp").samples.at(0).offset, 44U);
    EXPECT_EQ(movie.At("moov").ChildTypes(), "mvhd trak udta") << "no video frame, no video track";
    EXPECT_EQ(movie.At("moov/trak/tkhd").U32(84), 64U << 16);
}

TEST_F(CaptionsAndTimecode, TimecodeLastsAsLongAsTheVideo) {
    const auto video = streams::H264Track();
    const auto timecode = streams::TimecodeTrack();
    ASSERT_EQ(m_muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.SetTCMDTrack(&timecode), MP4_STATUS_SUCCESS);
    for (const int count : {300, 1, 2})
        ASSERT_EQ(m_muxer.WriteTimeCode(count), MP4_STATUS_SUCCESS);
    const Bytes picture = test_pattern::Picture(0);
    const auto size = static_cast<uint32_t>(picture.size());
    for (uint64_t i = 0; i < 30; ++i)
        ASSERT_EQ(m_muxer.WriteVideoFrame(picture.data(), size, i * 3000, i * 3000),
                  MP4_STATUS_SUCCESS);
    const MovieReader& movie = Close();
    const Track& track = movie.TrackOf("tmcd");
    ASSERT_EQ(track.samples.size(), 3U);
    EXPECT_EQ(movie.SampleBytes(track.samples[0]), Hex("0000012c"));
    EXPECT_EQ(track.samples[2].dts, 0) << "further timecodes take no time";
    EXPECT_EQ(track.chunks, 1U);
    EXPECT_EQ(track.duration, 30000U);
    EXPECT_EQ(movie.At("moov/trak[1]/tkhd").U32(28), 1000U);
    EXPECT_EQ(movie.At("moov/trak/tref/tmcd").U32(8), track.id);
}

}  // namespace
