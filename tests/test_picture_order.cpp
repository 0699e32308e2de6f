// Picture order count of H.264 and HEVC, and the presentation order that follows from it. The
// streams are made here, header by header, so that the counts are those of the standards' formulas.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "PictureOrder.h"
#include "bit_writer.h"

namespace kxmux {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using Nal = std::vector<uint8_t>;

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
    bool interlaced = false;
    std::vector<int32_t> offsets = {};
    int32_t offsetNonRef = 0;
    int32_t offsetBottom = 0;
    bool deltaAlwaysZero = true;
    uint32_t level = 30;
    std::optional<uint32_t> reorder = {};
};

/// 720x576, frame_num and the low bits of the count both four bits wide.
Nal H264Sps(const H264Config& config) {
    BitWriter w;
    w.U(8, 0x67).U(8, 77).U(8, 0).U(8, config.level).Ue(0).Ue(0).Ue(config.orderType);
    if (config.orderType == 0) w.Ue(0);
    if (config.orderType == 1) {
        w.U(1, config.deltaAlwaysZero).Se(config.offsetNonRef).Se(config.offsetBottom);
        w.Ue(config.offsets.size());
        for (const int32_t offset : config.offsets)
            w.Se(offset);
    }
    w.Ue(4).U(1, 1).Ue(44).Ue(config.interlaced ? 17 : 35).U(1, !config.interlaced);
    if (config.interlaced) w.U(1, 0);
    w.U(2, 0).U(1, config.reorder.has_value());
    if (config.reorder) {
        w.U(8, 0).U(1, 1).U(1, 1).Ue(0).Ue(0).Ue(10).Ue(10).Ue(*config.reorder).Ue(4);
    }
    return w.Nal();
}

Nal H264Pps(bool bottomOrder = false) {
    BitWriter w;
    w.U(8, 0x68).Ue(0).Ue(0).U(1, 0).U(1, bottomOrder).Ue(0).Ue(0).Ue(0).U(3, 0);
    return w.Se(0).Se(0).Se(0).U(3, 0).Nal();
}

enum class Field { kNone, kTop, kBottom };

/// An I slice.
struct H264Slice {
    uint32_t frameNum = 0;
    std::optional<uint32_t> lsb = 0;
    bool reference = true;
    bool interlaced = false;
    Field field = Field::kNone;
    std::optional<int32_t> delta0 = {};
    std::optional<int32_t> bottomDelta = {};
    bool reset = false;
    bool idr = false;
};

constexpr std::nullopt_t kNoLsb = std::nullopt;
const H264Slice kIdr = {0, 0, true, false, Field::kNone, {}, {}, false, true};

Nal Make(const H264Slice& s) {
    BitWriter w;
    w.U(8, (s.reference ? 0x60U : 0U) | (s.idr ? 5U : 1U)).Ue(0).Ue(7).Ue(0).U(4, s.frameNum);
    if (s.interlaced) w.U(1, s.field != Field::kNone);
    if (s.field != Field::kNone) w.U(1, s.field == Field::kBottom);
    if (s.idr) w.Ue(0);
    if (s.lsb) w.U(4, *s.lsb);
    if (s.delta0) w.Se(*s.delta0);
    if (s.bottomDelta) w.Se(*s.bottomDelta);
    if (s.idr) {
        w.U(2, 0);
    } else if (s.reset) {
        w.U(1, 1).Ue(1).Ue(0).Ue(5).Ue(0);  // operation 1 with its operand, operation 5, end
    } else if (s.reference) {
        w.U(1, 0);
    }
    return w.Se(0).U(16, 0xABCD).Nal();
}

struct Counted {
    H264Slice slice;
    int64_t count;
};

/// Reads an IDR picture, which counts 0, then the others.
void ExpectCounts(const H264Config& config, bool bottomOrder, H264Slice idr,
                  const std::vector<Counted>& pictures) {
    Stream stream(MP4_MVC_H264);
    idr.idr = true;
    const PictureInfo first = stream.Get({H264Sps(config), H264Pps(bottomOrder), Make(idr)});
    EXPECT_TRUE(first.starts_sequence && first.random_access);
    EXPECT_EQ(first.order_count, 0);
    for (const Counted& picture : pictures)
        EXPECT_EQ(stream.Get({Make(picture.slice)}).order_count, picture.count);
}

TEST(H264Order, Type0FollowsTheLowBitsAcrossTheirWrap) {
    ExpectCounts({}, false, {},
                 {{{1, 6}, 6},
                  {{2, 2, false}, 2},
                  {{2, 12}, 12},
                  {{3, 2}, 18},
                  {{4, 14, false}, 14},
                  {{4, 8}, 24},
                  {kIdr, 0}});
    // A frame takes the lesser count of its fields.
    ExpectCounts({0, true}, true, {0, 0, true, true, Field::kNone, {}, 1},
                 {{{1, 5, true, true, Field::kNone, {}, -1}, 4}});
}

