// The movie box: track IDs, chunks, durations, its parts and their order, refreshing in place.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>

#include "log_capture.h"
#include "moov.h"
#include "movie_reader.h"
#include "streams.h"

namespace {

class MovieBox : public ::testing::Test {
protected:
    MovieBox() : m_moov(std::make_unique<CMp4MoovAtom>(&m_out, false, nullptr)) {
        m_out.Init(nullptr);
    }

    const Box& Read() {
        m_out.Init(nullptr);
        m_moov->Write();
        EXPECT_EQ(m_moov->GetSize(), m_out.GetSize());
        m_movie = std::make_unique<MovieReader>(BytesOf(m_out));
        return m_movie->At("moov");
    }

    LogCapture m_log;
    CBufferIO m_out;
    std::unique_ptr<CMp4MoovAtom> m_moov;
    std::unique_ptr<MovieReader> m_movie;
    const mp4_video_track_info_t m_video = streams::H264Track();
    const mp4_audio_track_info_t m_audio = streams::AacTrack();
    const mp4_subtitle_track_info_t m_captions = streams::CaptionTrack(MP4_SUBTITLE_CODEC_CC608);
    const mp4_time_code_track_info_t m_timecode = streams::TimecodeTrack();
};

TEST_F(MovieBox, TracksInOrderWithTheirIds) {
    EXPECT_TRUE(m_moov->SetAudioTrack(&m_audio));
    EXPECT_TRUE(m_moov->SetVideoTrack(&m_video));
    EXPECT_TRUE(m_moov->SetVideoTrack(&m_video)) << "keeps its ID";
    EXPECT_TRUE(m_moov->SetTCMDTrack(&m_timecode));
    EXPECT_TRUE(m_moov->SetSubtitleTrack(&m_captions));
    m_moov->AfterWriteSubtitleFrame(90, 20, 0);
    m_moov->AfterWriteTimeCode(110);
    m_moov->AfterWriteVideoFrame(114, 10, 0, 0, true);
    m_moov->AfterWriteAudioFrame(124, 4, 0);
    const Box& moov = Read();
    EXPECT_EQ(moov.ChildTypes(), "mvhd trak trak trak trak udta");
    const std::pair<const char*, uint32_t> kTracks[] = {
        {"vide", 2}, {"soun", 1}, {"tmcd", 3}, {"clcp", 4}};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(m_movie->Tracks()[i].handler, kTracks[i].first);
        EXPECT_EQ(m_movie->Tracks()[i].id, kTracks[i].second);
    }
    EXPECT_EQ(moov.At("mvhd").U32(104), 5U);
    EXPECT_EQ(moov.At("trak/tref/tmcd").U32(8), 3U);
    EXPECT_EQ(moov.At("trak[3]/tkhd").U32(84), 64U << 16) << "captions are as large as the video";

    m_moov->SetAudioTrack(&m_audio);
    EXPECT_EQ(Read().At("mvhd").U32(104), 6U) << "declaring sound again takes a new ID";
    EXPECT_EQ(m_movie->Tracks()[1].id, 5U);
}

TEST_F(MovieBox, AChunkIsARunOfOneTrack) {
    m_moov->SetVideoTrack(&m_video);
    m_moov->SetAudioTrack(&m_audio);
    int64_t offset = 44;
    int64_t time = 0;
    for (const char kind : std::string("vvaavavvv")) {
        if (kind == 'v') {
            EXPECT_TRUE(m_moov->AfterWriteVideoFrame(offset, 10, time, time, time == 0));
        } else
            EXPECT_TRUE(m_moov->AfterWriteAudioFrame(offset, 4, time));
        offset += kind == 'v' ? 10 : 4;
        time += 100;
    }
    Read();
    const Track& video = m_movie->TrackOf("vide");
    const Track& audio = m_movie->TrackOf("soun");
    EXPECT_EQ(video.chunks, 3U);
    EXPECT_EQ(audio.chunks, 2U);
    ASSERT_EQ(video.samples.size(), 6U);
    EXPECT_EQ(video.samples[1].offset, 54U);
    EXPECT_EQ(video.samples[2].offset, 72U);
    EXPECT_EQ(video.samples[5].offset, 106U);
    EXPECT_EQ(audio.samples[2].offset, 82U);
}

TEST_F(MovieBox, DurationIsTheLongerOfVideoAndSound) {
    m_moov->SetVideoTrack(&m_video);
    m_moov->SetAudioTrack(&m_audio);
    m_moov->SetTCMDTrack(&m_timecode);
    m_moov->AfterWriteTimeCode(44);
    m_moov->AfterWriteVideoFrame(48, 10, 0, 0, true);
    m_moov->AfterWriteVideoFrame(58, 10, 897000, 897000, true);
    m_moov->AfterWriteAudioFrame(68, 4, 0);
    EXPECT_EQ(Read().At("mvhd").U32(24), 10000U);
    EXPECT_EQ(m_movie->TrackOf("tmcd").duration, 300000U);
    m_moov->AfterWriteAudioFrame(72, 4, 48000 * 20);
    EXPECT_EQ(m_moov->GetDurationMS(), 20021U);
    EXPECT_EQ(Read().At("mvhd").U32(24), 20021U);
}

