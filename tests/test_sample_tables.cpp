// The sample tables: what they record, how they are written once at the end, and how they are
// rewritten in place in room reserved for them.
#include <gtest/gtest.h>

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

template <class Box>
Bytes Written(Box& box) {
    CBufferIO out;
    out.Init(nullptr);
    box.setWriter(&out);
    box.Write();
    EXPECT_EQ(box.GetSize(), out.GetSize());
    return BytesOf(out);
}

TEST(SampleTables, DecodeTimesBecomeRunsOfDurations) {
    const struct {
        std::vector<int64_t> times;
        int32_t defaultDuration;  // 0: not set
        std::string runs;         // count of runs, then runs
    } kTable[] = {
        {{}, 0, "00000000"},
        {{700}, 0, "00000001 00000001 00000001"},
        {{700}, 1001, "00000001 00000001 000003e9"},
        {{0, 10, 20, 30}, 0, "00000001 00000004 0000000a"},
        {{5, 15, 25, 35}, 99, "00000001 00000004 0000000a"},
        {{0, 10, 20, 25}, 0, "00000002 00000002 0000000a 00000002 00000005"},
        {{0, 10, 15, 25}, 0, "00000003 00000001 0000000a 00000001 00000005 00000002 0000000a"},
        {{0, 10, 7}, 0, "00000002 00000001 0000000a 00000002 fffffffd"},
        {{0, 0, 0}, 0, "00000001 00000003 00000000"},
        {{0, int64_t{1} << 32, (int64_t{1} << 32) + 7},
         0,
         "00000002 00000001 00000000 00000002 00000007"},
    };
    for (const auto& row : kTable) {
        CMp4SttsAtom stts(nullptr);
        if (row.defaultDuration != 0) stts.SetFrameDuration(row.defaultDuration);
        for (const int64_t time : row.times)
            EXPECT_TRUE(stts.AddEntry(time));
        const Bytes content = Hex("73747473 00000000" + row.runs);
        const Bytes expected = Bytes{0, 0, 0, static_cast<uint8_t>(content.size() + 4)} + content;
        EXPECT_EQ(Written(stts), expected) << row.runs;
        EXPECT_EQ(Written(stts), expected) << "a second time: " << row.runs;
    }
}

TEST(SampleTables, APendingRunIsNotCommittedByWriting) {
    CMp4SttsAtom stts(nullptr);
    for (const int64_t time : {0, 10, 20})
        stts.AddEntry(time);
    EXPECT_EQ(Written(stts), Hex("00000018 73747473 00000000 00000001 00000003 0000000a"));
    stts.AddEntry(30);
    stts.AddEntry(35);
    EXPECT_EQ(Written(stts), Hex("00000020 73747473 00000000 00000002 00000003 0000000a"
                                 "00000002 00000005"));
}

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
    LogCapture log;
    TableFile file;
    CMp4SttsAtom stts(&file);
    stts.SetMaxFrame(3);
    stts.Update();
    EXPECT_EQ(log.Count("error", "not in safe mode, logic error", "Update"), 1);
    stts.Write();
    EXPECT_EQ(file.Table(), Hex("00000028 73747473 00000000 00000000") + Bytes(24, 0));
    EXPECT_EQ(stts.GetSize(), 40U);
    stts.AddEntry(0);
    stts.AddEntry(10);
    stts.Update();
    EXPECT_EQ(file.Table(),
              Hex("00000028 73747473 00000000 00000001 00000002 0000000a") + Bytes(16, 0));
    stts.AddEntry(20);
    stts.AddEntry(25);
    stts.Update();
    stts.AddEntry(30);
    stts.Update();
    stts.Update();
    EXPECT_EQ(file.Table(), Hex("00000028 73747473 00000000 00000002 00000002 0000000a"
                                "00000003 00000005") +
                                Bytes(8, 0));
}

TEST(SampleTables, EqualSizesNeedNoTable) {
    const struct {
        std::vector<int32_t> sizes;
        std::string box;
    } kTable[] = {
        {{}, "00000014 7374737a 00000000 00000000 00000000"},
        {{7}, "00000014 7374737a 00000000 00000007 00000001"},
        {{100, 100, 100}, "00000014 7374737a 00000000 00000064 00000003"},
        {{100, 101}, "0000001c 7374737a 00000000 00000000 00000002 00000064 00000065"},
        {{1, 2, 1}, "00000020 7374737a 00000000 00000000 00000003 00000001 00000002 00000001"},
        {{0, 0}, "00000014 7374737a 00000000 00000000 00000002"},
    };
    for (const auto& row : kTable) {
        CMp4StszAtom stsz(nullptr);
        uint64_t sum = 0;
        for (const int32_t size : row.sizes) {
            EXPECT_TRUE(stsz.AddEntry(size));
            sum += static_cast<uint64_t>(size);
        }
        EXPECT_EQ(Written(stsz), Hex(row.box));
        EXPECT_EQ(Written(stsz), Hex(row.box)) << "a second time";
        EXPECT_EQ(stsz.GetDataSize(), sum);
    }
}

