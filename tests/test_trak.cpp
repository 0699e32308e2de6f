// Tracks: headers, edit list, references, media boxes and the timing of a track as a whole.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>

#include "Rescale.h"
#include "log_capture.h"
#include "movie_reader.h"
#include "mvhd.h"
#include "streams.h"
#include "trak.h"

namespace {

constexpr uint64_t kPast32Bits = uint64_t{5} << 32;

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

TEST_F(TrackBoxes, HeadersTakeVersion1WhenAskedForOrNeededAndAreRewrittenInPlace) {
    const struct {
        bool asked;
        int64_t written;
        bool wide;
        uint64_t read;
    } kTable[] = {
        {false, 0, false, 0},
        {false, -2, false, 0xFFFFFFFE},
        {false, UINT32_MAX, false, UINT32_MAX},
        {false, int64_t{UINT32_MAX} + 1, true, uint64_t{1} << 32},
        {true, 7, true, 7},
    };
    const auto check = [&](auto box, const char* header, const std::array<uint64_t, 2>& positions) {
        for (const auto& row : kTable) {
            SCOPED_TRACE(std::string(header) + " " + std::to_string(row.written));
            auto fresh = box();
            m_log.Clear();
            fresh.Update();
            EXPECT_EQ(m_log.Complaints().size(), 1U) << "nothing was written yet";
            if (row.asked) fresh.SetUse64bitTime();
            fresh.SetDuration(row.written);
            Read(fresh);
            const uint64_t size = m_out.GetSize();
            const auto durationRead = [&] {
                ReadAgain();
                EXPECT_EQ(m_movie->At(header).U8(8), row.wide ? 1 : 0);
                EXPECT_EQ(fresh.GetSize() + 8, size) << "the form stays";
                return m_movie->At(header).Uint(positions[row.wide ? 1 : 0], row.wide ? 8 : 4);
            };
            EXPECT_EQ(durationRead(), row.read);
            for (const uint64_t rewritten : {uint64_t{99}, kPast32Bits + 2, kPast32Bits + 3}) {
                fresh.SetDuration(static_cast<int64_t>(rewritten));
                fresh.Update();
                EXPECT_EQ(durationRead(),
                          row.wide ? rewritten : std::min<uint64_t>(rewritten, UINT32_MAX));
                EXPECT_EQ(m_out.GetSize(), size);
            }
            EXPECT_EQ(m_log.Complaints().size(), row.wide ? 1U : 2U) << "told once";
        }
    };
    check([this] { return CMp4MvhdAtom(&m_out); }, "mvhd", {24, 32});
    check([this] { return CMp4TkhdAtom(&m_out); }, "tkhd", {28, 36});
    check([this] { return CMp4EdtsAtom(&m_out); }, "edts/elst", {16, 16});
    check([this] { return CMp4MdhdAtom(&m_out); }, "mdhd", {24, 32});

    CMp4ElstAtom elst(&m_out);
    for (const int64_t start : {int64_t{INT32_MAX}, int64_t{INT32_MAX} + 1}) {
        elst.SetMediaTime(start);
        const Box& box = Read(elst);
        const bool wide = start > INT32_MAX;
        EXPECT_EQ(box.U8(8), wide ? 1 : 0) << "the media time is signed";
        EXPECT_EQ(box.Uint(wide ? 24 : 20, wide ? 8 : 4), static_cast<uint64_t>(start));
    }
}

TEST_F(TrackBoxes, NoDurationMovesATrackWithRoomReserved) {
    constexpr int64_t kFarTime = int64_t{kPast32Bits} * 90;  // in milliseconds past 32 bits
    auto track = VideoTrack(streams::H264Track());
    track->SetFixedHeaderMode(true);
    Read(*track);
    const uint64_t size = m_out.GetSize();
    track->AfterWriteVideoFrame(40, 10, 0, 0, true, true);
    track->AfterWriteVideoFrame(40, 10, kFarTime, kFarTime, true, true);
    track->CMp4TrakAtom::Update();
    EXPECT_EQ(m_out.GetSize(), size);
    EXPECT_EQ(ReadAgain().At("tkhd").U32(28), UINT32_MAX);
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
    m_out.Init(nullptr);
    type.Write();
    EXPECT_EQ(BytesOf(m_out).size(), 8U + 4 * 8) << "past eight they are ignored";
    EXPECT_EQ(m_out.GetBuffer()[4], 0U) << "only one type has a code";
}

TEST(Rescale, IsExactWhereverTheResultFits) {
    constexpr int64_t kTwoDays = int64_t{48 * 3600} * 10000000;
    const struct {
        int64_t value;
        uint32_t numerator, denominator;
        int64_t result;
    } kTable[] = {
        {100, 1000, 0, 0},
        {7, 1000, 90000, 0},
        {-90089, 1000, 90000, -1000},
        {kTwoDays, 10000000, 10000000, kTwoDays},
        {kTwoDays + 9, 4000000000, 4000000000, kTwoDays + 9},
        {INT64_MAX, 1000, 1000, INT64_MAX},
        {INT64_MIN, 1, 1, INT64_MIN},
    };
    for (const auto& row : kTable)
        EXPECT_EQ(kx_mp4::Rescale(row.value, row.numerator, row.denominator), row.result);
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
        {90000, 3000, {9000, 12000}, false, 15000, 166},      // counted from 0
        {90000, 0, {0, 3000, 9000, 6000}, true, 12000, 133},  // a step back is no duration
        {0, 40, {0, 40}, true, 80, 80},                       // 1000 stands for 0
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
