#include "ParseHevc.h"

#include <gmock/gmock.h>

#include <climits>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "BitReader.h"

namespace {

using Bytes = std::vector<uint8_t>;

int HexDigit(char digit) {
    return digit <= '9' ? digit - '0' : digit - 'a' + 10;
}

Bytes FromHex(const std::string& text) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(HexDigit(text[i]) << 4 | HexDigit(text[i + 1])));
    }
    return bytes;
}

bool Parse(CHevcParser& parser, const Bytes& nal) {
    return parser.ParseNAL(nal.data(), static_cast<int>(nal.size()));
}

// The record's fixed part as ISO/IEC 14496-15, 8.3.3.1.2 lays it out, without the array count.
Bytes Serialize(const HEVCDecoderConfigurationRecord& record) {
    Bytes out;
    const auto put = [&out](uint64_t value, int bytes) {
        for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
            out.push_back(static_cast<uint8_t>(value >> shift));
        }
    };
    put(record.configurationVersion, 1);
    put(static_cast<uint64_t>(record.general_profile_space << 6 | record.general_tier_flag << 5 |
                              record.general_profile_idc),
        1);
    put(record.general_profile_compatibility_flags, 4);
    put(record.general_constraint_indicator_flags, 6);
    put(record.general_level_idc, 1);
    put(0xF000U | record.min_spatial_segmentation_idc, 2);
    put(0xFCU | record.parallelismType, 1);
    put(0xFCU | record.chromaFormat, 1);
    put(0xF8U | record.bitDepthLumaMinus8, 1);
    put(0xF8U | record.bitDepthChromaMinus8, 1);
    put(record.avgFrameRate, 2);
    put(static_cast<uint64_t>(record.constantFrameRate << 6 | record.numTemporalLayers << 3 |
                              record.temporalIdNested << 2 | record.lengthSizeMinusOne),
        1);
    return out;
}

struct Stream {
    const char* name;
    const char* record;   // the fixed part of the 'hvcC' that ffmpeg 5.1 wrote, in hexadecimal
    const char* sets[3];  // VPS, SPS, PPS
};

// Made with x265 3.5 from 256x144 test pictures, then `ffmpeg -i name.hevc -c copy name.mp4`.
// What is special about a stream, next to its profile:
//   main_wpp   --wpp, while main has --no-wpp
//   temporal   --temporal-layers --high-tier --level-idc 4.1
//   hrd        --hrd, --display-window, --sar 40:33 and a full video signal type
//   interlace  --interlace tff, so field_seq_flag; --opt-qp-pps --opt-ref-list-length-pps
//   scaling    --scaling-list default --tskip --slices 2
const Stream kStreams[] = {
    {"main",
     "0101600000009000000000003cf000fcfdf8f800000f",
     {"40010c01ffff01600000030090000003000003003c959409",
      "42010101600000030090000003000003003ca008080916595952930bc04040000003004000000642",
      "4401c073c089"}},
    {"main_wpp",
     "0101600000009000000000003cf000fcfdf8f800000f",
     {"40010c01ffff01600000030090000003000003003c959409",
      "42010101600000030090000003000003003ca008080916595952930bc04040000003004000000642",
      "4401c073c189"}},
    {"main10",
     "0102200000009000000000003cf000fcfdfafa00000f",
     {"40010c01ffff02200000030090000003000003003c959409",
      "42010102200000030090000003000003003ca0080809136595952930bc0404000003000400000300"
      "6420",
      "4401c073c189"}},
    {"main422_8",
     "0104080000009d08000000003cf000fcfef8f800000f",
     {"40010c01ffff0408000003009d0800000300003c959409",
      "4201010408000003009d0800000300003cb008080916595952930bc04040000003004000000642",
      "4401c073c189"}},
    {"main422_10",
     "0104080000009d08000000003cf000fcfefafa00000f",
     {"40010c01ffff0408000003009d0800000300003c959409",
      "4201010408000003009d0800000300003cb0080809136595952930bc040400000300040000030064"
      "20",
      "4401c073c189"}},
    {"main444_8",
     "0104080000009e08000000003cf000fcfff8f800000f",
     {"40010c01ffff0408000003009e0800000300003c959409",
      "4201010408000003009e0800000300003c9001010122cb2b2a5261780808000003000800000300c8"
      "40",
      "4401c07318301890"}},
    {"main12",
     "0104080000009988000000003cf000fcfdfcfc00000f",
     {"40010c01ffff040800000300998800000300003c959409",
      "420101040800000300998800000300003ca0080809114a595952930bc04040000003004000000642",
      "4401c073c189"}},
    {"temporal",
     "0121600000009000000000007bf000fcfdf8f8000013",
     {"40010c02ffff21600000030090000003000003007b00009598acc048",
      "42010221600000030090000003000003007b0000a00808091659598acd24995e0202000003000200"
      "0003003210",
      "4401c172b46240"}},
    {"hrd",
     "01016000000090000000000096f000fcfdf8f800000f",
     {"40010c01ffff016000000300900000030000030096959809",
      "420101016000000300900000030000030096a0080809165959a4932bc179c040406908912244c000"
      "00030040000006582725978003d090007a1220",
      "4401c172b46240"}},
    {"interlace",
     "0101600000004000000000003cf000fcfdf8f800000f",
     {"40010c01ffff01600000030040000003000003003c959809",
      "42010101600000030040000003000003003ca0080809165959a4932bc04340000003004000000642",
      "4401c172b46240"}},
    {"scaling",
     "0101600000009000000000003cf000fcfdf8f800000f",
     {"40010c01ffff01600000030090000003000003003c959809",
      "42010101600000030090000003000003003ca0080809165959a49395e02020000003002000000303"
      "21",
      "4401c176b44240"}},
    {"still",
     "0103700000009000000000003cf000fcfdf8f800000f",
     {"40010c01ffff03700000030090000003000003003cba0240",
      "42010103700000030090000003000003003ca0080809165ba924caf0101000000300100000030190"
      "80",
      "4401c172b06240"}},
};