TEST_F(MovieBox, EachHeaderTakesVersion1WhenItsValueNeedsIt) {
    constexpr int64_t kStep = (int64_t{1} << 31) - 1500;  // twice, and the last sample: 2^32
    for (const uint32_t timescale : {90000U, 1000U}) {
        m_moov = std::make_unique<CMp4MoovAtom>(&m_out, false, nullptr);
        mp4_video_track_info_t video = m_video;
        mp4_audio_track_info_t audio = m_audio;
        video.timescale = audio.timescale = timescale;
        video.frame_duration = audio.frame_duration = 3000;
        const mp4_subtitle_track_info_t captions = {MP4_SUBTITLE_CODEC_CC608, timescale};
        m_moov->SetVideoTrack(&video);
        m_moov->SetAudioTrack(&audio);
        m_moov->SetTCMDTrack(&m_timecode);
        m_moov->SetSubtitleTrack(&captions);
        m_moov->AfterWriteTimeCode(40);
        for (const int64_t last : {int64_t{0}, kStep, 2 * kStep}) {
            m_moov->AfterWriteVideoFrame(44, 10, last, last, true);
            m_moov->AfterWriteAudioFrame(54, 4, last);
            m_moov->AfterWriteSubtitleFrame(58, 4, last);
            const uint32_t predicted = m_moov->GetSize();
            const Box& moov = Read();
            // The first time the sample tables have yet to place the last sample's duration.
            EXPECT_TRUE(last == 0 || predicted == moov.size) << predicted;
            if (last != 2 * kStep) continue;
            const auto expect = [](const Box& box, std::array<uint64_t, 2> at, uint64_t value) {
                const bool wide = value > UINT32_MAX;
                EXPECT_EQ(box.U8(8), wide ? 1 : 0) << box.type;
                EXPECT_EQ(box.Uint(at[wide ? 1 : 0], wide ? 8 : 4), value) << box.type;
            };
            const uint64_t ticks = uint64_t{1} << 32;
            expect(moov.At("mvhd"), {24, 32}, ticks * 1000 / timescale);
            for (const Track& track : m_movie->Tracks()) {
                uint64_t duration = ticks;
                if (track.handler == "clcp") duration = uint64_t{3} * kStep;
                if (track.handler == "tmcd") duration = ticks * 30000 / timescale;
                const uint64_t shown = duration * 1000 / track.timescale;
                expect(track.box->At("mdia/mdhd"), {24, 32}, duration);
                expect(track.box->At("tkhd"), {28, 36}, shown);
                expect(track.box->At("edts/elst"), {16, 16}, shown);
                if (track.handler != "tmcd") continue;
                EXPECT_EQ(static_cast<uint32_t>(track.lastDuration),
                          std::min<uint64_t>(duration, UINT32_MAX));
            }
        }
    }
    EXPECT_TRUE(m_log.Complaints().empty()) << m_log.Complaints()[0];
}

TEST_F(MovieBox, AskingForTheSizeSettlesNothing) {
    mp4_video_track_info_t video = m_video;
    video.frame_duration = 0;
    m_moov->SetVideoTrack(&video);
    for (const int64_t time : {0, 3000, 9000}) {
        m_moov->AfterWriteVideoFrame(44, 10, time, time, true);
        m_moov->GetSize();
    }
    Read();
    EXPECT_EQ(m_movie->TrackOf("vide").duration, 15000U) << "the last step counts once more";
}

TEST_F(MovieBox, DurationsAreRefreshedInPlace) {
    m_moov->Update();
    EXPECT_GE(m_log.Count("error", "logic error", "Update"), 1) << "nothing was written yet";
    m_moov->SetVideoTrack(&m_video);
    m_moov->AfterWriteVideoFrame(48, 10, 0, 0, true);
    m_out.Init(nullptr);
    m_out.WriteInt32(8);
    m_out.WriteTag("free");
    m_moov->Write();
    const uint64_t end = m_out.Ftell();
    m_moov->AfterWriteVideoFrame(58, 10, 87000, 87000, true);
    m_moov->Update();
    EXPECT_EQ(m_out.Ftell(), end) << "the writer is back where it stood";
    const Bytes file = BytesOf(m_out);
    EXPECT_EQ(file.size(), end);
    // The sample tables have no room for more, so the tracks cannot be read; the headers can.
    const MovieReader mvhd(Bytes(file.begin() + 16, file.begin() + 16 + 108));
    EXPECT_EQ(mvhd.At("mvhd").U32(24), 1000U);
}

TEST_F(MovieBox, FastWriteHandsOverOnePiece) {
    CBufferIO file;
    file.Init(nullptr);
    file.WriteInt64(0);
    CBufferIO header;
    header.Init(&file);
    CMp4MoovAtom moov(&header, true, &file);
    for (CMp4MoovAtom* box : {&moov, m_moov.get()}) {
        box->SetVideoTrack(&m_video);
        box->AfterWriteVideoFrame(40, 10, 0, 0, true);
    }
    moov.Write();
    Read();
    EXPECT_EQ(BytesOf(file), Bytes(8, 0) + BytesOf(m_out));
}

}  // namespace