TEST(H264Order, Type1AddsTheCycleOfOffsetsAndWrapsFrameNumbers) {
    ExpectCounts({1, false, {4, 6}, -2}, false, {0, kNoLsb},
                 {{{1, kNoLsb}, 4},
                  {{2, kNoLsb, false}, 2},  // the one before it, and the offset of the others
                  {{2, kNoLsb}, 10},
                  {{3, kNoLsb}, 14},
                  {{15, kNoLsb}, 74},        // a gap: seven cycles and a 4
                  {{1, kNoLsb, false}, 78},  // 17th frame: eight cycles less 2
                  {{1, kNoLsb}, 84}});
    // The bottom field's count is 7 + 1 - 3 in the second picture.
    ExpectCounts({1, true, {2}, 0, 1, false}, true, {0, kNoLsb, true, true, Field::kNone, 0, 0},
                 {{{1, kNoLsb, true, true, Field::kNone, 5, 0}, 7},
                  {{1, kNoLsb, true, true, Field::kNone, 5, -3}, 5},
                  {{1, kNoLsb, true, true, Field::kBottom, 5}, 8}});
}

TEST(H264Order, Type2IsDecodingOrder) {
    ExpectCounts(
        {2}, false, {0, kNoLsb},
        {{{1, kNoLsb, false}, 1}, {{1, kNoLsb}, 2}, {{15, kNoLsb}, 30}, {{0, kNoLsb}, 32}});
}

TEST(H264Order, TwoFieldsMakeOneFrame) {
    Stream stream(MP4_MVC_H264);
    std::vector<Nal> units = {H264Sps({0, true}), H264Pps()};
    const struct {
        uint32_t frameNum;
        uint32_t lsb;
        bool reference;
        Field field;
        bool idr, first, second;
        const char* why;
    } pictures[] = {
        {0, 0, true, Field::kTop, true, true, false, "IDR"},
        {0, 1, true, Field::kBottom, false, false, true, "the other field of the IDR picture"},
        {1, 4, true, Field::kTop, false, true, false, "new frame"},
        {1, 6, true, Field::kTop, false, true, false, "same parity"},
        {2, 7, true, Field::kBottom, false, true, false, "other frame_num"},
        {2, 8, false, Field::kTop, false, true, false, "not a reference"},
        {2, 9, false, Field::kBottom, false, false, true, "pair without reference"},
        {2, 10, false, Field::kTop, false, true, false, "third field"},
        {3, 12, true, Field::kNone, false, false, false, "frame"},
    };
    for (const auto& p : pictures) {
        H264Slice slice = {p.frameNum, p.lsb, p.reference, true, p.field};
        slice.idr = p.idr;
        units.push_back(Make(slice));
        const PictureInfo info = stream.Get(units);
        units.clear();
        EXPECT_EQ(info.first_field, p.first) << p.why;
        EXPECT_EQ(info.second_field, p.second) << p.why;
        EXPECT_EQ(info.starts_sequence, p.idr) << p.why;
        EXPECT_EQ(info.order_count, p.lsb) << p.why;
    }
}

TEST(H264Order, MemoryOperation5StartsASequence) {
    const auto frame = [](uint32_t frameNum, uint32_t lsb, int32_t bottomDelta) {
        return H264Slice{frameNum, lsb, true, true, Field::kNone, {}, bottomDelta};
    };
    Stream stream(MP4_MVC_H264);
    H264Slice idr = frame(0, 0, 1);
    idr.idr = true;
    stream.Get({H264Sps({0, true}), H264Pps(true), Make(idr)});
    stream.Get({Make(frame(1, 10, 1))});
    H264Slice reset = frame(2, 14, -2);
    reset.reset = true;
    const PictureInfo info = stream.Get({Make(reset)});
    EXPECT_TRUE(info.starts_sequence);
    EXPECT_FALSE(info.random_access);
    EXPECT_EQ(info.order_count, 0);
    // Its top field counts 2 now; from 0, low bits of 10 would be taken for -6.
    EXPECT_EQ(stream.Count({Make(frame(0, 10, 0))}), 10);
    EXPECT_EQ(stream.Count({Make(frame(1, 2, 0))}), 18);

    ExpectCounts({2}, false, {0, kNoLsb},
                 {{{9, kNoLsb, true, false, Field::kNone, {}, {}, true}, 0}, {{1, kNoLsb}, 2}});
}