// Writes syntax elements and turns them into a NAL unit.
class BitWriter {
public:
    BitWriter& U(int bits, uint64_t value) {
        for (int i = bits - 1; i >= 0; --i)
            m_bits.push_back(i < 64 && (value >> i & 1) != 0);
        return *this;
    }
    BitWriter& Ue(uint64_t value) {
        int length = 0;
        while ((value + 1) >> (length + 1) != 0)
            ++length;
        return U(length, 0).U(length + 1, value + 1);
    }
    BitWriter& Se(int64_t value) {
        return Ue(static_cast<uint64_t>(value > 0 ? 2 * value - 1 : -2 * value));
    }
    BitWriter& Many(int count, const std::function<void(int)>& write) {
        for (int i = 0; i < count; ++i)
            write(i);
        return *this;
    }

    // Adds the stop bit and emulation prevention.
    Bytes Nal(uint8_t type) {
        U(1, 1);
        while (m_bits.size() % 8 != 0)
            U(1, 0);
        Bytes nal{static_cast<uint8_t>(type << 1), 1};
        for (size_t i = 0; i < m_bits.size(); i += 8) {
            int byte = 0;
            for (size_t bit = i; bit < i + 8; ++bit)
                byte = byte << 1 | (m_bits[bit] ? 1 : 0);
            const size_t n = nal.size();
            if (byte <= 3 && nal[n - 1] == 0 && nal[n - 2] == 0) nal.push_back(3);
            nal.push_back(static_cast<uint8_t>(byte));
        }
        return nal;
    }

private:
    std::vector<bool> m_bits;
};

// What a test may want to be different in the sets that are built; every optional part of the
// syntax is present in them.
struct Options {
    uint64_t subLayersMinus1 = 2;
    uint64_t profileSpace = 0;
    uint64_t tier = 1;
    uint64_t profile = 4;
    uint64_t compatibility = 0x08000000;
    uint64_t constraints = 0x9D0800000000;
    uint64_t level = 153;
    uint64_t nested = 0;
    uint64_t chroma = 2;
    uint64_t depthLuma = 2;
    uint64_t depthChroma = 1;
    uint64_t segmentation = 321;
    uint64_t layerSetsMinus1 = 2;
    uint64_t vpsHrds = 2;
    uint64_t cpbCountMinus1 = 1;
    uint64_t decPicBufferingMinus1 = 5;
    uint64_t refPicSets = 4;
    uint64_t negativePics = 2;
    uint64_t longTermPics = 2;
    uint64_t tileColumnsMinus1 = 2;
    uint64_t chromaQpOffsetsMinus1 = 1;
    bool vuiHrd = true;
    bool tiles = true;
    bool wavefronts = false;
};

