// Picture order of H.264 and HEVC. The fuzzers' seeds are replayed into a readable text that is
// kept beside the golden recordings: what the parameter sets say, and of each picture its count and
// its place in both orders. KX_MP4_UPDATE_GOLDEN in the environment refreshes it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "PictureOrder.h"
#include "VideoFrameParser.h"

namespace kxmux {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using Bytes = std::vector<uint8_t>;

/// The seeds of a fuzzer by name: a byte that chooses the codec, then an Annex-B stream.
std::map<std::string, Bytes> Seeds(const std::string& fuzzer) {
    std::map<std::string, Bytes> seeds;
    const std::filesystem::path folder = std::string(KX_MP4_FUZZ_SEEDS) + "/" + fuzzer;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::ifstream file(entry.path(), std::ios::binary);
        seeds[entry.path().filename()] = Bytes(std::istreambuf_iterator<char>(file), {});
    }
    return seeds;
}

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
    std::ostringstream text;
    for (const auto& [name, seed] : Seeds("picture_order")) {
        text << name << "\n";
        const mp4_video_codec codec = seed.front() % 2 == 0 ? MP4_MVC_H264 : MP4_MVC_HEVC;
        Replay(text, codec).Run(Bytes(seed.begin() + 1, seed.end()));
    }
    const std::string path = std::string(KX_MP4_GOLDEN_FOLDER) + "/picture_order.txt";
    if (std::getenv("KX_MP4_UPDATE_GOLDEN") != nullptr) std::ofstream(path) << text.str();
    std::ostringstream kept;
    kept << std::ifstream(path).rdbuf();
    EXPECT_EQ(text.str(), kept.str());
    EXPECT_EQ(PictureOrderReader::Create(MP4_MVC_PRORES), nullptr);
}

/// Sequence parameter sets as encoders write them; cut off they say less than they promise.
TEST(PictureOrder, ReadsSequenceParameterSetsOfEncoders) {
    const Bytes avc = {0x67, 0x64, 0x00, 0x15, 0xac, 0xd9, 0x43, 0x08, 0xd8, 0x08, 0x80, 0x00,
                       0x00, 0x03, 0x00, 0x80, 0x00, 0x00, 0x19, 0x0f, 0x8a, 0x14, 0xcb};
    h264::Sps h264Sps;
    ASSERT_TRUE(h264::ParseSps(avc.data(), avc.size(), &h264Sps));
    EXPECT_THAT((std::vector<uint32_t>{h264Sps.width, h264Sps.height, h264Sps.frame_mbs_only,
                                       h264Sps.time_scale, h264Sps.MaxReorderFrames()}),
                ElementsAre(192, 128, 0, 50, 2));
    const Bytes hevc = {0x42, 0x01, 0x01, 0x02, 0x20, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00,
                        0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x3c, 0xa0, 0x18, 0x20, 0x20,
                        0x4d, 0x96, 0x56, 0x69, 0x24, 0xca, 0xf0, 0x16, 0x80, 0x80, 0x00,
                        0x00, 0x03, 0x00, 0x80, 0x00, 0x00, 0x0c, 0x84};
    hevc::Sps hevcSps;
    ASSERT_TRUE(hevc::ParseSps(hevc.data(), hevc.size(), &hevcSps));
    EXPECT_THAT((std::vector<uint32_t>{hevcSps.width, hevcSps.height, hevcSps.bit_depth_luma,
                                       hevcSps.max_num_reorder_pics}),
                ElementsAre(192, 128, 10, 2));
    for (size_t size = 0; size + 1 < avc.size(); ++size)
        EXPECT_FALSE(h264::ParseSps(avc.data(), size, &h264Sps)) << size;
    for (size_t size = 0; size < 22; ++size)
        EXPECT_FALSE(hevc::ParseSps(hevc.data(), size, &hevcSps)) << size;
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
