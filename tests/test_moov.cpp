// The movie box: track IDs, chunks, durations, its parts and their order, refreshing in place.
#include <gtest/gtest.h>

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

TEST_F(MovieBox, HeaderOfAnEmptyMovie) {
    const Box& moov = Read();
    EXPECT_EQ(moov.ChildTypes(), "mvhd udta");
    EXPECT_EQ(moov.At("mvhd").Content(0, 108),
              Hex("0000006c 6d766864 00000000 00000000 00000000 000003e8 00000000 00010000 0100"
                  "0000 0000000000000000 00010000 00000000 00000000 00000000 00010000 00000000"
                  "00000000 00000000 40000000") +
                  Bytes(24, 0) + Hex("00000002"));
    EXPECT_EQ(moov.At("udta").size, 61U);
    m_moov->SetUse64bitTime();
    EXPECT_EQ(Read().At("mvhd").size, 120U);
    EXPECT_EQ(Read().At("mvhd").U32(28), 1000U);
    EXPECT_EQ(m_moov->GetDurationMS(), 0U);
}

TEST_F(MovieBox, OnlyVideo) {
    m_moov->SetVideoTrack(&m_video);
    m_moov->AfterWriteVideoFrame(40, 10, 0, 0, true);
    EXPECT_EQ(Read().ChildTypes(), "mvhd trak udta");
    EXPECT_GE(m_log.Count("error", "write without track data", "Write"), 1) << "of the audio track";
    EXPECT_EQ(m_log.Count("info", "moov update size finished", "Write"), 1);
}

TEST_F(MovieBox, TracksInOrderWithTheirIds) {
    EXPECT_TRUE(m_moov->SetAudioTrack(&m_audio));
    EXPECT_TRUE(m_moov->SetVideoTrack(&m_video));
    EXPECT_TRUE(m_moov->SetVideoTrack(&m_video)) << "keeps its ID";
    EXPECT_TRUE(m_moov->SetTCMDTrack(&m_timecode));
    EXPECT_TRUE(m_moov->SetSubtitleTrack(&m_captions));
    m_moov->SetIsMp4File(true);
    m_moov->AfterWriteSubtitleFrame(90, 20, 0);
    m_moov->AfterWriteTimeCode(110);
    m_moov->AfterWriteVideoFrame(114, 10, 0, 0, true);
    m_moov->AfterWriteAudioFrame(124, 4, 0);
    m_moov->m_meta.SetIsQtff(true);
    m_moov->m_meta.SetMetaData("k", "v", 1, MP4_META_DATA_TYPE_STRING, nullptr);
    m_moov->m_has_meta = true;
    const Box& moov = Read();
    EXPECT_EQ(moov.ChildTypes(), "mvhd trak trak trak trak meta udta");
    const char* const kHandlers[] = {"vide", "soun", "tmcd", "clcp"};
    const uint32_t kIds[] = {2, 1, 3, 4};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(m_movie->Tracks()[i].handler, kHandlers[i]);
        EXPECT_EQ(m_movie->Tracks()[i].id, kIds[i]);
    }
    EXPECT_EQ(moov.At("mvhd").U32(104), 5U);
    EXPECT_EQ(moov.At("trak/tref/tmcd").U32(8), 3U);
    EXPECT_EQ(moov.At("trak[3]/tkhd").U32(84), 64U << 16) << "captions are as large as the video";
    EXPECT_NE(moov.At("trak[2]/mdia/minf").Find("nmhd"), nullptr);
    m_moov->SetIsMp4File(false);
    EXPECT_NE(Read().At("trak[2]/mdia/minf").Find("gmhd"), nullptr);
    EXPECT_NE(Read().At("trak[1]/mdia/minf/stbl/stsd/mp4a").Find("wave"), nullptr);

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
    auto audio = m_audio;
    m_moov->SetVideoTrack(&m_video);
    m_moov->SetAudioTrack(&audio);
    m_moov->SetTCMDTrack(&m_timecode);
    m_moov->AfterWriteTimeCode(44);
    m_moov->AfterWriteVideoFrame(48, 10, 0, 0, true);
    m_moov->AfterWriteVideoFrame(58, 10, 897000, 897000, true);
    EXPECT_EQ(m_moov->GetDurationMS(), 10000U);
    m_moov->AfterWriteAudioFrame(68, 4, 0);
    EXPECT_EQ(Read().At("mvhd").U32(24), 10000U);
    EXPECT_EQ(m_movie->TrackOf("tmcd").duration, 300000U);
    EXPECT_EQ(m_movie->TrackOf("tmcd").lastDuration, 300000);
    m_moov->AfterWriteAudioFrame(72, 4, 48000 * 20);
    EXPECT_EQ(m_moov->GetDurationMS(), 20021U);
    EXPECT_EQ(Read().At("mvhd").U32(24), 20021U);
    EXPECT_DOUBLE_EQ(m_moov->GetVideoBitrate(), 20 * 90000 / (900000 * 1024.0));
    EXPECT_DOUBLE_EQ(m_moov->GetAudioBitrate(), 8 * 48000 / (961024 * 1024.0));
}

TEST_F(MovieBox, SixtyFourBitFormsLeaveCaptionsAlone) {
    m_moov->SetUse64bitSize();
    m_moov->SetUse64bitTime();
    m_moov->SetVideoTrack(&m_video);
    m_moov->SetAudioTrack(&m_audio);
    m_moov->SetTCMDTrack(&m_timecode);
    m_moov->SetSubtitleTrack(&m_captions);
    const int64_t far = int64_t{3} << 32;
    m_moov->AfterWriteVideoFrame(far, 10, 0, 0, true);
    m_moov->AfterWriteAudioFrame(far + 10, 4, 0);
    m_moov->AfterWriteTimeCode(far + 14);
    m_moov->AfterWriteSubtitleFrame(40, 10, 0);
    const Box& moov = Read();
    const bool kWideTimes[] = {true, true, false, false};
    const bool kWideOffsets[] = {true, true, true, false};
    for (size_t i = 0; i < 4; ++i) {
        const Box& trak = moov.At("trak[" + std::to_string(i) + "]");
        for (const char* const header : {"tkhd", "edts/elst", "mdia/mdhd"})
            EXPECT_EQ(trak.At(header).U8(8), kWideTimes[i] ? 1 : 0) << i << header;
        EXPECT_EQ(trak.At("mdia/minf/stbl").Find("co64") != nullptr, kWideOffsets[i]) << i;
    }
    EXPECT_EQ(m_movie->TrackOf("tmcd").samples[0].offset, static_cast<uint64_t>(far) + 14);
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
    moov.SetVideoTrack(&m_video);
    moov.AfterWriteVideoFrame(40, 10, 0, 0, true);
    moov.Write();
    m_moov->SetVideoTrack(&m_video);
    m_moov->AfterWriteVideoFrame(40, 10, 0, 0, true);
    Read();
    EXPECT_EQ(BytesOf(file), Bytes(8, 0) + BytesOf(m_out));
    EXPECT_EQ(m_log.Count("info", "moov flush finished, size:" + std::to_string(m_out.GetSize()),
                          "Write"),
              1);
    EXPECT_TRUE(m_log.Count("warn", "calc size") == 0);
}

}  // namespace
