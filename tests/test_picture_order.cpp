// Picture order count of H.264 and HEVC, and the presentation order that follows from it. The
// streams are made here, header by header, so that the counts are those of the standards' formulas.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "PictureOrder.h"

namespace kxmux {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using Nal = std::vector<uint8_t>;

/// Writes the syntax elements of a NAL unit.
class NalWriter {
public:
    explicit NalWriter(std::initializer_list<uint8_t> header) {
        for (const uint8_t byte : header)
            U(8, byte);
    }
    NalWriter& U(int bits, uint64_t value) {
        while (bits-- > 0)
            m_bits.push_back((value >> bits) & 1);
        return *this;
    }
    NalWriter& Ue(uint32_t value) {
        const uint64_t code = uint64_t{value} + 1;
        int length = 0;
        while (code >> (length + 1) != 0)
            ++length;
        return U(length, 0).U(length + 1, code);
    }
    NalWriter& Se(int32_t value) {
        const int64_t wide = value;
        return Ue(static_cast<uint32_t>(wide > 0 ? 2 * wide - 1 : -2 * wide));
    }
    /// Adds the trailing bits and the emulation prevention bytes.
    Nal Finish() {
        U(1, 1);
        while (m_bits.size() % 8 != 0)
            m_bits.push_back(false);
        Nal nal;
        int zeros = 0;
        for (size_t i = 0; i < m_bits.size(); i += 8) {
            uint8_t byte = 0;
            for (size_t k = 0; k < 8; ++k)
                byte = static_cast<uint8_t>(byte << 1 | (m_bits[i + k] ? 1 : 0));
            if (zeros >= 2 && byte <= 3) {
                nal.push_back(3);
                zeros = 0;
            }
            zeros = byte == 0 ? zeros + 1 : 0;
            nal.push_back(byte);
        }
        return nal;
    }

private:
    std::vector<bool> m_bits;
};

/// A stream that is read picture by picture.
class Stream {
public:
    explicit Stream(mp4_video_codec codec) : m_reader(PictureOrderReader::Create(codec)) {}

    /// Reads an access unit; nothing when the reader refuses it.
    std::optional<PictureInfo> Read(const std::vector<Nal>& units) {
        for (const Nal& unit : units) {
            if (!m_reader->Add(unit.data(), unit.size())) return {};
        }
        PictureInfo info;
        if (!m_reader->End(&info)) return {};
        return info;
    }
    PictureInfo Get(const std::vector<Nal>& units) {
        const auto info = Read(units);
        EXPECT_TRUE(info) << Error();
        return info.value_or(PictureInfo{});
    }
    int64_t Count(const std::vector<Nal>& units) { return Get(units).order_count; }
    const std::string& Error() const { return m_reader->Error(); }

private:
    std::unique_ptr<PictureOrderReader> m_reader;
};

struct H264Config {
    uint32_t orderType = 0;
    uint32_t level = 30;
    bool interlaced = false;
    bool deltaAlwaysZero = true;
    int32_t offsetNonRef = 0;
    int32_t offsetBottom = 0;
    std::vector<int32_t> offsets;
    std::optional<uint32_t> reorder;

