// The parser of HEVC parameter sets: the fuzzer's seeds are replayed into a readable text that is
// kept. The seeds whose names begin with x265 are streams of that encoder; their records, and those
// of built_tiles, built_slices and built_wavefronts, are the ones that ffmpeg 5.1 writes.
#include "ParameterSetKeeper.h"
#include "ParseHevc.h"

#include <gtest/gtest.h>

#include <climits>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "BitReader.h"
#include "VideoFrameParser.h"
#include "golden_text.h"
#include "movie_reader.h"
#include "streams.h"

using kx_mp4::BitReader;

namespace {

bool Parse(CHevcParser& parser, const Bytes& nal) {
    return parser.ParseNAL(nal.data(), static_cast<int>(nal.size()));
}

std::string Text(const HEVCDecoderConfigurationRecord& record) {
    std::ostringstream out;
    out << "profile " << int{record.general_profile_space} << "." << int{record.general_profile_idc}
        << " tier " << int{record.general_tier_flag} << " flags " << std::hex
        << record.general_profile_compatibility_flags << " "
        << record.general_constraint_indicator_flags << std::dec << " level "
        << int{record.general_level_idc} << ", segmentation " << record.min_spatial_segmentation_idc
        << " by " << int{record.parallelismType} << ", chroma " << int{record.chromaFormat}
        << " depths " << 8 + int{record.bitDepthLumaMinus8} << " "
        << 8 + int{record.bitDepthChromaMinus8} << ", rate " << record.avgFrameRate << " "
        << int{record.constantFrameRate} << ", layers " << int{record.numTemporalLayers}
        << (record.temporalIdNested != 0 ? " nested" : "") << ", lengths of "
        << 1 + int{record.lengthSizeMinusOne};
    EXPECT_EQ(record.configurationVersion, 1);
    return out.str();
}

/// What is said when a set ends early: nothing up to some size, from then on what was read.
void TellCutOff(std::ostream& out, const Bytes& set) {
    std::string before = "refused";
    const std::string nothing = Text(*CHevcParser().GetInfo());
    for (size_t size = 0; size <= set.size(); ++size) {
        CHevcParser parser;
        const bool taken = Parse(parser, Bytes(set.begin(), set.begin() + static_cast<int>(size)));
        parser.Finish();
        const std::string now = taken ? Text(*parser.GetInfo()) : "refused";
        if (!taken) {
            EXPECT_EQ(Text(*parser.GetInfo()), nothing);
            EXPECT_TRUE(parser.GetInfo()->array.empty());
        }
        if (now != before) out << "    from " << size << " bytes: " << now << "\n";
        before = now;
    }
}

TEST(HevcParser, SetsSayWhatIsKept) {
    ExpectReplayKept("hevc_parameter_sets", [](std::ostream& out, const Bytes& seed) {
        CVideoFrameParser units;
        units.Parse(seed.data(), static_cast<int>(seed.size()));
        CHevcParser parser;
        for (const VIDEO_SLICE& unit : units) {
            const bool taken = parser.ParseNAL(unit.pbData, unit.cbData);
            out << "  type " << (*unit.pbData >> 1 & 0x3F) << " of " << unit.cbData << " bytes"
                << (taken ? "\n" : ", refused\n");
            TellCutOff(out, Bytes(unit.pbData, unit.pbData + unit.cbData));
        }
        parser.Finish();
        out << "  " << Text(*parser.GetInfo()) << "\n";
        for (const HVCCNALUnitArray& array : parser.GetInfo()->array) {
            out << "  " << (array.array_completeness == 1 ? "all " : "some ") << array.Nalus.size()
                << " of type " << int{array.NAL_unit_type} << ":";
            for (const HVCCNALUnit& unit : array.Nalus)
                out << " " << unit.len << " at " << unit.nal - seed.data();
            out << "\n";
        }
    });
}

// The last resort: a set that nobody can read goes into the record with what its head says.
TEST(HevcParser, UnparsedSetsGiveTheirFixedFields) {
    const Bytes sps = Hex("42010221600000030090000003000003007b00");  // as far as the level
    CHevcParser parser;
    EXPECT_FALSE(Parse(parser, sps));
    parser.AddUnparsed(NAL_SPS, sps.data(), static_cast<int>(sps.size()));
    parser.AddUnparsed(NAL_PPS, sps.data(), 1);
    parser.AddUnparsed(NAL_VPS, nullptr, 1);
    parser.Finish();
    EXPECT_EQ(Text(*parser.GetInfo()),
              "profile 0.1 tier 1 flags 60000000 900000000000 level 123, segmentation 0 by 0, "
              "chroma 1 depths 8 8, rate 0 0, layers 1, lengths of 4");
    EXPECT_EQ(parser.GetInfo()->array.size(), 2U);
}

TEST(HevcParser, SizesThatCannotBeAreRefused) {
    CHevcParser parser;
    Bytes set = streams::kHevcPps;
    EXPECT_FALSE(parser.ParseNAL(nullptr, 20));
    for (const auto codec : {MP4_MVC_H264, MP4_MVC_HEVC})
        EXPECT_FALSE(kx_mp4::KindOfParameterSet(codec, nullptr, 0));
    for (const int size : {INT_MIN, -1, 0, 1, 2})
        EXPECT_FALSE(parser.ParseNAL(set.data(), size)) << size;
    set.resize(65535);
    EXPECT_TRUE(Parse(parser, set));
    set.resize(65536);
    EXPECT_FALSE(Parse(parser, set)) << "its length does not fit 16 bits";
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
    const Bytes nal = Hex("00800000030000ffffffff602680000003007fffffff0000030000ffffffff80");
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