void PutProfileTierLevel(BitWriter& out, const Options& o) {
    out.U(2, o.profileSpace).U(1, o.tier).U(5, o.profile).U(32, o.compatibility);
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
    for (uint64_t i = 0; i <= o.subLayersMinus1; ++i) {
        out.Ue(o.decPicBufferingMinus1).Ue(2).Ue(0);
    }
}

void PutHrd(BitWriter& out, const Options& o, bool common) {
    if (common) {
        out.U(2, 3).U(1, 1).U(19, 0x1234).U(8, 0).U(4, 0).U(15, 0x5A5A);
    }
    for (uint64_t i = 0; i <= o.subLayersMinus1; ++i) {
        // In turn: a fixed rate, a fixed rate within the sequence, low delay.
        const bool lowDelay = i % 3 == 2;
        if (i % 3 == 0) out.U(1, 1).Ue(1);
        if (i % 3 == 1) out.U(1, 0).U(1, 1).Ue(2047);
        if (lowDelay) out.U(3, 1);
        if (!lowDelay) out.Ue(o.cpbCountMinus1);
        const auto cpbs = static_cast<int>(lowDelay ? 1 : o.cpbCountMinus1 + 1);
        out.Many(2 * cpbs, [&](int n) {
            out.Ue(1000 + static_cast<uint64_t>(n)).Ue(0xFFFFFFFEU).Ue(3).Ue(4).U(1, 1);
        });
    }
}

Bytes MakeVps(const Options& o) {
    BitWriter out;
    out.U(4, 0).U(2, 3).U(6, 1).U(3, o.subLayersMinus1).U(1, o.nested).U(16, 0xFFFF);
    PutProfileTierLevel(out, o);
    PutOrdering(out, o);
    out.U(6, 1).Ue(o.layerSetsMinus1);
    out.U(static_cast<int>(2 * o.layerSetsMinus1), 0x5);
    out.U(1, 1).U(32, 1001).U(32, 60000).U(1, 1).Ue(0);
    out.Ue(o.vpsHrds);
    for (uint64_t i = 0; i < o.vpsHrds; ++i) {
        out.Ue(i);
        if (i > 0) out.U(1, 0);
        PutHrd(out, o, i == 0);
    }
    return out.U(1, 0).Nal(NAL_VPS);
}