    H264Config& OrderType(uint32_t value) { return orderType = value, *this; }
    H264Config& Level(uint32_t value) { return level = value, *this; }
    H264Config& Interlaced() { return interlaced = true, *this; }
    H264Config& Reorder(uint32_t value) { return reorder = value, *this; }
};

/// 720x576, frame_num and the low bits of the count both four bits wide.
Nal H264Sps(const H264Config& config) {
    NalWriter w({0x67});
    w.U(8, 77).U(8, 0).U(8, config.level).Ue(0).Ue(0);
    w.Ue(config.orderType);
    if (config.orderType == 0) w.Ue(0);
    if (config.orderType == 1) {
        w.U(1, config.deltaAlwaysZero).Se(config.offsetNonRef).Se(config.offsetBottom);
        w.Ue(static_cast<uint32_t>(config.offsets.size()));
        for (const int32_t offset : config.offsets)
            w.Se(offset);
    }
    w.Ue(4).U(1, 1).Ue(44).Ue(config.interlaced ? 17 : 35).U(1, !config.interlaced);
    if (config.interlaced) w.U(1, 0);
    w.U(2, 0).U(1, config.reorder.has_value());
    if (config.reorder) {
        w.U(8, 0).U(1, 1).U(1, 1).Ue(0).Ue(0).Ue(10).Ue(10).Ue(*config.reorder).Ue(4);
    }
    return w.Finish();
}

Nal H264Pps(bool bottomOrder = false) {
    return NalWriter({0x68})
        .Ue(0)
        .Ue(0)
        .U(1, 0)
        .U(1, bottomOrder)
        .Ue(0)
        .Ue(0)
        .Ue(0)
        .U(3, 0)
        .Se(0)
        .Se(0)
        .Se(0)
        .U(3, 0)
        .Finish();
}

enum class Field { kNone, kTop, kBottom };

/// Makes I slices.
class H264Slice {
public:
    H264Slice& FrameNum(uint32_t value) { return m_frameNum = value, *this; }
    H264Slice& Lsb(uint32_t value) { return m_lsb = value, *this; }
    H264Slice& WithoutLsb() { return m_lsb.reset(), *this; }
    H264Slice& Reference(bool value) { return m_reference = value, *this; }
    H264Slice& Idr() { return m_idr = true, *this; }
    H264Slice& Interlaced() { return m_interlaced = true, *this; }
    H264Slice& OfField(Field value) { return m_field = value, *this; }
    H264Slice& Delta0(int32_t value) { return m_delta0 = value, *this; }
    H264Slice& BottomDelta(int32_t value) { return m_bottomDelta = value, *this; }
    H264Slice& WithoutBottomDelta() { return m_bottomDelta.reset(), *this; }
    H264Slice& Reset() { return m_reset = true, *this; }

    Nal Make() const {
        NalWriter w({static_cast<uint8_t>((m_reference ? 0x60 : 0) | (m_idr ? 5 : 1))});
        w.Ue(0).Ue(7).Ue(0).U(4, m_frameNum);
        if (m_interlaced) {
            w.U(1, m_field != Field::kNone);
            if (m_field != Field::kNone) w.U(1, m_field == Field::kBottom);
        }
        if (m_idr) w.Ue(0);
        if (m_lsb) w.U(4, *m_lsb);
        if (m_delta0) w.Se(*m_delta0);
        if (m_bottomDelta) w.Se(*m_bottomDelta);
        if (m_reference) PutMarking(w);
        return w.Se(0).U(16, 0xABCD).Finish();
    }

private:
    void PutMarking(NalWriter& w) const {
        if (m_idr) {
            w.U(2, 0);
        } else if (m_reset) {
            w.U(1, 1).Ue(1).Ue(0).Ue(5).Ue(0);  // operation 1 with its operand, operation 5, end
        } else {
            w.U(1, 0);
        }
    }

