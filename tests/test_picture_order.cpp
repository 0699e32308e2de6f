// Picture order of H.264 and HEVC. The fuzzers' seeds are replayed into a readable text that is
// kept beside the golden recordings: what the parameter sets say, and of each picture its count and
// its place in both orders. KX_MP4_UPDATE_GOLDEN in the environment refreshes it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <vector>

#include "PictureOrder.h"
#include "VideoFrameParser.h"
#include "golden_text.h"

namespace h264 = kx_mp4::h264;
namespace hevc = kx_mp4::hevc;

namespace kxmux {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using Bytes = std::vector<uint8_t>;

/// Reads one seed picture by picture and writes down what is found.
class Replay {
public:
    Replay(std::ostream& out, mp4_video_codec codec)
        : m_out(out), m_hevc(codec == MP4_MVC_HEVC), m_reader(PictureOrderReader::Create(codec)) {}

    /// Access units end at delimiters where the stream begins with one, else after each slice.
    void Run(const Bytes& stream) {
        CVideoFrameParser units;
        units.Parse(stream.data(), static_cast<int>(stream.size()));
        const bool delimited = !units.empty() && IsDelimiter(units.front());
        bool going = true;
        for (auto unit = units.begin(); going && unit != units.end(); ++unit) {
            going = m_reader->Add(unit->pbData, static_cast<size_t>(unit->cbData));
            const auto next = unit + 1;
            const bool ends =
                delimited ? next == units.end() || IsDelimiter(*next) : IsSlice(*unit);
            if (going && ends) going = EndPicture();
        }
        if (going && m_infos.empty()) m_reader->End(&m_unused);
        if (!m_reader->Error().empty()) m_out << "  refused: " << m_reader->Error() << "\n";
        if (!m_order.Finish()) m_out << "  no order: " << m_order.Error() << "\n";
        TakeTimes();
        for (size_t i = 0; i < m_infos.size(); ++i)
            Print(i);
    }

private:
    static int H264Type(const VIDEO_SLICE& unit) { return h264::NalUnitType(unit.pbData[0]); }
    static int HevcType(const VIDEO_SLICE& unit) { return unit.pbData[0] >> 1 & 0x3F; }
    bool IsDelimiter(const VIDEO_SLICE& unit) const {
        return m_hevc ? HevcType(unit) == hevc::kNalAccessUnitDelimiter
                      : H264Type(unit) == h264::kNalAccessUnitDelimiter;
    }
    bool IsSlice(const VIDEO_SLICE& unit) const {
        return m_hevc ? HevcType(unit) <= hevc::kNalVclLast
                      : H264Type(unit) == h264::kNalSlice || H264Type(unit) == h264::kNalIdrSlice;
    }

    bool EndPicture() {
        PictureInfo info;
        if (!m_reader->End(&info)) return false;
        m_infos.push_back(info);
        m_order.Push(info);  // a refusal is told at the end; counts are read all the same
        return true;
    }
    void TakeTimes() {
        for (OrderedTimes times; m_order.Pop(&times);)
            m_times.push_back(times);
    }
    /// One line a picture: its count, the times of the frame it begins, and what else is known.
    void Print(size_t index) {
        const PictureInfo& info = m_infos[index];
        m_out << "  " << info.order_count;
        if (!info.second_field && m_printed < m_times.size()) {
            m_out << " dts " << m_times[m_printed].dts << " pts " << m_times[m_printed].pts;
            ++m_printed;
        }
        m_out << " reorder " << info.max_reorder << (info.starts_sequence ? " starts" : "")
              << (info.random_access ? " random" : "") << (info.first_field ? " first" : "")
              << (info.second_field ? " second" : "") << (info.shown ? "\n" : " hidden\n");
    }

