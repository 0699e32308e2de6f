// Tracks in room reserved for them: headers and tables are rewritten in place and never move.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
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
    const auto info = streams::H264Track();
    const auto track = std::make_unique<CMp4VideoTrakAtom>(&m_out);
    track->SetTrakID(1);
    track->SetVideoInfo(&info);
    track->setMoovTimeScale(1000);
    track->SetFixedHeaderMode(true);
    Read(*track);
    const uint64_t size = m_out.GetSize();
    track->AfterWriteVideoFrame(40, 10, 0, 0, true, true);
    track->AfterWriteVideoFrame(40, 10, kFarTime, kFarTime, true, true);
    track->CMp4TrakAtom::Update();
    EXPECT_EQ(m_out.GetSize(), size);
    EXPECT_EQ(ReadAgain().At("tkhd").U32(28), UINT32_MAX);
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
    EXPECT_EQ(trak.At("mdia/minf/stbl/stsz").Content(16, 8), Hex("00000001 00000004"));
    track.AfterWriteTimeCode(0x5678, false);
    EXPECT_EQ(m_log.Count("error", "reach the max frame num 1", "AddChunk"), 1);
}

}  // namespace
