// The sample tables in room reserved for them: rewritten in place, and refused when it is full. How
// they are written at the end of a recording shows in the recordings.
#include <gtest/gtest.h>

#include <type_traits>

#include "co64.h"
#include "ctts.h"
#include "log_capture.h"
#include "movie_reader.h"
#include "stbl.h"
#include "stco.h"
#include "stsc.h"
#include "stss.h"
#include "stsz.h"
#include "stts.h"

namespace {

/// A stream in which a table does not begin at position 0.
class TableFile : public CBufferIO {
public:
    TableFile() {
        Init(nullptr);
        WriteInt32(0xFFFFFFFF);
    }
    /// What follows the first four bytes.
    Bytes Table() {
        const Bytes all = BytesOf(*this);
        return Bytes(all.begin() + 4, all.end());
    }
};

TEST(SampleTables, ReservedRunsHoldThePendingOneToo) {
    LogCapture log;
    CMp4SttsAtom two(nullptr);
    two.SetMaxFrame(2);
    for (const int64_t time : {0, 10, 20, 25})
        EXPECT_TRUE(two.AddEntry(time)) << time;
    EXPECT_FALSE(two.AddEntry(35));
    EXPECT_EQ(log.Count("error", "reach the max frame num 2", "AddEntry"), 1);

    CMp4SttsAtom one(nullptr);
    one.SetMaxFrame(1);
    for (int64_t time = 0; time < 5000; time += 10)
        ASSERT_TRUE(one.AddEntry(time));
    EXPECT_FALSE(one.AddEntry(5001));
}

TEST(SampleTables, ReservedRunsAreRewrittenInPlace) {
    TableFile file;
    CMp4SttsAtom stts(&file);
    stts.SetMaxFrame(3);
    stts.Write();
    EXPECT_EQ(file.Table(), Hex("00000028 73747473 00000000 00000000") + Bytes(24, 0));
    EXPECT_EQ(stts.GetSize(), 40U);
    stts.AddEntry(0);
    stts.AddEntry(10);
    stts.Update();
    EXPECT_EQ(file.Table(),
              Hex("00000028 73747473 00000000 00000001 00000002 0000000a") + Bytes(16, 0));
    for (const int time : {20, 25, 30}) {
        stts.AddEntry(time);
        stts.Update();
    }
    EXPECT_EQ(file.Table(), Hex("00000028 73747473 00000000 00000002 00000002 0000000a"
                                "00000003 00000005") +
                                Bytes(8, 0));
}

/// Fills a table with room for two entries. `head` is the box up to the count of entries, `entry`
/// the digits of the one that `add` records.
template <class Box, class Add>
void CheckReserved(const std::string& head, const std::string& entry, Add&& add) {
    LogCapture log;
    TableFile file;
    Box box(&file);
    box.Update();
    EXPECT_EQ(log.Count("error", "not in safe mode, logic error", "Update"), 1);
    if constexpr (std::is_same_v<Box, CMp4StssAtom>)
        box.SetMaxFrameNum(2);
    else
        box.SetMaxFrame(2);
    const std::string none(entry.size(), '0');
    box.Write();
    EXPECT_EQ(file.Table(), Hex(head + "00000000" + none + none));
    EXPECT_TRUE(add(box));
    box.Update();
    EXPECT_EQ(file.Table(), Hex(head + "00000001" + entry + none));
    EXPECT_TRUE(add(box));
    box.Update();
    const Bytes full = Hex(head + "00000002" + entry + entry);
    EXPECT_EQ(file.Table(), full);
    EXPECT_FALSE(add(box));
    EXPECT_EQ(log.Complaints().size(), 2U) << "it is full";
    box.Update();
    EXPECT_EQ(file.Table(), full);
    EXPECT_EQ(box.GetSize(), full.size());
}

TEST(SampleTables, ReservedNarrowOffsetsRefuseWhatLiesPast4GiB) {
    LogCapture log;
    CBufferIO out;
    out.Init(nullptr);
    kx_mp4::ChunkOffsets offsets(&out);
    offsets.SetMaxFrame(2);
    const uint32_t size = offsets.Selected().GetSize();
    EXPECT_TRUE(offsets.AddChunk(UINT32_MAX));
    offsets.SetUse64BitSize();
    EXPECT_FALSE(offsets.AddChunk(int64_t{UINT32_MAX} + 1));
    EXPECT_EQ(log.Count("error", "reach the max frame num 2", "AddChunk"), 1);
    EXPECT_EQ(offsets.Selected().GetSize(), size) << "the table in the file cannot move";
}

TEST(SampleTables, ReservedTablesAreRewrittenInPlaceAndRefuseWhenFull) {
    CheckReserved<CMp4StszAtom>("0000001c 7374737a 00000000 00000000", "00000009",
                                [](auto& box) { return box.AddEntry(9); });
    CheckReserved<CMp4StcoAtom>("00000018 7374636f 00000000", "00000009",
                                [](auto& box) { return box.AddChunk(9); });
    CheckReserved<CMp4Co64Atom>("00000020 636f3634 00000000", "0000000900000000",
                                [](auto& box) { return box.AddChunk(int64_t{9} << 32); });
    CheckReserved<CMp4StssAtom>("00000018 73747373 00000000", "00000009",
                                [](auto& box) { return box.AddSyncSample(9); });
}

TEST(SampleTables, ReservedContainersGiveEverySampleItsOwnChunk) {
    LogCapture log;
    for (const bool large : {false, true}) {
        TableFile file;
        CMp4VideoStblAtom video(&file);
        if (large) video.SetUse64BitSize();
        video.SetMaxFrameNum(3, 2);
        video.Write();
        const uint64_t size = file.GetSize();
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(video.OnFrame(100 + i, 5 + i, i * 10, i * 10, false));
            EXPECT_EQ(video.AddSyncSample(i + 1), i < 2);
            video.Update();
        }
        EXPECT_FALSE(video.OnFrame(200, 9, 30, 30, false));
        EXPECT_EQ(file.GetSize(), size) << "the layout never moves";
        EXPECT_EQ(video.GetSize(), size - 4);
        const MovieReader movie(file.Table());
        const Box& stbl = movie.At("stbl");
        EXPECT_EQ(stbl.At("stsz").Content(16, 16), Hex("00000003 00000005 00000006 00000007"));
        EXPECT_EQ(stbl.At(large ? "co64" : "stco").Content(12, large ? 28 : 16),
                  large ? Hex("00000003 0000000000000064 0000000000000065 0000000000000066")
                        : Hex("00000003 00000064 00000065 00000066"));
        EXPECT_EQ(stbl.At("stss").Content(12, 12), Hex("00000002 00000001 00000002"));
        EXPECT_EQ(stbl.At("stts").Content(12, 12), Hex("00000001 00000003 0000000a"));
        EXPECT_EQ(stbl.At("stsc").Content(12, 16), Hex("00000001 00000001 00000001 00000001"));
    }
}

// Sound has room for one run of durations: a step of another length is refused.
TEST(SampleTables, ReservedSoundHasOneRun) {
    LogCapture log;
    TableFile file;
    CMp4AudioStblAtom audio(&file);
    audio.SetMaxFrameNum(4, 0);
    audio.Write();
    for (const int64_t time : {0, 1024, 2048})
        EXPECT_TRUE(audio.OnFrame(100, 5, time, time, false));
    EXPECT_FALSE(audio.OnFrame(100, 5, 3000, 3000, false));
    EXPECT_EQ(log.Count("error", "reach the max frame num 1", "AddEntry"), 1);
    audio.Update();
    EXPECT_EQ(MovieReader(file.Table()).At("stbl/stts").Content(12, 12),
              Hex("00000001 00000003 00000400"));
}

}  // namespace
