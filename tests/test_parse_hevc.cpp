#include "ParseHevc.h"

#include <gmock/gmock.h>

#include <climits>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "BitReader.h"
#include "bit_writer.h"
#include "movie_reader.h"

using kx_mp4::BitReader;

namespace {

bool Parse(CHevcParser& parser, const Bytes& nal) {
    return parser.ParseNAL(nal.data(), static_cast<int>(nal.size()));
}

// The record's fixed part as ISO/IEC 14496-15, 8.3.3.1.2 lays it out, without the array count.
Bytes Serialize(const HEVCDecoderConfigurationRecord& record) {
    BitWriter out;
    out.U(8, record.configurationVersion).U(2, record.general_profile_space);
    out.U(1, record.general_tier_flag).U(5, record.general_profile_idc);
    out.U(32, record.general_profile_compatibility_flags);
    out.U(48, record.general_constraint_indicator_flags).U(8, record.general_level_idc);
    out.U(4, 0xF).U(12, record.min_spatial_segmentation_idc);
    out.U(6, 0x3F).U(2, record.parallelismType).U(6, 0x3F).U(2, record.chromaFormat);
    out.U(5, 0x1F).U(3, record.bitDepthLumaMinus8).U(5, 0x1F).U(3, record.bitDepthChromaMinus8);
    out.U(16, record.avgFrameRate).U(2, record.constantFrameRate).U(3, record.numTemporalLayers);
    out.U(1, record.temporalIdNested).U(2, record.lengthSizeMinusOne);
    return out.Bytes();
}

Bytes RecordOf(const std::vector<Bytes>& sets) {
    CHevcParser parser;
    for (const Bytes& set : sets)
        EXPECT_TRUE(Parse(parser, set));
    parser.Finish();
    return Serialize(*parser.GetInfo());
}

struct Stream {
    const char* name;
    const char* record;   // the fixed part of the 'hvcC' that ffmpeg 5.1 wrote, in hexadecimal
    const char* sets[3];  // VPS, SPS, PPS
};

// Made with x265 3.5 from 256x144 test pictures, then `ffmpeg -i name.hevc -c copy name.mp4`.
// What is special about a stream, next to its profile:
//   temporal   --temporal-layers --high-tier --level-idc 4.1
//   hrd        --hrd, --display-window, --sar 40:33 and a full video signal type
//   scaling    --scaling-list default --tskip --slices 2
//   untimed    --no-vui-timing-info: a stray zero bit stands before the end of the SPS
// clang-format off
const Stream kStreams[] = {
    {"main422_10", "0104080000009d08000000003cf000fcfefafa00000f",
     {"40010c01ffff0408000003009d0800000300003c959409",
      "4201010408000003009d0800000300003cb0080809136595952930bc04040000030004000003006420",
      "4401c073c189"}},
    {"main444_8", "0104080000009e08000000003cf000fcfff8f800000f",
     {"40010c01ffff0408000003009e0800000300003c959409",
      "4201010408000003009e0800000300003c9001010122cb2b2a5261780808000003000800000300c840",
      "4401c07318301890"}},
    {"temporal", "0121600000009000000000007bf000fcfdf8f8000013",
     {"40010c02ffff21600000030090000003000003007b00009598acc048",
      "42010221600000030090000003000003007b0000a00808091659598acd24995e02020000030002000003003210",
      "4401c172b46240"}},
    {"hrd", "01016000000090000000000096f000fcfdf8f800000f",
     {"40010c01ffff016000000300900000030000030096959809",
      "420101016000000300900000030000030096a0080809165959a4932bc179c040406908912244c00000030040000006"
      "582725978003d090007a1220",
      "4401c172b46240"}},
    {"scaling", "0101600000009000000000003cf000fcfdf8f800000f",
     {"40010c01ffff01600000030090000003000003003c959809",
      "42010101600000030090000003000003003ca0080809165959a49395e0202000000300200000030321",
      "4401c176b44240"}},
    {"untimed", "0101600000009000000000003cf000fcfdf8f800000f",
     {"40010c01ffff01600000030090000003000003003c959809",
      "42010101600000030090000003000003003ca0080809165959a4932bc05a0020",
      "4401c172b46240"}},
};
// clang-format on

std::vector<Bytes> SetsOf(const Stream& stream) {
    return {Hex(stream.sets[0]), Hex(stream.sets[1]), Hex(stream.sets[2])};
}

// What a test may want to be different in the sets that are built; every optional part of the
// syntax is present in them, as far as it is read; then follows what no decoder knows.
struct Options {
    uint64_t subLayersMinus1 = 2, tier = 1, profile = 4, level = 153, nested = 0;
    uint64_t compatibility = 0x08000000, constraints = 0x9D0800000000;
    uint64_t chroma = 2, depthLuma = 2, depthChroma = 1, segmentation = 321;
    uint64_t cpbCountMinus1 = 1, decPicBufferingMinus1 = 5;
    uint64_t refPicSets = 4, negativePics = 2, longTermPics = 2;
    bool vuiHrd = true, tiles = true, wavefronts = false;
};

void PutProfileTierLevel(BitWriter& out, const Options& o) {
    out.U(2, 0).U(1, o.tier).U(5, o.profile).U(32, o.compatibility);
    out.U(48, o.constraints).U(8, o.level);
    if (o.subLayersMinus1 == 0) return;
    // Of each pair of sub-layers one has a profile and the other a level.
    for (uint64_t i = 0; i < 8; ++i)
        out.U(2, i >= o.subLayersMinus1 ? 0 : i % 2 == 0 ? 2 : 1);
    for (uint64_t i = 0; i < o.subLayersMinus1; ++i) {
        if (i % 2 == 0) out.U(88, uint64_t{1} << 50);  // a compatibility flag
        if (i % 2 == 1) out.U(8, 93);
    }
}

void PutOrdering(BitWriter& out, const Options& o) {
    out.U(1, 1);
    for (uint64_t i = 0; i <= o.subLayersMinus1; ++i)
        out.Ue(o.decPicBufferingMinus1).Ue(2).Ue(0);
}

void PutHrd(BitWriter& out, const Options& o, bool common) {
    if (common) out.U(2, 3).U(1, 1).U(19, 0x1234).U(8, 0).U(4, 0).U(15, 0x5A5A);
    for (uint64_t i = 0; i <= o.subLayersMinus1; ++i) {
        // In turn: a fixed rate, a fixed rate within the sequence, low delay.
        const bool lowDelay = i % 3 == 2;
        if (i % 3 == 0) out.U(1, 1).Ue(1);
        if (i % 3 == 1) out.U(1, 0).U(1, 1).Ue(2047);
        if (lowDelay) out.U(3, 1);
        if (!lowDelay) out.Ue(o.cpbCountMinus1);
        const uint64_t cpbs = lowDelay ? 1 : o.cpbCountMinus1 + 1;
        for (uint64_t n = 0; n < 2 * cpbs; ++n)
            out.Ue(1000 + n).Ue(0xFFFFFFFEU).Ue(3).Ue(4).U(1, 1);
    }
}

Bytes MakeVps(const Options& o) {
    BitWriter out;
    out.U(16, NAL_VPS << 9 | 1).U(4, 0).U(2, 3).U(6, 1).U(3, o.subLayersMinus1).U(1, o.nested);
    out.U(16, 0xFFFF);
    PutProfileTierLevel(out, o);
    return out.U(8, 0x5A).Nal();
}

void PutScalingLists(BitWriter& out) {
    for (int list = 0; list < 20; ++list) {  // six of each size, of the largest two
        const int size = list / 6;
        if (list % 6 == 1) {
            out.U(1, 0).Ue(1);
            continue;
        }
        out.U(1, 1);
        if (size > 1) out.Se(-7);
        for (int i = 0; i < (size == 0 ? 16 : 64); ++i)
            out.Se(i % 5 - 2);
    }
}

// The first set is coded as it is, with pictures at -1, -2 ... and at +1; each further one is
// predicted from the one before, moved by -1, with all pictures kept.
void PutRefPicSets(BitWriter& out, const Options& o) {
    out.Ue(o.refPicSets);
    if (o.refPicSets == 0) return;
    out.Ue(o.negativePics).Ue(1);
    for (uint64_t i = 0; i <= o.negativePics; ++i)
        out.Ue(0).U(1, 1);
    // Pictures at {-1, -2, 1} and the own one move to {-2, -3, 0} and -1: the one at 0 is dropped.
    uint64_t pics = o.negativePics + 1;
    for (uint64_t i = 1; i < o.refPicSets; ++i) {
        out.U(1, 1).U(1, 1).Ue(0);
        for (uint64_t n = 0; n <= pics; ++n)
            out.U(n % 2 == 0 ? 1 : 2, 1);
        if (i > 1) ++pics;
    }
}

Bytes MakeSps(const Options& o) {
    BitWriter out;
    out.U(16, NAL_SPS << 9 | 1).U(4, 0).U(3, o.subLayersMinus1).U(1, o.nested);
    PutProfileTierLevel(out, o);
    out.Ue(0).Ue(o.chroma);
    if (o.chroma == 3) out.U(1, 0);
    out.Ue(256).Ue(144).U(1, 1).Ue(0).Ue(1).Ue(0).Ue(1);
    out.Ue(o.depthLuma).Ue(o.depthChroma).Ue(4);
    PutOrdering(out, o);
    out.Ue(0).Ue(3).Ue(0).Ue(3).Ue(1).Ue(1).U(2, 3);
    PutScalingLists(out);
    out.U(2, 3).U(1, 1).U(8, 0x77).Ue(0).Ue(2).U(1, 1);  // pulse code modulation
    PutRefPicSets(out, o);
    out.U(1, 1).Ue(o.longTermPics);
    for (uint64_t i = 0; i < o.longTermPics; ++i)
        out.U(8, 200).U(1, 1);
    out.U(2, 3).U(1, 1);
    // The VUI: aspect ratio, overscan, video signal type, chroma location, field flags, window.
    out.U(1, 1).U(8, 255).U(16, 40).U(16, 33).U(2, 3).U(1, 1).U(4, 5).U(1, 1).U(24, 0x10101);
    out.U(1, 1).Ue(1).Ue(1).U(3, 0).U(1, 1).Ue(1).Ue(2).Ue(3).Ue(4);
    out.U(1, 1).U(32, 1001).U(32, 60000).U(1, 1).Ue(5).U(1, o.vuiHrd ? 1 : 0);
    if (o.vuiHrd) PutHrd(out, o, true);
    out.U(1, 1).U(3, 0).Ue(o.segmentation).Ue(0).Ue(0).Ue(15).Ue(15);
    return out.U(8, 0x5A).Nal();
}

Bytes MakePps(const Options& o) {
    BitWriter out;
    out.U(16, NAL_PPS << 9 | 1).Ue(0).Ue(0).U(7, 0x11).Ue(2).Ue(2).Se(-3).U(1, 0).U(2, 3).Ue(1);
    out.Se(-5).Se(5).U(4, 8).U(1, o.tiles ? 1 : 0).U(1, o.wavefronts ? 1 : 0);
    return out.U(8, 0x5A).Nal();
}

using Change = std::function<void(Options&)>;

std::vector<Bytes> MakeSets(const Change& change = [](Options&) {}) {
    Options options;
    change(options);
    return {MakeVps(options), MakeSps(options), MakePps(options)};
}

TEST(HevcParser, RecordEqualsThatOfAnotherMuxer) {
    for (const Stream& stream : kStreams)
        EXPECT_EQ(RecordOf(SetsOf(stream)), Hex(stream.record)) << stream.name;
}

// What x265 does not have. For the streams with tiles, wavefronts and slices of their own, coded
// pictures behind them, ffmpeg 5.1 wrote these records. Its reading of the VUI is left behind by an
// HRD and by a predicted reference picture set that drops a picture, so these are not in the sets.
TEST(HevcParser, RecordOfBuiltSets) {
    const auto tiles = [](Options& o) {
        o.depthChroma = 2;
        o.refPicSets = 1;
        o.vuiHrd = false;
    };
    const auto slices = [&](Options& o) {
        tiles(o);
        o.tiles = false;
        o.nested = 1;
        o.segmentation = 1024;
        o.subLayersMinus1 = 0;
    };
    const auto wavefronts = [&](Options& o) { slices(o), o.wavefronts = true; };
    const auto greatest = [](Options& o) {
        o.subLayersMinus1 = 6;
        o.cpbCountMinus1 = 31;
        o.decPicBufferingMinus1 = 15;
        o.refPicSets = 14;
        o.longTermPics = 32;
        o.segmentation = 4095;
        o.chroma = 3;
        o.depthLuma = 8;  // 16 bits do not fit the field, it says 15
    };
    EXPECT_EQ(RecordOf(MakeSets(tiles)), Hex("0124080000009d080000000099f141fefefafa00001b"));
    EXPECT_EQ(RecordOf(MakeSets(slices)), Hex("0124080000009d080000000099f400fdfefafa00000f"));
    EXPECT_EQ(RecordOf(MakeSets(wavefronts)), Hex("0124080000009d080000000099f400fffefafa00000f"));
    EXPECT_EQ(RecordOf(MakeSets()), Hex("0124080000009d080000000099f141fefefaf900001b"));
    EXPECT_EQ(RecordOf(MakeSets(greatest)), Hex("0124080000009d080000000099fffffefffff900003b"));
}

TEST(HevcParser, ArraysAreInOrderAndReferToTheCallersBytes) {
    const std::vector<Bytes> sets = MakeSets();
    CHevcParser parser;
    for (const size_t i : {2U, 1U, 0U, 2U})
        ASSERT_TRUE(Parse(parser, sets[i]));
    parser.Finish();
    const ARR_HVCCNALUnitArray& arrays = parser.GetInfo()->array;
    ASSERT_EQ(arrays.size(), 3U);
    for (size_t i = 0; i < arrays.size(); ++i) {
        EXPECT_EQ(arrays[i].NAL_unit_type, NAL_VPS + i);
        EXPECT_EQ(arrays[i].array_completeness, 1);
        ASSERT_EQ(arrays[i].Nalus.size(), i == 2 ? 2U : 1U);
        EXPECT_EQ(arrays[i].Nalus[0].nal, sets[i].data());
        EXPECT_EQ(arrays[i].Nalus[0].len, sets[i].size());
    }
}

// A set that is cut off is refused as long as the record lacks something that every set has; from
// then on it says what was read, and where the cut hides the segmentation limit, that it is
// unknown.
TEST(HevcParser, ASetThatIsCutOffIsRefusedOrSaysWhatWasRead) {
    for (const Bytes& set : MakeSets()) {
        const Bytes whole = RecordOf({set});
        Bytes unlimited = whole;
        unlimited[13] = 0xF0;
        unlimited[14] = 0;
        unlimited[15] = 0xFC;
        size_t taken = 0;
        for (size_t size = 0; size < set.size(); ++size) {
            CHevcParser parser;
            const Bytes before = Serialize(*parser.GetInfo());
            if (Parse(parser, Bytes(set.begin(), set.begin() + static_cast<ptrdiff_t>(size)))) {
                parser.Finish();
                const Bytes record = Serialize(*parser.GetInfo());
                EXPECT_TRUE(record == whole || record == unlimited) << size;
                ++taken;
                continue;
            }
            EXPECT_EQ(taken, 0U) << "no more once it was enough";
            EXPECT_EQ(Serialize(*parser.GetInfo()), before);
            EXPECT_TRUE(parser.GetInfo()->array.empty());
        }
        EXPECT_GT(taken, 0U);
    }
}

TEST(HevcParser, ForbiddenValuesOfWhatTheRecordNeedsAreRefused) {
    struct Case {
        size_t set;  // VPS, SPS
        uint64_t Options::*value;
        uint64_t forbidden;
        bool refused;
    };
    for (const Case& test : {
             Case{0, &Options::subLayersMinus1, 7, true},
             {1, &Options::subLayersMinus1, 7, true},
             {1, &Options::chroma, 4, true},
             {1, &Options::depthLuma, 9, true},
             {1, &Options::depthChroma, 0xFFFFFFFE, true},
             {1, &Options::refPicSets, 65, false},
             {1, &Options::negativePics, 16, false},
             {1, &Options::refPicSets, 20, false},
             {1, &Options::longTermPics, 33, false},
             {1, &Options::cpbCountMinus1, 32, false},
             {1, &Options::segmentation, 4096, false},
         }) {
        Options options;
        options.*test.value = test.forbidden;
        CHevcParser parser;
        const Bytes set = test.set == 0 ? MakeVps(options) : MakeSps(options);
        EXPECT_EQ(Parse(parser, set), !test.refused) << test.forbidden;
        EXPECT_EQ(parser.GetInfo()->array.empty(), test.refused) << test.forbidden;
        EXPECT_EQ(parser.GetInfo()->min_spatial_segmentation_idc, 0) << "unknown";
    }
}

// The last resort: a set that nobody can read goes into the record with what its head says.
TEST(HevcParser, UnparsedSetsGiveTheirFixedFields) {
    const std::vector<Bytes> sets = SetsOf(kStreams[2]);
    Bytes sps(sets[1].begin(), sets[1].begin() + 19);  // as far as the level
    CHevcParser parser;
    EXPECT_FALSE(Parse(parser, sps));
    parser.AddUnparsed(NAL_SPS, sps.data(), static_cast<int>(sps.size()));
    parser.AddUnparsed(NAL_PPS, sps.data(), 1);
    parser.AddUnparsed(NAL_VPS, nullptr, 1);
    parser.Finish();
    EXPECT_EQ(Serialize(*parser.GetInfo()), Hex("0121600000009000000000007bf000fcfdf8f800000b"));
    EXPECT_EQ(parser.GetInfo()->array.size(), 2U);
}

TEST(HevcParser, WhatIsNoParameterSetOfTheBaseLayerIsRefused) {
    const Bytes good = MakePps(Options{});
    CHevcParser parser;
    const std::pair<int, int> headers[] = {
        {0x80 | NAL_PPS << 1, 1},  // forbidden_zero_bit
        {NAL_PPS << 1 | 1, 1},     // layer 32
        {NAL_PPS << 1, 9},         // layer 1
        {NAL_PPS << 1, 0},         // no temporal layer
        {39 << 1, 1},              // SEI
    };
    for (const auto& [first, second] : headers) {
        Bytes nal = good;
        nal[0] = static_cast<uint8_t>(first);
        nal[1] = static_cast<uint8_t>(second);
        EXPECT_FALSE(Parse(parser, nal)) << first << " " << second;
    }
    EXPECT_FALSE(parser.ParseNAL(nullptr, 20));
    for (const int size : {INT_MIN, -1, 0, 1, 2})
        EXPECT_FALSE(parser.ParseNAL(good.data(), size)) << size;
    Bytes large = good;
    large.resize(65535);
    EXPECT_TRUE(Parse(parser, large));
    large.resize(65536);
    EXPECT_FALSE(Parse(parser, large)) << "its length does not fit 16 bits";
}

TEST(HevcParser, RecordSaysWhatHoldsForAllSets) {
    Options high;
    high.compatibility = 0x60000000;
    high.constraints = 0x900000000001;
    high.level = 93;
    high.subLayersMinus1 = 0;
    high.nested = 1;
    Options main = high;
    main.tier = main.nested = 0;
    main.profile = 1;
    main.compatibility = 0x48000000;
    main.constraints = 0xB00000000000;
    main.level = 180;
    main.segmentation = 17;
    main.subLayersMinus1 = 4;
    // The greater profile, the flags of both, the level of the higher tier, the lesser
    // segmentation.
    const Bytes expected = Hex("0124400000009000000000005df011fcfefaf900002b");
    EXPECT_EQ(RecordOf({MakeSps(high), MakeSps(main)}), expected);
    EXPECT_EQ(RecordOf({MakeSps(main), MakeSps(high)}), expected);
}

TEST(HevcParser, ParallelismComesFromTheToolsOfAllPictureParameterSets) {
    using Tools = std::pair<bool, bool>;  // tiles, wavefronts
    const auto parallelism = [](uint64_t segmentation, const std::vector<Tools>& pictureSets) {
        Options options;
        options.segmentation = segmentation;
        std::vector<Bytes> sets{MakeSps(options)};
        for (const auto& [tiles, wavefronts] : pictureSets) {
            options.tiles = tiles;
            options.wavefronts = wavefronts;
            sets.push_back(MakePps(options));
        }
        return RecordOf(sets)[15] & 3;
    };
    constexpr int kMixed = 0, kSlices = 1, kTiles = 2, kWavefronts = 3;
    EXPECT_EQ(parallelism(9, {{false, false}}), kSlices);
    EXPECT_EQ(parallelism(9, {{true, false}, {true, false}}), kTiles);
    EXPECT_EQ(parallelism(9, {{false, true}}), kWavefronts);
    EXPECT_EQ(parallelism(9, {{true, true}}), kMixed);
    EXPECT_EQ(parallelism(9, {{true, false}, {false, true}, {false, true}}), kMixed);
    EXPECT_EQ(parallelism(0, {{true, false}}), kMixed);
    EXPECT_EQ(parallelism(9, {}), kMixed);
}

TEST(BitReader, LeavesOutEmulationPreventionBytes) {
    const Bytes nal{0x00, 0x00, 0x03, 0x01, 0x00, 0x00, 0x03, 0x00, 0x03, 0x00, 0x00, 0x03};
    BitReader bits(nal.data(), nal.size());
    EXPECT_EQ(bits.BitsLeft(), 72U);
    EXPECT_EQ(bits.U(24), 0x000001U);
    EXPECT_EQ(bits.U(4), 0U);
    EXPECT_EQ(bits.BitsLeft(), 44U);
    EXPECT_EQ(bits.U(32), 0x00000030U);
    EXPECT_EQ(bits.U(12), 0U);
    EXPECT_TRUE(bits.Ok());
    EXPECT_FALSE(bits.Flag());
    EXPECT_FALSE(bits.Ok());
}

TEST(BitReader, ReadsExpGolombCodesToTheirLimits) {
    BitWriter out;
    const Bytes nal = out.Ue(255).Ue(0xFFFFFFFEU).Se(-1).Se(77).Se(INT_MAX).Se(-INT_MAX).Nal();
    BitReader bits(nal.data(), nal.size());
    EXPECT_EQ(bits.Ue(), 255U);
    EXPECT_EQ(bits.Ue(), 0xFFFFFFFEU);
    for (const int32_t value : {-1, 77, INT_MAX, -INT_MAX})
        EXPECT_EQ(bits.Se(), value);
    EXPECT_TRUE(bits.Ok());
    const Bytes tooLong{0, 0, 3, 0, 0, 3, 0x80, 0xFF, 0xFF, 0xFF, 0xFF};
    BitReader code(tooLong.data(), tooLong.size());
    EXPECT_EQ(code.Ue(), 0U);
    EXPECT_FALSE(code.Ok());
    EXPECT_EQ(code.U(8), 0U) << "it stays failed";
}

}  // namespace