    std::ostream& m_out;
    bool m_hevc;
    std::unique_ptr<PictureOrderReader> m_reader;
    PresentationOrder m_order;
    PictureInfo m_unused;
    std::vector<PictureInfo> m_infos;
    std::vector<OrderedTimes> m_times;
    size_t m_printed = 0;
};

TEST(PictureOrder, OfTheSeedsIsAsKept) {
    // A byte that chooses the codec, then an Annex-B stream.
    ExpectReplayKept("picture_order", [](std::ostream& out, const Bytes& seed) {
        const mp4_video_codec codec = seed.front() % 2 == 0 ? MP4_MVC_H264 : MP4_MVC_HEVC;
        Replay(out, codec).Run(Bytes(seed.begin() + 1, seed.end()));
    });
    EXPECT_EQ(PictureOrderReader::Create(MP4_MVC_PRORES), nullptr);
}

PictureInfo Picture(int64_t count, uint32_t maxReorder) {
    PictureInfo info;
    info.order_count = count;
    info.max_reorder = maxReorder;
    info.starts_sequence = count == 0;
    return info;
}

/// Presentation indexes of frames in decode order; a count of 0 starts a sequence.
std::vector<uint64_t> Present(uint32_t maxReorder, const std::vector<int64_t>& counts) {
    PresentationOrder order;
    std::vector<uint64_t> pts;
    OrderedTimes times;
    for (const int64_t count : counts) {
        EXPECT_TRUE(order.Push(Picture(count, maxReorder))) << order.Error();
        while (order.Pop(&times))
            pts.push_back(times.pts);
        EXPECT_LE(order.Held(), 6U) << "times are given while the stream is read";
    }
    EXPECT_TRUE(order.Finish());
    while (order.Pop(&times))
        pts.push_back(times.pts);
    EXPECT_EQ(order.IsReordered(), !std::is_sorted(pts.begin(), pts.end()));
    return pts;
}

TEST(PresentationOrder, RanksWithinSequencesAndAddsTheDelay) {
    EXPECT_THAT(Present(0, {0, 2, 4, 0, 2}), ElementsAre(0, 1, 2, 3, 4));
    EXPECT_THAT(Present(2, {0, 8, 4, 2, 6, 0, 3, 1}), ElementsAre(2, 6, 4, 3, 5, 7, 9, 8));
    EXPECT_THAT(Present(2, {0, -4, -2, 2}), ElementsAre(4, 2, 3, 5));
    EXPECT_THAT(Present(4, {}), IsEmpty());
}

TEST(PresentationOrder, RefusesStreamsThatContradictThemselves) {
    const auto refusal = [](uint32_t maxReorder, const std::vector<int64_t>& counts) {
        PresentationOrder order;
        const auto push = [&](int64_t count) { return order.Push(Picture(count, maxReorder)); };
        EXPECT_FALSE(std::all_of(counts.begin(), counts.end(), push));
        EXPECT_FALSE(order.Push({})) << "a refused stream stays refused";
        EXPECT_FALSE(order.Finish());
        return order.Error();
    };
    EXPECT_THAT(refusal(1, {1, 8, 4, 2}), StartsWith("frame 3: picture order count 2 comes later"));
    EXPECT_THAT(refusal(2, {1, 8, 4, 8}), StartsWith("frame 3: picture order count 8 is there"));
    EXPECT_THAT(refusal(0, {1, 2, 2}), StartsWith("frame 2: picture order count 2 is there twice"));
    std::vector<int64_t> endless = {INT32_MAX};
    for (int64_t count = 1; count <= static_cast<int64_t>(PresentationOrder::kMaxHeld) + 1; ++count)
        endless.push_back(count);
    EXPECT_THAT(refusal(1, endless), StartsWith("frame 0: not presented within 1024 frames"));
    PresentationOrder order;
    PictureInfo second;
    second.second_field = true;
    EXPECT_FALSE(order.Push(second));
    EXPECT_THAT(order.Error(), HasSubstr("second field"));
}

}  // namespace
}  // namespace kxmux