TEST(H264Order, ReorderingIsTheStreamsOwnOrTheLevelsLimit) {
    const auto reorder = [](const H264Config& config) {
        h264::Sps sps;
        const Nal nal = H264Sps(config);
        EXPECT_TRUE(h264::ParseSps(nal.data(), nal.size(), &sps));
        EXPECT_TRUE(sps.width == 720 && sps.height == 576);
        return sps.MaxReorderFrames();
    };
    const auto atLevel = [&](uint32_t level, bool interlaced = false) {
        return reorder({0, interlaced, {}, 0, 0, true, level});
    };
    EXPECT_EQ(reorder({0, false, {}, 0, 0, true, 30, 2}), 2u);
    EXPECT_EQ(atLevel(30), 5u);
    EXPECT_EQ(atLevel(40), 16u);
    EXPECT_EQ(atLevel(99), 16u);
    EXPECT_EQ(atLevel(30, true), 5u);
    EXPECT_EQ(reorder({2}), 0u);
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

TEST(PictureOrder, RefusesWhatItCannotRead) {
    H264Slice idr = kIdr;
    idr.lsb.reset();
    const std::pair<std::vector<Nal>, const char*> cases[] = {
        {{Make(kIdr)}, "slice header"},
        {{H264Sps({}), H264Pps()}, "no picture"},
        {{H264Sps({3})}, "sequence parameter set"},
        {{H264Sps({1, false, {INT32_MAX, INT32_MAX}}), H264Pps(), Make(idr)}, "range"},
    };
    for (const auto& [units, reason] : cases) {
        Stream stream(MP4_MVC_H264);
        EXPECT_FALSE(stream.Read(units));
        EXPECT_THAT(stream.Error(), HasSubstr(reason));
    }
    EXPECT_EQ(PictureOrderReader::Create(MP4_MVC_PRORES), nullptr);
}

/// 64x64, the low bits of the count four bits wide.
Nal HevcSps(uint32_t reorder) {
    BitWriter w;
    w.U(16, 0x4201).U(4, 0).U(3, 0).U(1, 1).U(32, 0x01600000).U(64, 0);  // one sub-layer
    w.Ue(0).Ue(1).Ue(64).Ue(64).U(1, 0).Ue(0).Ue(0).Ue(0).U(1, 1).Ue(4).Ue(reorder).Ue(0);
    return w.Nal();
}

Nal HevcPps(bool outputFlag = false) {
    return BitWriter().U(16, 0x4401).Ue(0).Ue(0).U(1, 0).U(1, outputFlag).U(3, 0).Nal();
}

/// First slice segment of a picture.
Nal HevcSlice(hevc::NalType type, uint32_t lsb, uint32_t temporalId = 0,
              std::optional<bool> output = {}) {
    BitWriter w;
    w.U(8, static_cast<uint64_t>(type) << 1).U(8, temporalId + 1).U(1, 1);
    if (type >= hevc::kNalBlaWLp) w.U(1, 0);
    w.Ue(0).Ue(2);
    if (output) w.U(1, *output);
    if (type != hevc::kNalIdrWRadl && type != hevc::kNalIdrNLp) w.U(4, lsb);
    return w.U(16, 0xABCD).Nal();
}

constexpr auto kTrailR = static_cast<hevc::NalType>(1);
constexpr auto kTsaN = static_cast<hevc::NalType>(2);
constexpr auto kRadlR = static_cast<hevc::NalType>(7);

struct HevcPicture {
    hevc::NalType type;
    uint32_t lsb;
    int64_t count;
    bool starts = false;
    bool shown = true;
    uint32_t temporalId = 0;
};

void ExpectHevc(const std::vector<HevcPicture>& pictures) {
    Stream stream(MP4_MVC_HEVC);
    std::vector<Nal> units = {HevcSps(2), HevcPps()};
    for (const HevcPicture& picture : pictures) {
        units.push_back(HevcSlice(picture.type, picture.lsb, picture.temporalId));
        const PictureInfo info = stream.Get(units);
        EXPECT_EQ(info.order_count, picture.count);
        EXPECT_EQ(info.starts_sequence, picture.starts) << picture.count;
        EXPECT_EQ(info.random_access, picture.type >= hevc::kNalBlaWLp) << picture.count;
        EXPECT_EQ(info.shown, picture.shown) << picture.count;
        EXPECT_EQ(info.max_reorder, 2u);
        units.clear();
    }
}

TEST(HevcOrder, CountsFromPicturesOfTheLowestTemporalLayerThatAreNotLeading) {
    // Counted from 15 of the upper layer, the third and fourth after it would be 18 and 23.
    ExpectHevc({{hevc::kNalIdrWRadl, 0, 0, true},
                {kTrailR, 8, 8},
                {kTsaN, 15, 15, false, true, 1},
                {kTrailR, 2, 2, false, true, 1},
                {hevc::kNalTrailN, 7, 7},
                {kTrailR, 15, 15},
                {kTrailR, 3, 19}});
    // A CRA picture in the middle of a sequence goes on counting, its leading pictures are shown.
    ExpectHevc({{hevc::kNalIdrNLp, 0, 0, true},
                {hevc::kNalCra, 7, 7},
                {hevc::kNalRaslR, 1, 1},
                {kRadlR, 5, 5},
                {kTrailR, 14, 14}});
}

TEST(HevcOrder, RaslPicturesAfterAStartAreNotShown) {
    ExpectHevc({{hevc::kNalCra, 4, 4, true},
                {hevc::kNalRaslN, 14, -2, false, false},
                {kRadlR, 3, 3},
                {hevc::kNalBlaWLp, 12, 12, true},
                {hevc::kNalRaslN, 10, 10, false, false},
                {hevc::kNalCra, 3, 19},
                {hevc::kNalRaslN, 1, 17}});
    Stream stream(MP4_MVC_HEVC);
    const Nal endOfSequence = {hevc::kNalEndOfSequence << 1, 1};
    stream.Get({HevcSps(2), HevcPps(true), HevcSlice(hevc::kNalIdrNLp, 0, 0, true)});
    const PictureInfo hidden = stream.Get({HevcSlice(kTrailR, 1, 0, false), endOfSequence});
    EXPECT_FALSE(hidden.shown) << "pic_output_flag 0";
    EXPECT_EQ(hidden.order_count, 1);
    EXPECT_TRUE(stream.Get({HevcSlice(hevc::kNalCra, 9, 0, true)}).starts_sequence);
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

PictureInfo Picture(int64_t count, uint32_t maxReorder = 0, Field field = Field::kNone) {
    PictureInfo info;
    info.order_count = count;
    info.max_reorder = maxReorder;
    info.first_field = field == Field::kTop;
    info.second_field = field == Field::kBottom;
    return info;
}

/// Presentation indexes of the frames, which are given in decode order.
std::vector<uint64_t> Present(const std::vector<PictureInfo>& pictures) {
    PresentationOrder order;
    std::vector<uint64_t> pts;
    OrderedTimes times;
    for (const PictureInfo& info : pictures) {
        EXPECT_TRUE(order.Push(info)) << order.Error();
        while (order.Pop(&times)) {
            EXPECT_EQ(times.dts, pts.size());
            EXPECT_GE(times.pts, times.dts);
            pts.push_back(times.pts);
        }
        EXPECT_LE(order.Held(), 6u) << "times are given while the stream is read";
    }
    EXPECT_TRUE(order.Finish());
    while (order.Pop(&times))
        pts.push_back(times.pts);
    EXPECT_EQ(order.Held(), 0u);
    EXPECT_EQ(order.IsReordered(), !std::is_sorted(pts.begin(), pts.end()));
    return pts;
}

/// Of pictures with these counts; a 0 that is not the first starts a sequence.
std::vector<uint64_t> Present(uint32_t maxReorder, const std::vector<int64_t>& counts) {
    std::vector<PictureInfo> pictures;
    for (const int64_t count : counts) {
        pictures.push_back(Picture(count, maxReorder));
        pictures.back().starts_sequence = count == 0;
    }
    return Present(pictures);
}

TEST(PresentationOrder, RanksWithinSequencesAndAddsTheDelay) {
    EXPECT_THAT(Present(0, {0, 2, 4, 0, 2}), ElementsAre(0, 1, 2, 3, 4));
    EXPECT_THAT(Present(1, {0, 4, 2, 8, 6}), ElementsAre(1, 3, 2, 5, 4));
    EXPECT_THAT(Present(2, {0, 8, 4, 2, 6, 0, 3, 1}), ElementsAre(2, 6, 4, 3, 5, 7, 9, 8));
    EXPECT_THAT(Present(2, {0, -4, -2, 2}), ElementsAre(4, 2, 3, 5));
    EXPECT_THAT(Present(4, {}), IsEmpty());
    EXPECT_THAT(Present(2, {0, 8, 4, 2, 6, 16, 12, 10, 14, 24, 20, 18, 22}),
                ElementsAre(2, 6, 4, 3, 5, 10, 8, 7, 9, 14, 12, 11, 13));
}

TEST(PresentationOrder, JoinsFieldsAndDoesNotCountHiddenPicturesAsReordered) {
    EXPECT_THAT(Present({Picture(3, 0, Field::kTop), Picture(2, 0, Field::kBottom),
                         Picture(4, 0, Field::kTop), Picture(6)}),
                ElementsAre(0, 1, 2));
    PictureInfo hidden = Picture(4, 1);
    hidden.shown = false;
    EXPECT_THAT(Present({Picture(0, 1), Picture(6, 1), hidden, Picture(2, 1)}),
                ElementsAre(1, 4, 3, 2));
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
    EXPECT_FALSE(order.Push(Picture(0, 0, Field::kBottom)));
    EXPECT_THAT(order.Error(), HasSubstr("second field"));
}

}  // namespace
}  // namespace kxmux