void PutScalingLists(BitWriter& out) {
    for (int size = 0; size < 4; ++size) {
        for (int matrix = 0; matrix < (size == 3 ? 2 : 6); ++matrix) {
            if (matrix == 1) {
                out.U(1, 0).Ue(1);
                continue;
            }
            out.U(1, 1);
            if (size > 1) out.Se(-7);
            out.Many(size == 0 ? 16 : 64, [&](int i) { out.Se(i % 5 - 2); });
        }
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
    int pics = static_cast<int>(o.negativePics) + 1;
    for (uint64_t i = 1; i < o.refPicSets; ++i) {
        out.U(1, 1).U(1, 1).Ue(0);
        out.Many(pics + 1, [&](int n) { out.U(n % 2 == 0 ? 1 : 2, 1); });
        if (i > 1) ++pics;
    }
}

void PutVui(BitWriter& out, const Options& o) {
    out.U(1, 1).U(8, 255).U(16, 40).U(16, 33);           // aspect ratio
    out.U(2, 3).U(1, 1).U(4, 5).U(1, 1).U(24, 0x10101);  // overscan, video signal type
    out.U(1, 1).Ue(1).Ue(1).U(3, 0);                     // chroma location, field flags
    out.U(1, 1).Ue(1).Ue(2).Ue(3).Ue(4);                 // default display window
    out.U(1, 1).U(32, 1001).U(32, 60000).U(1, 1).Ue(5).U(1, o.vuiHrd ? 1 : 0);
    if (o.vuiHrd) PutHrd(out, o, true);
    out.U(1, 1).U(3, 0).Ue(o.segmentation).Ue(0).Ue(0).Ue(15).Ue(15);
}

Bytes MakeSps(const Options& o) {
    BitWriter out;
    out.U(4, 0).U(3, o.subLayersMinus1).U(1, o.nested);
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
    out.Many(static_cast<int>(o.longTermPics), [&](int) { out.U(8, 200).U(1, 1); });
    out.U(2, 3).U(1, 1);
    PutVui(out, o);
    out.U(1, 1).U(8, 0x80).U(9, 0x155);  // range extension
    return out.Nal(NAL_SPS);
}

Bytes MakePps(const Options& o) {
    BitWriter out;
    out.Ue(0).Ue(0).U(7, 0x11).Ue(2).Ue(2).Se(-3).U(1, 0).U(1, 1).U(1, 1).Ue(1);
    out.Se(-5).Se(5).U(4, 8).U(1, o.tiles ? 1 : 0).U(1, o.wavefronts ? 1 : 0);
    if (o.tiles) {
        out.Ue(o.tileColumnsMinus1).Ue(1).U(1, 0);
        out.Many(static_cast<int>(o.tileColumnsMinus1) + 1, [&](int) { out.Ue(0); }).U(1, 1);
    }
    out.U(1, 1).U(1, 1).U(2, 2).Se(2).Se(-2).U(1, 1);
    PutScalingLists(out);
    out.U(1, 0).Ue(2).U(1, 0);
    out.U(1, 1).U(8, 0x80).Ue(1).U(1, 1).U(1, 1).Ue(1).Ue(o.chromaQpOffsetsMinus1);
    out.Many(static_cast<int>(o.chromaQpOffsetsMinus1) + 1, [&](int) { out.Se(-3).Se(3); });
    return out.Ue(0).Ue(0).Nal(NAL_PPS);
}

std::vector<Bytes> MakeSets(const Options& options) {
    return {MakeVps(options), MakeSps(options), MakePps(options)};
}

std::vector<Bytes> SetsOf(const Stream& stream) {
    return {FromHex(stream.sets[0]), FromHex(stream.sets[1]), FromHex(stream.sets[2])};
}

std::vector<Bytes> AllSets() {
    std::vector<Bytes> all = MakeSets({});
    for (const Stream& stream : kStreams) {
        for (Bytes& set : SetsOf(stream))
            all.push_back(std::move(set));
    }
    return all;
}

TEST(HevcParser, RecordEqualsThatOfAnotherMuxer) {
    for (const Stream& stream : kStreams) {
        CHevcParser parser;
        for (const Bytes& set : SetsOf(stream))
            EXPECT_TRUE(Parse(parser, set)) << stream.name;
        parser.Finish();
        EXPECT_EQ(Serialize(*parser.GetInfo()), FromHex(stream.record)) << stream.name;
    }
}

// Streams of built sets with the coded pictures of `main` behind them, for the tools that x265 does
// not have; the records are those that ffmpeg 5.1 wrote for them. Its reading of the VUI is left
// behind by an HRD and by a predicted reference picture set that drops a picture, so these are not
// in the sets; its filter `trace_headers` reads them as built.
TEST(HevcParser, RecordOfParallelToolsEqualsThatOfAnotherMuxer) {
    Options tiles;
    tiles.depthChroma = 2;
    tiles.vpsHrds = 1;
    tiles.refPicSets = 1;
    tiles.vuiHrd = false;
    Options wavefronts = tiles;
    wavefronts.tiles = false;
    wavefronts.wavefronts = true;
    wavefronts.nested = 1;
    wavefronts.segmentation = 1024;
    wavefronts.subLayersMinus1 = 0;
    Options slices = wavefronts;
    slices.wavefronts = false;
    const std::pair<Options, const char*> cases[] = {
        {tiles, "0124080000009d080000000099f141fefefafa00001b"},
        {wavefronts, "0124080000009d080000000099f400fffefafa00000f"},
        {slices, "0124080000009d080000000099f400fdfefafa00000f"},
    };
    for (const auto& [options, record] : cases) {
        CHevcParser parser;
        const std::vector<Bytes> sets = MakeSets(options);
        for (const Bytes& set : sets)
            ASSERT_TRUE(Parse(parser, set));
        parser.Finish();
        EXPECT_EQ(Serialize(*parser.GetInfo()), FromHex(record));
    }
}

TEST(HevcParser, ReadsSetsWithEveryOptionalPart) {
    const std::vector<Bytes> sets = MakeSets({});
    CHevcParser parser;
    for (const Bytes& set : sets)
        ASSERT_TRUE(Parse(parser, set));
    parser.Finish();
    const HEVCDecoderConfigurationRecord& record = *parser.GetInfo();
    EXPECT_EQ(record.general_tier_flag, 1);
    EXPECT_EQ(record.general_profile_idc, 4);
    EXPECT_EQ(record.general_profile_compatibility_flags, 0x08000000U);
    EXPECT_EQ(record.general_constraint_indicator_flags, 0x9D0800000000U);
    EXPECT_EQ(record.general_level_idc, 153);
    EXPECT_EQ(record.min_spatial_segmentation_idc, 321);
    EXPECT_EQ(record.parallelismType, 2);
    EXPECT_EQ(record.chromaFormat, 2);
    EXPECT_EQ(record.bitDepthLumaMinus8, 2);
    EXPECT_EQ(record.bitDepthChromaMinus8, 1);
    EXPECT_EQ(record.numTemporalLayers, 3);
    EXPECT_EQ(record.temporalIdNested, 0);
    EXPECT_EQ(record.lengthSizeMinusOne, 3);
}

TEST(HevcParser, ArraysAreInOrderAndReferToTheCallersBytes) {
    const std::vector<Bytes> sets = MakeSets({});
    CHevcParser parser;
    for (const int i : {2, 1, 0, 2})
        ASSERT_TRUE(Parse(parser, sets[static_cast<size_t>(i)]));
    for (int round = 0; round < 2; ++round) {
        const ARR_HVCCNALUnitArray& arrays = parser.GetInfo()->array;
        ASSERT_EQ(arrays.size(), 3U);
        for (size_t i = 0; i < arrays.size(); ++i) {
            EXPECT_EQ(arrays[i].NAL_unit_type, NAL_VPS + i);
            EXPECT_EQ(arrays[i].array_completeness, 1);
            ASSERT_EQ(arrays[i].Nalus.size(), i == 2 ? 2U : 1U);
            EXPECT_EQ(arrays[i].Nalus[0].nal, sets[i].data());
            EXPECT_EQ(arrays[i].Nalus[0].len, sets[i].size());
        }
        parser.Finish();
    }
}

TEST(HevcParser, AnySetThatIsCutOffIsRefused) {
    for (const Bytes& set : AllSets()) {
        ASSERT_TRUE([&] {
            CHevcParser parser;
            return Parse(parser, set);
        }());
        for (size_t size = 0; size < set.size(); ++size) {
            CHevcParser parser;
            const Bytes before = Serialize(*parser.GetInfo());
            const Bytes part(set.begin(), set.begin() + static_cast<ptrdiff_t>(size));
            EXPECT_FALSE(Parse(parser, part)) << size << " of " << set.size() << " bytes";
            EXPECT_EQ(Serialize(*parser.GetInfo()), before);
            EXPECT_TRUE(parser.GetInfo()->array.empty());
        }
    }
}

TEST(HevcParser, ValuesThatTheStandardForbidsAreRefused) {
    using Change = std::function<void(Options&)>;
    const struct {
        const char* what;
        size_t set;
        Change change;
    } cases[] = {
        {"sub-layers of a VPS", 0, [](Options& o) { o.subLayersMinus1 = 7; }},
        {"decoded picture buffer", 0, [](Options& o) { o.decPicBufferingMinus1 = 16; }},
        {"layer sets", 0, [](Options& o) { o.layerSetsMinus1 = 1024; }},
        {"HRDs", 0, [](Options& o) { o.vpsHrds = 4; }},
        {"coded picture buffers", 0, [](Options& o) { o.cpbCountMinus1 = 32; }},
        {"sub-layers of an SPS", 1, [](Options& o) { o.subLayersMinus1 = 7; }},
        {"chroma format", 1, [](Options& o) { o.chroma = 4; }},
        {"bit depth", 1, [](Options& o) { o.depthLuma = 9; }},
        {"bit depth of chroma", 1, [](Options& o) { o.depthChroma = 0xFFFFFFFE; }},
        {"reference picture sets", 1, [](Options& o) { o.refPicSets = 65; }},
        {"reference pictures", 1, [](Options& o) { o.negativePics = 16; }},
        {"predicted reference pictures", 1, [](Options& o) { o.refPicSets = 20; }},
        {"long-term pictures", 1, [](Options& o) { o.longTermPics = 33; }},
        {"segmentation", 1, [](Options& o) { o.segmentation = 4096; }},
        {"tiles", 2, [](Options& o) { o.tileColumnsMinus1 = 70000; }},
        {"chroma offsets", 2, [](Options& o) { o.chromaQpOffsetsMinus1 = 6; }},
    };
    for (const auto& test : cases) {
        Options options;
        test.change(options);
        CHevcParser parser;
        EXPECT_FALSE(Parse(parser, MakeSets(options)[test.set])) << test.what;
        EXPECT_TRUE(parser.GetInfo()->array.empty()) << test.what;
    }
}

TEST(HevcParser, GreatestAllowedValuesAreTaken) {
    Options options;
    options.subLayersMinus1 = 6;
    options.cpbCountMinus1 = 31;
    options.decPicBufferingMinus1 = 15;
    options.refPicSets = 14;
    options.longTermPics = 32;
    options.segmentation = 4095;
    options.chroma = 3;
    options.depthLuma = 8;
    options.chromaQpOffsetsMinus1 = 5;
    options.tileColumnsMinus1 = 200;
    CHevcParser parser;
    for (const Bytes& set : MakeSets(options))
        EXPECT_TRUE(Parse(parser, set));
    parser.Finish();
    EXPECT_EQ(parser.GetInfo()->numTemporalLayers, 7);
    EXPECT_EQ(parser.GetInfo()->min_spatial_segmentation_idc, 4095);
    EXPECT_EQ(parser.GetInfo()->chromaFormat, 3);
    EXPECT_EQ(parser.GetInfo()->bitDepthLumaMinus8, 7) << "16 bits do not fit the field";
}

TEST(HevcParser, WhatIsNoParameterSetOfTheBaseLayerIsRefused) {
    const Bytes good = MakePps({});
    const auto withHeader = [&](uint8_t first, uint8_t second) {
        Bytes nal = good;
        nal[0] = first;
        nal[1] = second;
        return nal;
    };
    CHevcParser parser;
    EXPECT_FALSE(Parse(parser, withHeader(0x80 | NAL_PPS << 1, 1))) << "forbidden_zero_bit";
    EXPECT_FALSE(Parse(parser, withHeader(NAL_PPS << 1 | 1, 1))) << "layer 32";
    EXPECT_FALSE(Parse(parser, withHeader(NAL_PPS << 1, 9))) << "layer 1";
    EXPECT_FALSE(Parse(parser, withHeader(NAL_PPS << 1, 0))) << "no temporal layer";
    EXPECT_FALSE(Parse(parser, withHeader(39 << 1, 1))) << "SEI";
    EXPECT_FALSE(parser.ParseNAL(nullptr, 20));
    for (const int size : {INT_MIN, -1, 0, 1, 2}) {
        EXPECT_FALSE(parser.ParseNAL(good.data(), size)) << size;
    }
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
    main.tier = 0;
    main.profile = 1;
    main.compatibility = 0x48000000;
    main.constraints = 0xB00000000000;
    main.level = 180;
    main.nested = 0;
    main.segmentation = 17;
    main.subLayersMinus1 = 4;
    for (const auto& order : {std::pair{high, main}, std::pair{main, high}}) {
        CHevcParser parser;
        const std::vector<Bytes> sets{MakeSps(order.first), MakeSps(order.second)};
        for (const Bytes& set : sets)
            ASSERT_TRUE(Parse(parser, set));
        parser.Finish();
        const HEVCDecoderConfigurationRecord& record = *parser.GetInfo();
        EXPECT_EQ(record.general_tier_flag, 1);
        EXPECT_EQ(record.general_level_idc, 93) << "the level of the higher tier";
        EXPECT_EQ(record.general_profile_idc, 4);
        EXPECT_EQ(record.general_profile_compatibility_flags, 0x40000000U);
        EXPECT_EQ(record.general_constraint_indicator_flags, 0x900000000000U);
        EXPECT_EQ(record.min_spatial_segmentation_idc, 17);
        EXPECT_EQ(record.temporalIdNested, 0);
        EXPECT_EQ(record.numTemporalLayers, 5);
    }
}

TEST(HevcParser, ParallelismComesFromTheToolsOfAllPictureParameterSets) {
    constexpr int kMixed = 0;
    constexpr int kSlices = 1;
    constexpr int kTiles = 2;
    constexpr int kWavefronts = 3;
    struct Tools {
        bool tiles;
        bool wavefronts;
    };
    const struct {
        std::vector<Tools> sets;
        uint64_t segmentation;
        int expected;
    } cases[] = {
        {{{false, false}}, 9, kSlices},
        {{{true, false}}, 9, kTiles},
        {{{false, true}}, 9, kWavefronts},
        {{{true, true}}, 9, kMixed},
        {{{true, false}, {true, false}}, 9, kTiles},
        {{{true, false}, {false, true}}, 9, kMixed},
        {{{true, false}, {false, true}, {false, true}}, 9, kMixed},
        {{{true, false}}, 0, kMixed},
        {{}, 9, kMixed},
    };
    for (const auto& test : cases) {
        CHevcParser parser;
        Options options;
        options.segmentation = test.segmentation;
        ASSERT_TRUE(Parse(parser, MakeSps(options)));
        for (const Tools& tools : test.sets) {
            options.tiles = tools.tiles;
            options.wavefronts = tools.wavefronts;
            ASSERT_TRUE(Parse(parser, MakePps(options)));
        }
        parser.Finish();
        EXPECT_EQ(parser.GetInfo()->parallelismType, test.expected);
    }
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
    EXPECT_EQ(bits.BitsLeft(), 0U);
    EXPECT_FALSE(bits.Flag());
    EXPECT_FALSE(bits.Ok());
}

TEST(BitReader, ReadsExpGolombCodesToTheirLimits) {
    BitWriter out;
    for (const uint64_t value : {0U, 1U, 2U, 255U, 0xFFFFFFFEU})
        out.Ue(value);
    for (const int64_t value : {0, 1, -1, 77, INT_MAX, -INT_MAX})
        out.Se(value);
    const Bytes nal = out.Nal(NAL_SPS);
    BitReader bits(nal.data(), nal.size());
    bits.Skip(16);
    for (const uint32_t value : {0U, 1U, 2U, 255U, 0xFFFFFFFEU})
        EXPECT_EQ(bits.Ue(), value);
    for (const int32_t value : {0, 1, -1, 77, INT_MAX, -INT_MAX})
        EXPECT_EQ(bits.Se(), value);
    EXPECT_TRUE(bits.Ok());
}

TEST(BitReader, StaysFailedAndGivesZeros) {
    const Bytes tooLong{0, 0, 3, 0, 0, 3, 0x80, 0xFF, 0xFF, 0xFF, 0xFF};
    BitReader code(tooLong.data(), tooLong.size());
    EXPECT_EQ(code.Ue(), 0U);
    EXPECT_FALSE(code.Ok());
    EXPECT_EQ(code.U(8), 0U);

    const Bytes ones{0xFF, 0x47};
    BitReader end(ones.data(), ones.size());
    EXPECT_EQ(end.U(17), 0U);
    EXPECT_FALSE(end.Ok());
    EXPECT_EQ(end.U(1), 0U);
    EXPECT_EQ(end.BitsLeft(), 0U);

    BitReader limited(&ones[1], 1);  // 010: 1
    EXPECT_EQ(limited.Ue(0), 0U);
    EXPECT_FALSE(limited.Ok());
}

}  // namespace