TEST(SampleTables, ChunksOfTheSameLengthShareAnEntry) {
    const struct {
        std::vector<int> chunks;
        std::string box;
    } kTable[] = {
        {{}, "00000010 73747363 00000000 00000000"},
        {{1}, "0000001c 73747363 00000000 00000001 00000001 00000001 00000001"},
        {{5, 5, 3, 3, 5},
         "00000034 73747363 00000000 00000003 00000001 00000005 00000001"
         "00000003 00000003 00000001 00000005 00000005 00000001"},
    };
    for (const auto& row : kTable) {
        CMp4StscAtom stsc(nullptr);
        stsc.AddEntry(false);  // continues nothing: not counted
        for (const int samples : row.chunks)
            for (int i = 0; i < samples; ++i)
                stsc.AddEntry(i == 0);
        EXPECT_EQ(Written(stsc), Hex(row.box));
        EXPECT_EQ(Written(stsc), Hex(row.box)) << "a second time";
        stsc.SetFixedHeader();
        EXPECT_EQ(Written(stsc),
                  Hex("0000001c 73747363 00000000 00000001 00000001 00000001 00000001"));
    }
}

TEST(SampleTables, OffsetsAndSyncSamplesAreListed) {
    CMp4StcoAtom stco(nullptr);
    EXPECT_EQ(Written(stco), Hex("00000010 7374636f 00000000 00000000"));
    stco.AddChunk(48);
    stco.AddChunk(-1);  // the low 32 bits of an offset below 4 GiB
    EXPECT_EQ(Written(stco), Hex("00000018 7374636f 00000000 00000002 00000030 ffffffff"));

    CMp4Co64Atom co64(nullptr);
    EXPECT_EQ(Written(co64), Hex("00000010 636f3634 00000000 00000000"));
    co64.AddChunk(0x123456789A);
    EXPECT_EQ(Written(co64), Hex("00000018 636f3634 00000000 00000001 000000123456789a"));

    CMp4StssAtom stss(nullptr);
    EXPECT_EQ(Written(stss), Hex("00000010 73747373 00000000 00000000"));
    stss.AddSyncSample(1);
    stss.AddSyncSample(31);
    EXPECT_EQ(Written(stss), Hex("00000018 73747373 00000000 00000002 00000001 0000001f"));
}

TEST(SampleTables, CompositionOffsetsAreWrittenOnlyWhenThereAreAny) {
    const struct {
        std::vector<int64_t> offsets;
        std::string box;
    } kTable[] = {
        {{}, ""},
        {{0, 0, 0}, ""},
        {{0, 2, 2}, "00000020 63747473 00000000 00000002 00000001 00000000 00000002 00000002"},
        {{1, -1}, "00000020 63747473 01000000 00000002 00000001 00000001 00000001 ffffffff"},
    };
    for (const auto& row : kTable) {
        CMp4CttsAtom ctts(nullptr);
        int64_t time = 100;
        for (const int64_t offset : row.offsets) {
            ctts.AddEntry(time + offset, time);
            time += 10;
        }
        EXPECT_EQ(ctts.HasOffsets(), !row.box.empty());
        EXPECT_EQ(Written(ctts), Hex(row.box));
        EXPECT_EQ(Written(ctts), Hex(row.box)) << "a second time";
    }
    EXPECT_TRUE(CMp4CttsAtom::OffsetFits(int64_t{1} << 31, 1));
    EXPECT_FALSE(CMp4CttsAtom::OffsetFits(int64_t{1} << 31, 0));
    EXPECT_FALSE(CMp4CttsAtom::OffsetFits(INT64_MAX, -1));
}

/// One reserved table of two entries: how it is fed, and what it looks like.
struct ReservedTable {
    std::function<void(uint32_t)> reserve;
    std::function<bool()> add;
    std::function<void()> update;
    std::string empty;
    std::string oneInPlace;
    std::string twoInPlace;
    std::string refusal;
    std::string function;
    bool countRewrittenAlways;
};