    uint32_t m_frameNum = 0;
    std::optional<uint32_t> m_lsb = 0;
    bool m_reference = true;
    bool m_idr = false;
    bool m_interlaced = false;
    Field m_field = Field::kNone;
    std::optional<int32_t> m_delta0;
    std::optional<int32_t> m_bottomDelta;
    bool m_reset = false;
};

TEST(H264Order, Type0FollowsTheLowBitsAcrossTheirWrap) {
    Stream stream(MP4_MVC_H264);
    const PictureInfo idr =
        stream.Get({H264Sps(H264Config()), H264Pps(), H264Slice().Idr().Make()});
    EXPECT_TRUE(idr.starts_sequence && idr.random_access);
    EXPECT_EQ(idr.order_count, 0);
    EXPECT_EQ(stream.Count({H264Slice().FrameNum(1).Lsb(6).Make()}), 6);
    EXPECT_EQ(stream.Count({H264Slice().FrameNum(2).Lsb(2).Reference(false).Make()}), 2);
    EXPECT_EQ(stream.Count({H264Slice().FrameNum(2).Lsb(12).Make()}), 12);
    EXPECT_EQ(stream.Count({H264Slice().FrameNum(3).Lsb(2).Make()}), 18);
    EXPECT_EQ(stream.Count({H264Slice().FrameNum(4).Lsb(14).Reference(false).Make()}), 14);
    EXPECT_EQ(stream.Count({H264Slice().FrameNum(4).Lsb(8).Make()}), 24);
    EXPECT_EQ(stream.Count({H264Slice().Idr().Lsb(0).Make()}), 0);
}

TEST(H264Order, Type1AddsTheCycleOfOffsetsAndWrapsFrameNumbers) {
    H264Config config;
    config.orderType = 1;
    config.offsets = {4, 6};
    config.offsetNonRef = -2;
    Stream stream(MP4_MVC_H264);
    const auto count = [&](uint32_t frameNum, bool reference) {
        return stream.Count(
            {H264Slice().FrameNum(frameNum).Reference(reference).WithoutLsb().Make()});
    };
    EXPECT_EQ(stream.Count({H264Sps(config), H264Pps(), H264Slice().Idr().WithoutLsb().Make()}), 0);
    EXPECT_EQ(count(1, true), 4);
    EXPECT_EQ(count(2, false), 2);  // the one before it, and the offset of the others
    EXPECT_EQ(count(2, true), 10);
    EXPECT_EQ(count(3, true), 14);
    EXPECT_EQ(count(15, true), 74);  // a gap: seven cycles and a 4
    EXPECT_EQ(count(1, false), 78);  // 17th frame: eight cycles less 2
    EXPECT_EQ(count(1, true), 84);
}

TEST(H264Order, Type1AddsTheDeltasOfTheSlice) {
    H264Config config;
    config.orderType = 1;
    config.deltaAlwaysZero = false;
    config.interlaced = true;
    config.offsetBottom = 1;
    config.offsets = {2};
    Stream stream(MP4_MVC_H264);
    const H264Slice base = H264Slice().Interlaced().WithoutLsb().Delta0(0).BottomDelta(0);
    H264Slice frame = base;
    EXPECT_EQ(stream.Count({H264Sps(config), H264Pps(true), frame.Idr().Make()}), 0);
    frame = base;
    frame.FrameNum(1).Delta0(5);
    EXPECT_EQ(stream.Count({frame.Make()}), 7);
    EXPECT_EQ(stream.Count({frame.BottomDelta(-3).Make()}), 5);  // the bottom field's 7 + 1 - 3
    frame.OfField(Field::kBottom).WithoutBottomDelta();
    EXPECT_EQ(stream.Count({frame.Make()}), 8);
}

TEST(H264Order, Type2IsDecodingOrder) {
    H264Config config;
    config.orderType = 2;
    Stream stream(MP4_MVC_H264);
    const auto count = [&](uint32_t frameNum, bool reference) {
        return stream.Count(
            {H264Slice().FrameNum(frameNum).Reference(reference).WithoutLsb().Make()});
    };
    const PictureInfo idr =
        stream.Get({H264Sps(config), H264Pps(), H264Slice().Idr().WithoutLsb().Make()});
    EXPECT_EQ(idr.max_reorder, 0u);
    EXPECT_EQ(count(1, false), 1);
    EXPECT_EQ(count(1, true), 2);
    EXPECT_EQ(count(15, true), 30);
    EXPECT_EQ(count(0, true), 32);
}

TEST(H264Order, TwoFieldsMakeOneFrame) {
    H264Config config;
    config.interlaced = true;
    Stream stream(MP4_MVC_H264);
    const auto field = [](Field parity, uint32_t frameNum, uint32_t lsb, bool reference = true) {
        return H264Slice()
            .FrameNum(frameNum)
            .Lsb(lsb)
            .Reference(reference)
            .Interlaced()
            .OfField(parity)
            .Make();
    };
    PictureInfo info = stream.Get(
        {H264Sps(config), H264Pps(), H264Slice().Idr().Interlaced().OfField(Field::kTop).Make()});
    EXPECT_TRUE(info.first_field && !info.second_field);
    info = stream.Get({field(Field::kBottom, 0, 1)});
    EXPECT_TRUE(info.second_field && !info.first_field && !info.starts_sequence);
    EXPECT_EQ(info.order_count, 1);

    EXPECT_TRUE(stream.Get({field(Field::kTop, 1, 4)}).first_field);
    EXPECT_TRUE(stream.Get({field(Field::kTop, 1, 6)}).first_field) << "same parity";
    EXPECT_TRUE(stream.Get({field(Field::kBottom, 2, 7)}).first_field) << "other frame_num";
    EXPECT_TRUE(stream.Get({field(Field::kTop, 2, 8, false)}).first_field) << "not a reference";
    EXPECT_TRUE(stream.Get({field(Field::kBottom, 2, 9, false)}).second_field);
    EXPECT_TRUE(stream.Get({field(Field::kTop, 2, 10, false)}).first_field) << "third field";
    info = stream.Get({H264Slice().FrameNum(3).Lsb(12).Interlaced().Make()});
    EXPECT_FALSE(info.first_field || info.second_field);
}

TEST(H264Order, AFrameTakesTheLesserCountOfItsFields) {
    H264Config config;
    config.interlaced = true;
    Stream stream(MP4_MVC_H264);
    EXPECT_EQ(stream.Count({H264Sps(config), H264Pps(true),
                            H264Slice().Idr().Interlaced().BottomDelta(1).Make()}),
              0);
    EXPECT_EQ(stream.Count({H264Slice().FrameNum(1).Lsb(5).Interlaced().BottomDelta(-1).Make()}),
              4);
}

TEST(H264Order, MemoryOperation5StartsASequence) {
    H264Config config;
    config.interlaced = true;
    Stream stream(MP4_MVC_H264);
    stream.Get(
        {H264Sps(config), H264Pps(true), H264Slice().Idr().Interlaced().BottomDelta(1).Make()});
    stream.Get({H264Slice().FrameNum(1).Lsb(10).Interlaced().BottomDelta(1).Make()});
    const PictureInfo reset =
        stream.Get({H264Slice().FrameNum(2).Lsb(14).Interlaced().BottomDelta(-2).Reset().Make()});
    EXPECT_TRUE(reset.starts_sequence);
    EXPECT_FALSE(reset.random_access);
    EXPECT_EQ(reset.order_count, 0);
    // Its top field counts 2 now; from 0, low bits of 10 would be taken for -6.
    EXPECT_EQ(stream.Count({H264Slice().FrameNum(0).Lsb(10).Interlaced().BottomDelta(0).Make()}),
              10);
    EXPECT_EQ(stream.Count({H264Slice().FrameNum(1).Lsb(2).Interlaced().BottomDelta(0).Make()}),
              18);

    config = {};
    config.orderType = 2;
    Stream type2(MP4_MVC_H264);
    type2.Get({H264Sps(config), H264Pps(), H264Slice().Idr().WithoutLsb().Make()});
    EXPECT_TRUE(type2.Get({H264Slice().FrameNum(9).WithoutLsb().Reset().Make()}).starts_sequence);
    EXPECT_EQ(type2.Count({H264Slice().FrameNum(1).WithoutLsb().Make()}), 2);
}

TEST(H264Order, AStreamMayBeginWithoutAnIdrPicture) {
    Stream stream(MP4_MVC_H264);
    EXPECT_EQ(
        stream.Count({H264Sps(H264Config()), H264Pps(), H264Slice().FrameNum(7).Lsb(12).Make()}),
        12);
    EXPECT_EQ(stream.Count({H264Slice().FrameNum(8).Lsb(6).Reference(false).Make()}), 6);
    EXPECT_EQ(stream.Count({H264Slice().FrameNum(8).Lsb(2).Make()}), 18);
}

TEST(H264Order, ReorderingIsTheStreamsOwnOrTheLevelsLimit) {
    const auto reorder = [](const H264Config& config) {
        h264::Sps sps;
        const Nal nal = H264Sps(config);
        EXPECT_TRUE(h264::ParseSps(nal.data(), nal.size(), &sps));
        EXPECT_EQ(sps.width, 720u);
        EXPECT_EQ(sps.height, 576u);
        return sps.MaxReorderFrames();
    };
    EXPECT_EQ(reorder(H264Config().Reorder(2)), 2u);
    EXPECT_EQ(reorder(H264Config().Level(30)), 5u);
    EXPECT_EQ(reorder(H264Config().Level(40)), 16u);
    EXPECT_EQ(reorder(H264Config().Level(99)), 16u);
    EXPECT_EQ(reorder(H264Config().Level(30).Interlaced()), 5u);
    EXPECT_EQ(reorder(H264Config().OrderType(2)), 0u);
}

/// Sequence parameter sets as encoders write them.
TEST(ParameterSets, ReadsSizeAndReorderingOfEncoders) {
    const Nal avc = {0x67, 0x64, 0x00, 0x15, 0xac, 0xd9, 0x43, 0x08, 0xd8, 0x08, 0x80, 0x00,
                     0x00, 0x03, 0x00, 0x80, 0x00, 0x00, 0x19, 0x0f, 0x8a, 0x14, 0xcb};
    h264::Sps h264Sps;
    ASSERT_TRUE(h264::ParseSps(avc.data(), avc.size(), &h264Sps));
    EXPECT_EQ(h264Sps.width, 192u);
    EXPECT_EQ(h264Sps.height, 128u);
    EXPECT_FALSE(h264Sps.frame_mbs_only);
    EXPECT_EQ(h264Sps.time_scale, 50u);
    EXPECT_EQ(h264Sps.MaxReorderFrames(), 2u);

    const Nal hevc = {0x42, 0x01, 0x01, 0x02, 0x20, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00,
                      0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x3c, 0xa0, 0x18, 0x20, 0x20,
                      0x4d, 0x96, 0x56, 0x69, 0x24, 0xca, 0xf0, 0x16, 0x80, 0x80, 0x00,
                      0x00, 0x03, 0x00, 0x80, 0x00, 0x00, 0x0c, 0x84};
    hevc::Sps hevcSps;
    ASSERT_TRUE(hevc::ParseSps(hevc.data(), hevc.size(), &hevcSps));
    EXPECT_EQ(hevcSps.width, 192u);
    EXPECT_EQ(hevcSps.height, 128u);
    EXPECT_EQ(hevcSps.bit_depth_luma, 10);
    EXPECT_EQ(hevcSps.max_num_reorder_pics, 2u);

    // Cut off anywhere before their last byte, H.264 sets say less than they promise.
    for (size_t size = 0; size + 1 < avc.size(); ++size) {
        EXPECT_FALSE(h264::ParseSps(avc.data(), size, &h264Sps)) << size;
    }
    for (size_t size = 0; size < 22; ++size) {
        EXPECT_FALSE(hevc::ParseSps(hevc.data(), size, &hevcSps)) << size;
    }
}

TEST(H264Order, RefusesWhatItCannotRead) {
    Stream noSets(MP4_MVC_H264);
    EXPECT_FALSE(noSets.Read({H264Slice().Idr().Make()}));
    EXPECT_THAT(noSets.Error(), HasSubstr("slice header"));

    Stream noPicture(MP4_MVC_H264);
    EXPECT_FALSE(noPicture.Read({H264Sps(H264Config()), H264Pps()}));
    EXPECT_THAT(noPicture.Error(), HasSubstr("no picture"));

    Stream badSet(MP4_MVC_H264);
    EXPECT_FALSE(badSet.Read({H264Sps(H264Config().OrderType(3))}));
    EXPECT_THAT(badSet.Error(), HasSubstr("sequence parameter set"));

    H264Config config;
    config.orderType = 1;
    config.offsets = {INT32_MAX, INT32_MAX};
    Stream overflow(MP4_MVC_H264);
    EXPECT_FALSE(
        overflow.Read({H264Sps(config), H264Pps(), H264Slice().Idr().WithoutLsb().Make()}));
    EXPECT_THAT(overflow.Error(), HasSubstr("range"));

    EXPECT_EQ(PictureOrderReader::Create(MP4_MVC_PRORES), nullptr);
}

/// 64x64, the low bits of the count four bits wide.
Nal HevcSps(uint32_t reorder) {
    NalWriter w({0x42, 0x01});
    w.U(4, 0).U(3, 0).U(1, 1).U(32, 0x01600000).U(32, 0).U(32, 0);  // one sub-layer
    return w.Ue(0)
        .Ue(1)
        .Ue(64)
        .Ue(64)
        .U(1, 0)
        .Ue(0)
        .Ue(0)
        .Ue(0)
        .U(1, 1)
        .Ue(4)
        .Ue(reorder)
        .Ue(0)
        .Finish();
}

Nal HevcPps(bool outputFlag = false) {
    return NalWriter({0x44, 0x01}).Ue(0).Ue(0).U(1, 0).U(1, outputFlag).U(3, 0).Finish();
}

/// First slice segment of a picture.
Nal HevcSlice(hevc::NalType type, uint32_t lsb, uint32_t temporalId = 0,
              std::optional<bool> output = {}) {
    NalWriter w({static_cast<uint8_t>(type << 1), static_cast<uint8_t>(temporalId + 1)});
    w.U(1, 1);
    if (type >= hevc::kNalBlaWLp) w.U(1, 0);
    w.Ue(0).Ue(2);
    if (output) w.U(1, *output);
    if (type != hevc::kNalIdrWRadl && type != hevc::kNalIdrNLp) w.U(4, lsb);
    return w.U(16, 0xABCD).Finish();
}

constexpr auto kTrailR = static_cast<hevc::NalType>(1);
constexpr auto kTsaN = static_cast<hevc::NalType>(2);
constexpr auto kRadlR = static_cast<hevc::NalType>(7);

TEST(HevcOrder, CountsFromPicturesOfTheLowestTemporalLayer) {
    Stream stream(MP4_MVC_HEVC);
    const PictureInfo idr = stream.Get({HevcSps(2), HevcPps(), HevcSlice(hevc::kNalIdrWRadl, 0)});
    EXPECT_TRUE(idr.starts_sequence && idr.random_access);
    EXPECT_EQ(idr.max_reorder, 2u);
    EXPECT_EQ(stream.Count({HevcSlice(kTrailR, 8)}), 8);
    EXPECT_EQ(stream.Count({HevcSlice(kTsaN, 15, 1)}), 15);
    // Counted from 15, these would be 18 and 23.
    EXPECT_EQ(stream.Count({HevcSlice(kTrailR, 2, 1)}), 2);
    EXPECT_EQ(stream.Count({HevcSlice(hevc::kNalTrailN, 7)}), 7);
    EXPECT_EQ(stream.Count({HevcSlice(kTrailR, 15)}), 15);
    EXPECT_EQ(stream.Count({HevcSlice(kTrailR, 3)}), 19);
}

TEST(HevcOrder, LeadingPicturesDoNotMoveTheCount) {
    Stream stream(MP4_MVC_HEVC);
    stream.Get({HevcSps(2), HevcPps(), HevcSlice(hevc::kNalIdrNLp, 0)});
    const PictureInfo cra = stream.Get({HevcSlice(hevc::kNalCra, 7)});
    EXPECT_TRUE(cra.random_access);
    EXPECT_FALSE(cra.starts_sequence) << "in the middle of a sequence it goes on counting";
    const PictureInfo rasl = stream.Get({HevcSlice(hevc::kNalRaslR, 1)});
    EXPECT_EQ(rasl.order_count, 1);
    EXPECT_TRUE(rasl.shown);
    EXPECT_EQ(stream.Count({HevcSlice(kRadlR, 5)}), 5);
    EXPECT_EQ(stream.Count({HevcSlice(kTrailR, 14)}), 14);
}

TEST(HevcOrder, RaslPicturesAfterAStartAreNotShown) {
    Stream stream(MP4_MVC_HEVC);
    const PictureInfo first = stream.Get({HevcSps(2), HevcPps(), HevcSlice(hevc::kNalCra, 4)});
    EXPECT_TRUE(first.starts_sequence);
    EXPECT_EQ(first.order_count, 4);
    const PictureInfo rasl = stream.Get({HevcSlice(hevc::kNalRaslN, 14)});
    EXPECT_FALSE(rasl.shown);
    EXPECT_EQ(rasl.order_count, -2);
    EXPECT_TRUE(stream.Get({HevcSlice(kRadlR, 3)}).shown);

    const PictureInfo bla = stream.Get({HevcSlice(hevc::kNalBlaWLp, 12)});
    EXPECT_TRUE(bla.starts_sequence && bla.random_access);
    EXPECT_EQ(bla.order_count, 12);
    EXPECT_FALSE(stream.Get({HevcSlice(hevc::kNalRaslN, 10)}).shown);

    EXPECT_FALSE(stream.Get({HevcSlice(hevc::kNalCra, 3)}).starts_sequence);
    EXPECT_TRUE(stream.Get({HevcSlice(hevc::kNalRaslN, 1)}).shown);
    const Nal endOfSequence = {hevc::kNalEndOfSequence << 1, 1};
    stream.Get({HevcSlice(kTrailR, 6), endOfSequence});
    EXPECT_TRUE(stream.Get({HevcSlice(hevc::kNalCra, 9)}).starts_sequence);
}

TEST(HevcOrder, PicturesMayBeWithheldFromOutput) {
    Stream stream(MP4_MVC_HEVC);
    EXPECT_TRUE(
        stream.Get({HevcSps(2), HevcPps(true), HevcSlice(hevc::kNalIdrNLp, 0, 0, true)}).shown);
    const PictureInfo hidden = stream.Get({HevcSlice(kTrailR, 1, 0, false)});
    EXPECT_FALSE(hidden.shown);
    EXPECT_EQ(hidden.order_count, 1);
}

TEST(HevcOrder, LooksOnlyAtTheFirstSliceOfTheBaseLayer) {
    Stream stream(MP4_MVC_HEVC);
    Nal otherLayer = HevcSlice(hevc::kNalCra, 5);
    otherLayer[1] |= 1 << 3;
    EXPECT_EQ(stream.Count({HevcSps(2), HevcPps(), otherLayer, HevcSlice(hevc::kNalCra, 3),
                            HevcSlice(hevc::kNalCra, 9)}),
              3);
    Nal second = HevcSlice(kTrailR, 5);
    second[2] &= 0x7F;
    EXPECT_FALSE(stream.Read({second}));
    EXPECT_THAT(stream.Error(), HasSubstr("first slice segment"));
}

PictureInfo Picture(int64_t count, uint32_t maxReorder = 0) {
    PictureInfo info;
    info.order_count = count;
    info.max_reorder = maxReorder;
    return info;
}

PictureInfo FirstField(int64_t count) {
    PictureInfo info = Picture(count);
    info.first_field = true;
    return info;
}

PictureInfo SecondField(int64_t count) {
    PictureInfo info = Picture(count);
    info.second_field = true;
    return info;
}

/// Presentation indexes of pictures with these counts; a 0 that is not the first starts a sequence.
std::vector<uint64_t> Present(uint32_t maxReorder, const std::vector<int64_t>& counts) {
    PresentationOrder order;
    std::vector<uint64_t> pts;
    OrderedTimes times;
    for (const int64_t count : counts) {
        PictureInfo info = Picture(count, maxReorder);
        info.starts_sequence = count == 0;
        EXPECT_TRUE(order.Push(info)) << order.Error();
        while (order.Pop(&times)) {
            EXPECT_EQ(times.dts, pts.size());
            EXPECT_GE(times.pts, times.dts);
            pts.push_back(times.pts);
        }
    }
    EXPECT_TRUE(order.Finish());
    while (order.Pop(&times))
        pts.push_back(times.pts);
    EXPECT_EQ(order.Held(), 0u);
    return pts;
}

TEST(PresentationOrder, RanksWithinSequencesAndAddsTheDelay) {
    EXPECT_THAT(Present(0, {0, 2, 4, 0, 2}), ElementsAre(0, 1, 2, 3, 4));
    EXPECT_THAT(Present(1, {0, 4, 2, 8, 6}), ElementsAre(1, 3, 2, 5, 4));
    EXPECT_THAT(Present(2, {0, 8, 4, 2, 6, 0, 3, 1}), ElementsAre(2, 6, 4, 3, 5, 7, 9, 8));
    EXPECT_THAT(Present(2, {0, -4, -2, 2}), ElementsAre(4, 2, 3, 5));
    EXPECT_THAT(Present(4, {}), IsEmpty());
}

TEST(PresentationOrder, GivesTimesWhileTheStreamIsRead) {
    PresentationOrder order;
    OrderedTimes times;
    int64_t count = 0;
    for (const int64_t next : {0, 8, 4, 2, 6, 16, 12, 10, 14, 24, 20, 18, 22}) {
        ASSERT_TRUE(order.Push(Picture(next, 2)));
        while (order.Pop(&times))
            ++count;
        EXPECT_LE(order.Held(), 6u);
    }
    EXPECT_EQ(count, 9);
    EXPECT_TRUE(order.IsReordered());
}

TEST(PresentationOrder, JoinsFields) {
    PresentationOrder order;
    OrderedTimes times;
    ASSERT_TRUE(order.Push(FirstField(3)));
    EXPECT_FALSE(order.Pop(&times)) << "its second field may come";
    ASSERT_TRUE(order.Push(SecondField(2)));
    ASSERT_TRUE(order.Push(FirstField(4)));
    ASSERT_TRUE(order.Push(Picture(6)));
    ASSERT_TRUE(order.Finish());
    for (uint64_t frame = 0; frame < 3; ++frame) {
        ASSERT_TRUE(order.Pop(&times));
        EXPECT_EQ(times.pts, frame);
    }
    EXPECT_FALSE(order.Pop(&times));
    EXPECT_FALSE(order.IsReordered());
}

TEST(PresentationOrder, PicturesThatAreNotShownDoNotCountAsReordered) {
    PresentationOrder order;
    ASSERT_TRUE(order.Push(Picture(0, 1)));
    ASSERT_TRUE(order.Push(Picture(6, 1)));
    PictureInfo hidden = Picture(4, 1);
    hidden.shown = false;
    ASSERT_TRUE(order.Push(hidden));
    ASSERT_TRUE(order.Push(Picture(2, 1)));
    ASSERT_TRUE(order.Finish());
    std::vector<uint64_t> pts;
    for (OrderedTimes times; order.Pop(&times);)
        pts.push_back(times.pts);
    EXPECT_THAT(pts, ElementsAre(1, 4, 3, 2));
}

/// What is said of the first picture that does not fit.
std::string Refusal(uint32_t maxReorder, const std::vector<int64_t>& counts) {
    PresentationOrder order;
    for (const int64_t count : counts) {
        if (!order.Push(Picture(count, maxReorder))) break;
    }
    EXPECT_FALSE(order.Push({})) << "a refused stream stays refused";
    EXPECT_FALSE(order.Finish());
    return order.Error();
}

TEST(PresentationOrder, RefusesStreamsThatContradictThemselves) {
    EXPECT_THAT(Refusal(1, {0, 8, 4, 2}), StartsWith("frame 3: picture order count 2 comes later"));
    EXPECT_THAT(Refusal(2, {0, 8, 4, 8}),
                StartsWith("frame 3: picture order count 8 is there twice"));
    EXPECT_THAT(Refusal(0, {0, 2, 2}), StartsWith("frame 2: picture order count 2 is there twice"));

    std::vector<int64_t> endless = {INT32_MAX};
    for (int64_t count = 0; count <= static_cast<int64_t>(PresentationOrder::kMaxHeld); ++count) {
        endless.push_back(count);
    }
    EXPECT_THAT(Refusal(1, endless), StartsWith("frame 0: not presented within 1024 frames"));

    PresentationOrder order;
    EXPECT_FALSE(order.Push(SecondField(0)));
    EXPECT_THAT(order.Error(), HasSubstr("second field"));
}

}  // namespace
}  // namespace kxmux
