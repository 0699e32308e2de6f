// Tracks: headers, edit list, references, media boxes and the timing of a track as a whole.
#include <gtest/gtest.h>

#include <memory>

#include "log_capture.h"
#include "movie_reader.h"
#include "streams.h"
#include "trak.h"

namespace {

constexpr int64_t kPast32Bits = int64_t{5} << 32;

class TrackBoxes : public ::testing::Test {
protected:
    TrackBoxes() { m_out.Init(nullptr); }

    /// Writes the box behind a `free` box and returns it as it was read back.
    template <class Written>
    const Box& Read(Written& box) {
        m_out.Init(nullptr);
        m_out.WriteInt32(8);
        m_out.WriteTag("free");
        box.Write();
        EXPECT_EQ(box.GetSize() + 8, m_out.GetSize());
        return ReadAgain();
    }
    const Box& ReadAgain() {
        m_movie = std::make_unique<MovieReader>(BytesOf(m_out));
        return m_movie->File().children.at(1);
    }

    std::unique_ptr<CMp4VideoTrakAtom> VideoTrack(mp4_video_track_info_t info) {
        auto track = std::make_unique<CMp4VideoTrakAtom>(&m_out);
        track->SetTrakID(1);
        track->SetVideoInfo(&info);
        track->setMoovTimeScale(1000);
        return track;
    }