template <class Box>
void CheckReserved(Box& box, TableFile& file, const ReservedTable& table) {
    LogCapture log;
    box.Update();
    EXPECT_EQ(log.Count("error", "not in safe mode, logic error", "Update"), 1);
    table.reserve(2);
    box.Write();
    EXPECT_EQ(file.Table(), Hex(table.empty));
    EXPECT_EQ(box.GetSize(), file.Table().size());
    EXPECT_TRUE(table.add());
    box.Update();
    EXPECT_EQ(file.Table(), Hex(table.oneInPlace));
    const uint64_t position = file.Ftell();
    file.Seek(0, SEEK_SET);
    box.Update();
    EXPECT_EQ(file.Ftell() != 0, table.countRewrittenAlways);
    file.Seek(static_cast<int64_t>(position), SEEK_SET);
    EXPECT_TRUE(table.add());
    box.Update();
    EXPECT_EQ(file.Table(), Hex(table.twoInPlace));
    EXPECT_FALSE(table.add());
    EXPECT_EQ(log.Count("error", table.refusal, table.function), 1);
    box.Update();
    EXPECT_EQ(file.Table(), Hex(table.twoInPlace));
    EXPECT_EQ(box.GetSize(), file.Table().size());
}

TEST(SampleTables, ReservedTablesAreRewrittenInPlaceAndRefuseWhenFull) {
    {
        TableFile file;
        CMp4StszAtom box(&file);
        CheckReserved(box, file,
                      {[&](uint32_t num) { box.SetMaxFrame(num); }, [&] { return box.AddEntry(9); },
                       nullptr, "0000001c 7374737a 00000000 00000000 00000000 00000000 00000000",
                       "0000001c 7374737a 00000000 00000000 00000001 00000009 00000000",
                       "0000001c 7374737a 00000000 00000000 00000002 00000009 00000009",
                       "reach the max frame num 2", "AddEntry", false});
    }
    {
        TableFile file;
        CMp4StcoAtom box(&file);
        CheckReserved(box, file,
                      {[&](uint32_t num) { box.SetMaxFrame(num); }, [&] { return box.AddChunk(9); },
                       nullptr, "00000018 7374636f 00000000 00000000 00000000 00000000",
                       "00000018 7374636f 00000000 00000001 00000009 00000000",
                       "00000018 7374636f 00000000 00000002 00000009 00000009",
                       "reach the max frame num 2", "AddChunk", false});
    }
    {
        TableFile file;
        CMp4Co64Atom box(&file);
        CheckReserved(box, file,
                      {[&](uint32_t num) { box.SetMaxFrame(num); },
                       [&] { return box.AddChunk(int64_t{9} << 32); }, nullptr,
                       "00000020 636f3634 00000000 00000000 0000000000000000 0000000000000000",
                       "00000020 636f3634 00000000 00000001 0000000900000000 0000000000000000",
                       "00000020 636f3634 00000000 00000002 0000000900000000 0000000900000000",
                       "reach the max frame num 2", "AddChunk", false});
    }
    {
        TableFile file;
        CMp4StssAtom box(&file);
        CheckReserved(
            box, file,
            {[&](uint32_t num) { box.SetMaxFrameNum(num); }, [&] { return box.AddSyncSample(9); },
             nullptr, "00000018 73747373 00000000 00000000 00000000 00000000",
             "00000018 73747373 00000000 00000001 00000009 00000000",
             "00000018 73747373 00000000 00000002 00000009 00000009",
             "video sync frame box(stss) have no left space", "AddSyncSample", true});
    }
}

TEST(SampleTables, EntriesRecordedBeforeTheReservedBoxIsWritten) {
    TableFile file;
    CMp4StszAtom stsz(&file);
    stsz.SetMaxFrame(3);
    stsz.AddEntry(4);
    stsz.Write();
    EXPECT_EQ(file.Table(), Hex("00000020 7374737a 00000000 00000000 00000000 00000004"
                                "00000000 00000000"));
    stsz.Update();
    EXPECT_EQ(file.Table(), Hex("00000020 7374737a 00000000 00000000 00000001 00000004"
                                "00000000 00000000"));
}

class SampleTableContainer : public ::testing::Test {
protected:
    SampleTableContainer() { m_file.Init(nullptr); }

    /// The only box in the file.
    const Box& Read() {
        m_movie = std::make_unique<MovieReader>(BytesOf(m_file));
        return m_movie->File().children.at(0);
    }

    LogCapture m_log;
    CBufferIO m_file;
    std::unique_ptr<MovieReader> m_movie;
};

