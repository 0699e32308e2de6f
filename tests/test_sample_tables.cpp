// The sample tables: what they record, how they are written once at the end, and how they are
// rewritten in place in room reserved for them.
#include <gtest/gtest.h>

#include <memory>
#include <numeric>
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

TEST(SampleTables, EqualSizesNeedNoTable) {
    const std::pair<std::vector<int32_t>, std::string> kTable[] = {
        {{}, "00000014 7374737a 00000000 00000000 00000000"},
        {{7}, "00000014 7374737a 00000000 00000007 00000001"},
        {{100, 100, 100}, "00000014 7374737a 00000000 00000064 00000003"},
        {{1, 2, 1}, "00000020 7374737a 00000000 00000000 00000003 00000001 00000002 00000001"},
        {{0, 0}, "00000014 7374737a 00000000 00000000 00000002"},
    };
    for (const auto& [sizes, box] : kTable) {
        CMp4StszAtom stsz(nullptr);
        for (const int32_t size : sizes)
            EXPECT_TRUE(stsz.AddEntry(size));
        EXPECT_EQ(Written(stsz), Hex(box));
        EXPECT_EQ(Written(stsz), Hex(box)) << "a second time";
        EXPECT_EQ(stsz.GetDataSize(), std::accumulate(sizes.begin(), sizes.end(), uint64_t{0}));
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

TEST_F(SampleTableContainer, OffsetsPastFourGibibytesNeedTheLargeTable) {
    const int64_t kOffsets[] = {40, 0xFFFFFF00, 0x100000100};
    for (const bool large : {false, true}) {
        m_file.Init(nullptr);
        CMp4VideoStblAtom video(&m_file);
        for (const int64_t offset : kOffsets) {
            video.OnFrame(offset, 4, 0, 0, true);
            if (large) video.SetUse64BitSize();  // the first is recorded already
        }
        video.Write();
        EXPECT_EQ(video.GetSize(), m_file.GetSize());
        EXPECT_EQ(Read().ChildTypes(),
                  std::string("stsd stts stsz stsc ") + (large ? "co64" : "stco") + " stss");
        const Box& table = Read().At(large ? "co64" : "stco");
        EXPECT_EQ(table.U32(12), 3U);
        for (uint64_t i = 0; i < 3; ++i) {
            const auto offset = static_cast<uint64_t>(kOffsets[i]);
            if (large) {
                EXPECT_EQ(table.U64(16 + 8 * i), offset);
            } else {
                EXPECT_EQ(table.U32(16 + 4 * i), offset & UINT32_MAX) << "modulo 2^32";
            }
        }
    }
}

TEST_F(SampleTableContainer, FixedHeaderGivesEverySampleItsOwnChunk) {
    CMp4VideoStblAtom video(&m_file);
    m_file.WriteInt32(8);  // a box before it: position 0 means "never written"
    m_file.WriteTag("free");
    video.SetMaxFrameNum(3, 2);
    video.Write();
    const uint64_t size = m_file.GetSize();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(video.OnFrame(100 + i, 5 + i, i * 10, i * 10, false));
        EXPECT_EQ(video.AddSyncSample(i + 1), i < 2);
        video.Update();
    }
    EXPECT_FALSE(video.OnFrame(200, 9, 30, 30, false));
    EXPECT_EQ(m_file.GetSize(), size) << "the layout never moves";
    EXPECT_EQ(video.GetSize(), size - 8);
    Read();
    const Box& stbl = m_movie->At("stbl");
    EXPECT_EQ(stbl.At("stsz").Content(16, 16), Hex("00000003 00000005 00000006 00000007"));
    EXPECT_EQ(stbl.At("stco").Content(12, 16), Hex("00000003 00000064 00000065 00000066"));
    EXPECT_EQ(stbl.At("stss").Content(12, 12), Hex("00000002 00000001 00000002"));
    EXPECT_EQ(stbl.At("stts").Content(12, 12), Hex("00000001 00000003 0000000a"));
    EXPECT_EQ(stbl.At("stsc").size, 28U);
}

}  // namespace
