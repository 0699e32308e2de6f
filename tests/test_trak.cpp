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

TEST_F(TrackBoxes, HeadersAreRewrittenInPlace) {
    const auto check = [this](auto&& box, const char* header, uint64_t position, bool wide) {
        m_log.Clear();
        box.Update();
        EXPECT_GE(m_log.Complaints().size(), 1U) << "nothing was written yet";
        if (wide) box.SetUse64bitTime();
        box.SetDuration(kPast32Bits + 2);
        Read(box);
        const int width = wide ? 8 : 4;
        EXPECT_EQ(m_movie->At(header).U8(8), wide ? 1 : 0) << "version of " << header;
        EXPECT_EQ(m_movie->At(header).Uint(position, width), wide ? uint64_t{kPast32Bits + 2} : 2U);
        box.SetDuration(99);
        box.Update();
        ReadAgain();
        EXPECT_EQ(m_movie->At(header).Uint(position, width), 99U) << header;
    };
    for (const bool wide : {false, true}) {
        check(CMp4TkhdAtom(&m_out), "tkhd", wide ? 36 : 28, wide);
        check(CMp4EdtsAtom(&m_out), "edts/elst", 16, wide);
        check(CMp4MdhdAtom(&m_out), "mdhd", wide ? 32 : 24, wide);
    }
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
        {90000, 0, {0, 3000, 7000}, true, 11000, 122},  // the last step counts once more
        {90000, 3000, {9000, 12000}, true, 6000, 66},
        {90000, 3000, {9000, 12000}, false, 15000, 166},  // counted from 0
        {0, 40, {0, 40}, true, 80, 80},                   // 1000 stands for 0
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
        const Box& trak = Read(*track);
        EXPECT_EQ(trak.At("mdia/mdhd").U32(20), row.timescale == 0 ? 1000 : row.timescale);
        EXPECT_EQ(trak.At("mdia/mdhd").U32(24), row.media);
        EXPECT_EQ(trak.At("tkhd").U32(28), row.movie);
        EXPECT_EQ(trak.At("edts/elst").U32(16), row.movie);
    }
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