TEST_F(SampleTableContainer, WritesItsTablesInOrder) {
    CMp4VideoStblAtom video(&m_file);
    video.SetFrameDuration(10);
    EXPECT_TRUE(video.OnFrame(40, 5, 70, 0, true));
    EXPECT_TRUE(video.AddSyncSample(1));
    EXPECT_TRUE(video.OnFrame(45, 6, 10, 10, false));
    EXPECT_TRUE(video.OnFrame(0x1000000F0, 7, 20, 20, true));
    video.Write();
    EXPECT_EQ(video.GetSize(), m_file.GetSize());
    EXPECT_EQ(video.GetDataSize(), 18U);
    const Box& stbl = Read();
    EXPECT_EQ(stbl.ChildTypes(), "stsd stts stsz stsc stco stss");
    EXPECT_EQ(stbl.At("stco").U32(12), 2U);
    EXPECT_EQ(stbl.At("stco").U32(20), 0xF0U) << "modulo 2^32";
    EXPECT_TRUE(m_log.Complaints().empty());
}

TEST_F(SampleTableContainer, LargeOffsetsKeepTheirHighBits) {
    CMp4AudioStblAtom audio(&m_file);
    audio.SetUse64BitSize();
    EXPECT_TRUE(audio.OnFrame(0x1000000F0, 7, 20, 20, true));
    audio.Write();
    EXPECT_EQ(Read().ChildTypes(), "stsd stts stsz stsc co64");
    EXPECT_EQ(Read().At("co64").U64(16), 0x1000000F0U);
}

TEST_F(SampleTableContainer, OffsetsAlreadyRecordedMoveToTheLargeTable) {
    CMp4VideoStblAtom video(&m_file);
    for (const int64_t offset : {int64_t{40}, int64_t{0xFFFFFF00}})
        video.OnFrame(offset, 4, 0, 0, true);
    video.SetUse64BitSize();
    video.OnFrame(0x100000100, 4, 0, 0, true);
    video.Write();
    EXPECT_EQ(video.GetSize(), m_file.GetSize());
    const Box& co64 = Read().At("co64");
    EXPECT_EQ(co64.U32(12), 3U);
    EXPECT_EQ(co64.U64(16), 40U);
    EXPECT_EQ(co64.U64(24), 0xFFFFFF00U);
    EXPECT_EQ(co64.U64(32), 0x100000100U);
}

TEST_F(SampleTableContainer, CaptionsHaveNoSyncTableAndVideoAlwaysHas) {
    CMp4SubtitleStblAtom captions(&m_file);
    captions.SetCodec(MP4_SUBTITLE_CODEC_CC708);
    captions.Write();
    EXPECT_EQ(Read().ChildTypes(), "stsd stts stsz stsc stco");
    m_file.Init(nullptr);
    CMp4VideoStblAtom video(&m_file);
    video.Write();
    EXPECT_EQ(Read().At("stss").U32(12), 0U);
    EXPECT_EQ(video.GetSize(), m_file.GetSize());
}

TEST_F(SampleTableContainer, FixedHeaderGivesEverySampleItsOwnChunk) {
    CMp4VideoStblAtom video(&m_file);
    video.Update();
    EXPECT_EQ(m_log.Count("error", "logic error", "Update"), 1);
    m_file.WriteInt32(8);  // a box before it: position 0 means "never written"
    m_file.WriteTag("free");
    video.SetMaxFrameNum(3, 2);
    video.Write();
    const uint64_t size = m_file.GetSize();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(video.OnFrame(100 + i, 5 + i, i * 10, i * 10, false));
        if (i < 2) {
            EXPECT_TRUE(video.AddSyncSample(i + 1));
        }
        video.Update();
    }
    EXPECT_FALSE(video.OnFrame(200, 9, 30, 30, false));
    EXPECT_FALSE(video.AddSyncSample(3));
    EXPECT_EQ(m_file.GetSize(), size) << "the layout never moves";
    EXPECT_EQ(video.GetSize(), size - 8);
    Read();
    const Box& stbl = m_movie->At("stbl");
    EXPECT_EQ(stbl.At("stsz").U32(16), 3U);
    EXPECT_EQ(stbl.At("stsz").U32(28), 7U);
    EXPECT_EQ(stbl.At("stco").U32(12), 3U);
    EXPECT_EQ(stbl.At("stco").U32(24), 102U);
    EXPECT_EQ(stbl.At("stss").U32(12), 2U);
    EXPECT_EQ(stbl.At("stts").U32(12), 1U);
    EXPECT_EQ(stbl.At("stts").U32(16), 3U);
    EXPECT_EQ(stbl.At("stsc").size, 28U);
}

TEST_F(SampleTableContainer, FixedHeaderAudioKeepsOneDuration) {
    CMp4AudioStblAtom audio(&m_file);
    audio.SetUse64BitSize();
    audio.SetMaxFrameNum(100, 0);
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(audio.OnFrame(i, 4, i * 1024, i * 1024, true));
    EXPECT_FALSE(audio.OnFrame(50, 4, 50 * 1024 + 1, 50 * 1024 + 1, true));
}

}  // namespace