    LogCapture m_log;
    CBufferIO m_out;
    std::unique_ptr<MovieReader> m_movie;
};

const std::string kIdentity =
    "00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000";

TEST_F(TrackBoxes, TrackHeader) {
    CMp4TkhdAtom tkhd(&m_out);
    tkhd.Update();
    EXPECT_EQ(m_log.Count("error", "logic error", "Update"), 1);
    tkhd.SetTrakId(7);
    tkhd.SetDuration(kPast32Bits + 2);
    EXPECT_EQ(Read(tkhd).Content(0, 92),
              Hex("0000005c 746b6864 00 000003 00000000 00000000 00000007 00000000 00000002"
                  "00000000 00000000 0000 0000 0100 0000" +
                  kIdentity + "00000000 00000000"));
    tkhd.SetResolution(1920, 1080);
    tkhd.SetAlternateGroup(1);
    tkhd.SetUseTCFlag();
    EXPECT_EQ(Read(tkhd).Content(8, 84),
              Hex("00 000002 00000000 00000000 00000007 00000000 00000002 00000000 00000000"
                  "0000 0001 0000 0000" +
                  kIdentity + "07800000 04380000"));
    tkhd.SetUse64bitTime();
    EXPECT_EQ(Read(tkhd).Content(8, 52),
              Hex("01 000002 0000000000000000 0000000000000000 00000007 00000000"
                  "0000000500000002 00000000 00000000 0000 0001 0000 0000"));
    tkhd.SetDuration(3);
    tkhd.Update();
    EXPECT_EQ(ReadAgain().U64(36), 3U);
}

TEST_F(TrackBoxes, EditList) {
    CMp4EdtsAtom edts(&m_out);
    edts.Update();
    EXPECT_EQ(m_log.Count("error", "logic error, start position is 0", "Update"), 1);
    edts.SetDuration(kPast32Bits + 9);
    EXPECT_EQ(Read(edts).At("elst").Content(0, 28),
              Hex("0000001c 656c7374 00 000000 00000001 00000009 00000000 00010000"));
    edts.SetUse64bitTime();
    EXPECT_EQ(Read(edts).At("elst").Content(0, 36),
              Hex("00000024 656c7374 01 000000 00000001 0000000500000009 0000000000000000"
                  "00010000"));
    edts.SetDuration(4);
    edts.Update();
    EXPECT_EQ(ReadAgain().At("elst").U64(16), 4U);
}

TEST_F(TrackBoxes, References) {
    CMp4RefTrackTypeAtom type(&m_out);
    for (const int bad : {11, 12, -1})
        type.SetRefType(bad);
    for (const int id : {3, 3, 4})
        type.SetRefTrack(id);
    EXPECT_TRUE(type.IsRefTrack(4));
    EXPECT_FALSE(type.IsRefTrack(5));
    EXPECT_EQ(Read(type).Content(0, 16), Hex("00000010 746d6364 00000003 00000004"));
    type.SetRefType(REFERENCE_TRACK_CHAP);
    for (int id = 5; id < 20; ++id)
        type.SetRefTrack(id);
    EXPECT_EQ(Read(type).size, 8U + 4 * 8) << "past eight they are ignored";
    EXPECT_EQ(Read(type).U32(4), 0U) << "only one type has a code";
}

TEST_F(TrackBoxes, MediaBoxesOfVideoAndSound) {
    CMp4VideoMdiaAtom video(&m_out);
    video.SetTimeScale(90000);
    video.SetDuration(270000);
    const Box& mdia = Read(video);
    EXPECT_EQ(mdia.ChildTypes(), "mdhd hdlr minf");
    EXPECT_EQ(mdia.At("mdhd").Content(0, 32),
              Hex("00000020 6d646864 00000000 00000000 00000000 00015f90 00041eb0 55c4 0000"));
    const Bytes zeros(12, 0);
    const auto name = [](const std::string& text) { return Bytes(text.begin(), text.end()); };
    EXPECT_EQ(mdia.At("hdlr").Content(0, 45), Hex("0000002d 68646c72 00000000") + name("mhlrvide") +
                                                  zeros + name("\x0cVideoHandler"));
    const Box& minf = mdia.At("minf");
    EXPECT_EQ(minf.ChildTypes(), "vmhd hdlr dinf stbl");
    EXPECT_EQ(minf.At("vmhd").Content(0, 20), Hex("00000014 766d6864 00000001 0000000000000000"));
    EXPECT_EQ(minf.At("hdlr").Content(0, 44), Hex("0000002c 68646c72 00000000") + name("dhlrurl ") +
                                                  zeros +
                                                  name("\x0b"
                                                       "DataHandler"));
    EXPECT_EQ(minf.At("dinf").Content(8, 28),
              Hex("0000001c 64726566 00000000 00000001 0000000c 75726c20 00000001"));

    CMp4AudioMdiaAtom audio(&m_out);
    EXPECT_EQ(Read(audio).At("minf").ChildTypes(), "smhd hdlr dinf stbl");
    EXPECT_EQ(Read(audio).At("minf/smhd").Content(0, 16),
              Hex("00000010 736d6864 00000000 00000000"));
    EXPECT_EQ(Read(audio).At("hdlr").Text(12, 8), "mhlrsoun");
    EXPECT_EQ(Read(audio).At("hdlr").Text(32, 13), "\x0cSoundHandler");
    EXPECT_EQ(Read(audio).At("mdhd").U32(20), 1000U) << "unless told otherwise";
}

TEST_F(TrackBoxes, MediaHeaderIsRewrittenInPlace) {
    CMp4MdhdAtom mdhd(&m_out);
    mdhd.Update();
    EXPECT_EQ(m_log.Count("error", "logic error", "Update"), 1);
    for (const int position : {24, 32}) {
        if (position == 32) mdhd.SetUse64bitTime();
        mdhd.SetDuration(1);
        EXPECT_EQ(Read(mdhd).size, position == 24 ? 32U : 44U);
        mdhd.SetDuration(99);
        mdhd.Update();
        EXPECT_EQ(ReadAgain().Uint(static_cast<uint64_t>(position), position == 24 ? 4 : 8), 99U);
    }
}

TEST_F(TrackBoxes, TimecodeMediaHeaders) {
    CMp4BaseMinfAtom minf(&m_out);
    const std::string gmin =
        "00000018 676d696e 00000000 0040 8000 8000 8000 0000 0000 0000002c 74657874" + kIdentity;
    const Box& qt = Read(minf);
    EXPECT_EQ(qt.ChildTypes(), "gmhd hdlr dinf stbl");
    EXPECT_EQ(qt.At("gmhd").size, 130U);
    EXPECT_EQ(qt.At("gmhd").Content(8, 122),
              Hex(gmin + "00000036 746d6364 0000002e 74636d69 00000000 0000 0001 000c 0000"
                         "ffff ffff ffff 0000 0000 0000 0d 4c756369646120 4772616e6465"));
    EXPECT_EQ(qt.At("stbl").ChildTypes(), "stsd stts stsc stsz stco");
    minf.SetMp4Format(true);
    minf.SetUse64BitSize();
    EXPECT_EQ(Read(minf).At("nmhd").Content(0, 76), Hex("0000004c 6e6d6864" + gmin));
    EXPECT_EQ(Read(minf).At("stbl").ChildTypes(), "stsd stts stsc stsz co64");
    CMp4TMCDUdatAtom udta(&m_out);
    EXPECT_EQ(Read(udta).Content(8, 20), Hex("00000014 6e616d65 5461726e686f6c74 00000000"));
}

TEST_F(TrackBoxes, DurationCountsTheLastSample) {
    const struct {
        uint32_t timescale;
        uint64_t nominal;
        std::vector<int64_t> times;
        bool firstIsSync;
        uint32_t media;  // in ticks
        uint32_t movie;  // in milliseconds
    } kTable[] = {
        {90000, 3000, {0, 3000, 6000}, true, 9000, 100},
        {90000, 0, {0, 3000, 6000}, true, 9000, 100},
        {90000, 0, {0, 3000, 7000}, true, 11000, 122},  // the last step counts once more
        {90000, 3000, {9000, 12000}, true, 6000, 66},
        {90000, 3000, {9000, 12000}, false, 15000, 166},  // counted from 0
        {1000, 40, {0, 40, 80}, true, 120, 120},
        {0, 40, {0, 40}, true, 80, 80},  // 1000 stands for 0
        {30000, 1001, {0}, true, 1001, 33},
        {4000000000U, 1000000, {0, 1000000}, true, 2000000, 0},
    };
    for (const auto& row : kTable) {
        auto info = streams::H264Track();
        info.timescale = row.timescale;
        info.frame_duration = row.nominal;
        auto track = VideoTrack(info);
        bool sync = row.firstIsSync;
        for (const int64_t time : row.times) {
            EXPECT_TRUE(track->AfterWriteVideoFrame(40, 10, time, time, sync, time == 0));
            sync = false;
        }
        EXPECT_EQ(track->GetDuration(), row.media);
        EXPECT_EQ(track->GetDuration(), row.media) << "asking does not change it";
        EXPECT_EQ(track->GetSampleNumbers(), static_cast<int32_t>(row.times.size()));
        const Box& trak = Read(*track);
        EXPECT_EQ(trak.At("mdia/mdhd").U32(20), row.timescale == 0 ? 1000 : row.timescale);
        EXPECT_EQ(trak.At("mdia/mdhd").U32(24), row.media);
        EXPECT_EQ(trak.At("tkhd").U32(28), row.movie);
        EXPECT_EQ(trak.At("edts/elst").U32(16), row.movie);
    }
}

TEST_F(TrackBoxes, BitrateIsKibibytesPerSecond) {
    auto track = VideoTrack(streams::H264Track());
    track->setFrameDuration(0);
    EXPECT_EQ(track->GetBitrate(), 0.0);
    track->AfterWriteVideoFrame(40, 100000, 0, 0, true, true);
    track->AfterWriteVideoFrame(40, 4800, 45000, 45000, false, false);
    EXPECT_EQ(track->GetDataSize(), 104800U);
    EXPECT_DOUBLE_EQ(track->GetBitrate(), 104800.0 / 1024);
}

TEST_F(TrackBoxes, HeadersOfEachKind) {
    const auto caption = streams::CaptionTrack(MP4_SUBTITLE_CODEC_CC708);
    const auto timecode = streams::TimecodeTrack();
    const auto sound = streams::AacTrack();
    auto video = VideoTrack(streams::H264Track());
    video->AddTimeCodeReference(4);
    video->AfterWriteVideoFrame(40, 10, 0, 0, true, true);
    CMp4AudioTrakAtom audio(&m_out);
    audio.SetTrakID(2);
    audio.SetAudioInfo(&sound);
    audio.AfterWriteAudioFrame(50, 4, 0, true);
    CMp4SubtitleTrakAtom captions(&m_out);
    captions.SetTrakID(3);
    captions.SetSubtitleInfo(&caption);
    captions.SetResolution(64, 48);
    captions.AfterWriteFrame(54, 11, 0, true);
    CMp4TCTrakAtom code(&m_out);
    code.SetTrakID(4);
    code.SetTimecodeTrackInfo(&timecode);
    code.AfterWriteTimeCode(65, true);
    code.SetDuration(300000);
    CMp4TrakAtom* const tracks[] = {video.get(), &audio, &captions, &code};
    const struct {
        const char* children;
        uint32_t flags;
        uint16_t group;
        uint16_t volume;
        uint32_t width;
        uint32_t height;
        const char* handler;
    } kTable[] = {{"tkhd edts tref mdia", 3, 0, 0, 64U << 16, 64U << 16, "mhlrvide"},
                  {"tkhd edts mdia", 3, 1, 0x100, 0, 0, "mhlrsoun"},
                  {"tkhd edts mdia", 3, 0, 0, 64U << 16, 48U << 16, "mhlrclcp"},
                  {"tkhd edts mdia", 2, 0, 0x100, 0, 0, "mhlrtmcd"}};
    for (int i = 0; i < 4; ++i) {
        tracks[i]->setMoovTimeScale(1000);
        const Box& trak = Read(*tracks[i]);
        const Box& tkhd = trak.At("tkhd");
        EXPECT_EQ(trak.ChildTypes(), kTable[i].children);
        EXPECT_EQ(tkhd.U32(8), kTable[i].flags);
        EXPECT_EQ(tkhd.U32(20), static_cast<uint32_t>(i + 1));
        EXPECT_EQ(tkhd.U16(42), kTable[i].group);
        EXPECT_EQ(tkhd.U16(44), kTable[i].volume);
        EXPECT_EQ(tkhd.U32(84), kTable[i].width);
        EXPECT_EQ(tkhd.U32(88), kTable[i].height);
        EXPECT_EQ(trak.At("mdia/hdlr").Text(12, 8), kTable[i].handler);
    }
    EXPECT_EQ(Read(*video).At("tref").Content(0, 20),
              Hex("00000014 74726566 0000000c 746d6364 00000004"));
    EXPECT_EQ(Read(captions).At("mdia/minf").ChildTypes(), "gmhd hdlr dinf stbl");
    EXPECT_EQ(Read(captions).At("mdia/hdlr").Text(32, 16), "\x0ftarnholt stream");
    EXPECT_EQ(Read(code).At("mdia/hdlr").Text(32, 16), "\x0fTimeCodeHandler");
    EXPECT_EQ(Read(code).At("mdia/minf/stbl/stts").Content(12, 12),
              Hex("00000001 00000001 000493e0"))
        << "one sample as long as the track";
    EXPECT_EQ(Read(code).At("tkhd").U32(28), 10000U);
    EXPECT_EQ(code.GetBitrate(), 0.0);
}

TEST_F(TrackBoxes, ATrackWithoutIdOrSamplesIsLeftOut) {
    auto video = VideoTrack(streams::H264Track());
    CMp4SubtitleTrakAtom captions(&m_out);
    captions.AfterWriteFrame(40, 10, 0, true);
    for (CMp4TrakAtom* const track :
         {static_cast<CMp4TrakAtom*>(video.get()), static_cast<CMp4TrakAtom*>(&captions)}) {
        EXPECT_EQ(track->GetSize(), 0U);
        track->Write();
    }
    EXPECT_EQ(m_out.GetSize(), 0U);
    EXPECT_EQ(m_log.Count("error", "write without track data", "Write"), 2);
    EXPECT_FALSE(captions.valid());
    EXPECT_TRUE(video->valid());
}

TEST_F(TrackBoxes, TimecodeTrackInFixedHeaderModeHoldsOneSample) {
    const auto info = streams::TimecodeTrack();
    CMp4TCTrakAtom track(&m_out);
    track.SetTrakID(1);
    track.SetTimecodeTrackInfo(&info);
    track.setMoovTimeScale(1000);
    track.SetFixedHeaderMode(true);
    track.AfterWriteTimeCode(0x1234, false);
    EXPECT_EQ(Read(track).At("mdia/minf/stbl/stco").U32(12), 1U);
    track.SetDuration(60000);
    track.Update();
    const Box& trak = ReadAgain();
    EXPECT_EQ(trak.At("tkhd").U32(28), 2000U);
    EXPECT_EQ(trak.At("mdia/mdhd").U32(24), 60000U);
    EXPECT_EQ(trak.At("mdia/minf/stbl/stts").Content(12, 12), Hex("00000001 00000001 0000ea60"));
    EXPECT_EQ(trak.At("mdia/minf/stbl/stco").Content(12, 8), Hex("00000001 00001234"));
    EXPECT_EQ(trak.At("mdia/minf/stbl/stsz").U32(16), 1U);
    track.AfterWriteTimeCode(0x5678, false);
    EXPECT_EQ(m_log.Count("error", "reach the max frame num 1", "AddChunk"), 1);
}

}  // namespace
