// The cutters of the program's input streams, on streams written bit by bit here and on input that
// is cut off, empty, or something else altogether.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "AccessUnitCutter.h"
#include "AdtsCutter.h"
#include "AnnexBReader.h"
#include "FrameTicks.h"
#include "H264Syntax.h"
#include "InputSet.h"
#include "ProResCutter.h"
#include "StreamRate.h"
#include "TrackFeed.h"
#include "bit_writer.h"
#include "scratch_folder.h"

namespace {

using namespace kxmux;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/// Hands out at most `step` bytes at a time, as a pipe may.
class MemorySource : public ByteSource {
public:
    explicit MemorySource(Bytes bytes, size_t step = 3) : m_bytes(std::move(bytes)), m_step(step) {}
    size_t Read(uint8_t* to, size_t size) override {
        const size_t count = std::min({size, m_step, m_bytes.size() - m_at});
        std::copy_n(m_bytes.begin() + static_cast<ptrdiff_t>(m_at), count, to);
        m_at += count;
        return count;
    }

private:
    Bytes m_bytes;
    size_t m_step;
    size_t m_at = 0;
};

/// What a call throws as StreamError, or "nothing".
template <class Call>
std::string ErrorOf(Call call) {
    try {
        call();
        return "nothing";
    } catch (const StreamError& error) {
        return error.what();
    }
}

std::vector<Bytes> NalUnits(const Bytes& stream, size_t step) {
    MemorySource source(stream, step);
    AnnexBReader reader(source, step);
    std::vector<Bytes> units;
    for (NalUnit nal; reader.Next(nal);)
        units.emplace_back(nal.data, nal.data + nal.size);
    return units;
}

TEST(AnnexBReader, FindsTheSameUnitsHoweverTheInputIsSplit) {
    // Three- and four-byte start codes, trailing zeros, an empty unit, 00 00 03 inside a unit.
    const Bytes stream = {0, 0, 0, 1, 0x67, 1, 2, 0, 0,    0, 0, 1, 0x68, 0, 0,
                          3, 1, 0, 0, 1,    0, 0, 1, 0x65, 0, 1, 0, 0,    1};
    for (size_t step = 1; step <= stream.size(); ++step) {
        EXPECT_THAT(NalUnits(stream, step),
                    ElementsAre(Bytes{0x67, 1, 2}, Bytes{0x68, 0, 0, 3, 1}, Bytes{0x65, 0, 1}))
            << "step " << step;
    }
}

TEST(AnnexBReader, SkipsGarbageInFrontAndRefusesWhatIsNoStream) {
    MemorySource source({0xAA, 0, 1, 0xBB, 0, 0, 0, 1, 0x09, 0xF0});
    AnnexBReader reader(source);
    NalUnit nal;
    ASSERT_TRUE(reader.Next(nal));
    EXPECT_EQ(reader.SkippedBytes(), 4U);
    EXPECT_EQ(nal.size, 2U);
    EXPECT_FALSE(reader.Next(nal));

    EXPECT_THAT(NalUnits({}, 1), IsEmpty());
    EXPECT_THAT(ErrorOf([] { NalUnits({0, 0}, 1); }), HasSubstr("no start code"));
    // Given up long before all of it is in memory.
    const Bytes large(AnnexBReader::kMaxGarbage * 3, 0x47);
    EXPECT_THAT(ErrorOf([&] { NalUnits(large, 65536); }), HasSubstr("within 1 MiB"));
}

// Pictures are written as far as their boundary is told by: the beginning of the slice header, then
// a stop bit.

const Bytes kStartCode = {0, 0, 0, 1};

/// 64x64, 4 bits of frame_num and pic_order_cnt_lsb.
Bytes H264Sets(bool framesOnly) {
    BitWriter sps;
    sps.U(8, 0x67).U(8, 77).U(8, 0).U(8, 30).Ue(0);
    sps.Ue(0).Ue(0).Ue(0).Ue(2).U(1, 0).Ue(3).Ue(framesOnly ? 3 : 1).U(1, framesOnly);
    if (!framesOnly) sps.U(1, 0);
    sps.U(1, 1).U(1, 0).U(1, 0);
    BitWriter pps;
    pps.U(8, 0x68).Ue(0).Ue(0).U(1, 0).U(1, 0).Ue(0).Ue(0).Ue(0).U(3, 0);
    pps.Ue(0).Ue(0).Ue(0).U(3, 1);  // redundant_pic_cnt_present_flag 1
    return kStartCode + sps.Nal() + kStartCode + pps.Nal();
}

struct Slice {
    uint32_t nalHeader = 0x41;
    uint32_t firstMb = 0;
    uint32_t frameNum = 0;
    uint32_t orderLsb = 0;
    int field = -1;  // 0 top, 1 bottom
    uint32_t redundant = 0;
};

Bytes H264Slice(const Slice& slice, bool framesOnly = true) {
    BitWriter bits;
    bits.U(8, slice.nalHeader).Ue(slice.firstMb).Ue(7).Ue(0).U(4, slice.frameNum);
    if (!framesOnly) bits.U(1, slice.field >= 0 ? 1 : 0);
    if (slice.field >= 0) bits.U(1, static_cast<uint32_t>(slice.field));
    if ((slice.nalHeader & 0x1F) == 5) bits.Ue(0);  // idr_pic_id
    bits.U(4, slice.orderLsb).Ue(slice.redundant);
    // The rest of a header that ends in dec_ref_pic_marking, and slice data that is never read.
    return kStartCode + bits.U(24, 0x5A5A5A).Nal();
}

/// The NAL unit types of each access unit.
std::vector<std::vector<int>> Cut(mp4_video_codec codec, const Bytes& stream, size_t step = 5) {
    MemorySource source(stream, step);
    AccessUnitCutter cutter(codec, source, step);
    std::vector<std::vector<int>> units;
    for (AccessUnit unit; cutter.Next(unit);) {
        units.emplace_back();
        for (size_t i = 0; i < unit.NalCount(); ++i) {
            const int header = unit.Nal(i).data[0];
            units.back().push_back(codec == MP4_MVC_HEVC ? header >> 1 : header & 0x1F);
        }
    }
    return units;
}

using Types = std::vector<int>;

TEST(AccessUnitCutter, H264PicturesOfSeveralSlicesWithoutDelimiters) {
    const Bytes stream = H264Sets(true) + H264Slice({0x65, 0}) + H264Slice({0x65, 8}) +
                         H264Slice({0x41, 0, 1, 2}) + H264Slice({0x41, 8, 1, 2}) +
                         // The first slice of the next picture is lost.
                         H264Slice({0x41, 8, 2, 4});
    for (const size_t step : {1U, 2U, 3U, 7U, 100U}) {
        EXPECT_THAT(Cut(MP4_MVC_H264, stream, step),
                    ElementsAre(Types{7, 8, 5, 5}, Types{1, 1}, Types{1}));
    }
}

TEST(AccessUnitCutter, H264UnitsBetweenPicturesGoToTheirOwn) {
    const Bytes delimiter = {0, 0, 0, 1, 0x09, 0xF0};
    const Bytes sei = {0, 0, 1, 0x06, 0x05, 0x01, 0x80};
    const Bytes filler = {0, 0, 1, 0x0C, 0xFF, 0x80};
    const Bytes endOfSequence = {0, 0, 1, 0x0A};
    const Bytes stream = delimiter + H264Sets(true) + sei + H264Slice({0x65, 0}) + filler +
                         endOfSequence + H264Sets(true) + sei + H264Slice({0x65, 0}) + delimiter +
                         sei + H264Slice({0x01, 0, 1, 2}) + sei;
    EXPECT_THAT(Cut(MP4_MVC_H264, stream),
                ElementsAre(Types{9, 7, 8, 6, 5, 12, 10}, Types{7, 8, 6, 5}, Types{9, 6, 1, 6}));
}

TEST(AccessUnitCutter, H264PicturesThatAreHardToTellApart) {
    // Two IDR pictures with the same idr_pic_id, then the redundant coding of the second.
    const Bytes idrs = H264Sets(true) + H264Slice({0x65, 0}) + H264Slice({0x65, 0}) +
                       H264Slice({0x65, 0, 0, 0, -1, 1}) + H264Slice({0x41, 0, 1, 2});
    EXPECT_THAT(Cut(MP4_MVC_H264, idrs), ElementsAre(Types{7, 8, 5}, Types{5, 5}, Types{1}));
    // Fields are pictures of their own.
    const Bytes fields = H264Sets(false) + H264Slice({0x65, 0, 0, 0, 0}, false) +
                         H264Slice({0x41, 0, 0, 1, 1}, false) + H264Slice({0x41, 0, 1, 2}, false);
    EXPECT_THAT(Cut(MP4_MVC_H264, fields), ElementsAre(Types{7, 8, 5}, Types{1}, Types{1}));
    // Before their parameter sets they are cut by the first macroblock.
    const Bytes early = H264Slice({0x41, 8, 3, 2}) + H264Slice({0x41, 0, 4, 2}) +
                        H264Slice({0x41, 8, 4, 2}) + H264Sets(true) + H264Slice({0x65, 0});
    EXPECT_THAT(Cut(MP4_MVC_H264, early), ElementsAre(Types{1}, Types{1, 1}, Types{7, 8, 5}));
}

Bytes HevcNal(int type, uint8_t third, int layer = 0) {
    return {0,     0,   1, static_cast<uint8_t>(type << 1), static_cast<uint8_t>(layer << 3 | 1),
            third, 0x55};
}

TEST(AccessUnitCutter, HevcPictures) {
    constexpr uint8_t kFirst = 0x80;
    const Bytes sets = HevcNal(32, 1) + HevcNal(33, 1) + HevcNal(34, 1);
    const Bytes stream = sets + HevcNal(39, 1) + HevcNal(19, kFirst) + HevcNal(19, 0) +
                         HevcNal(40, 1) + HevcNal(1, kFirst) + HevcNal(1, kFirst, 1) +
                         HevcNal(37, 1) + HevcNal(35, 1) + sets + HevcNal(21, kFirst) +
                         // The first segment after a delimiter is lost.
                         HevcNal(35, 1) + HevcNal(1, 0) + HevcNal(35, 1);
    for (const size_t step : {1U, 4U, 100U}) {
        EXPECT_THAT(Cut(MP4_MVC_HEVC, stream, step),
                    ElementsAre(Types{32, 33, 34, 39, 19, 19, 40}, Types{1, 1, 37},
                                Types{35, 32, 33, 34, 21}, Types{35, 1, 35}));
    }
}

TEST(AccessUnitCutter, StreamsWithoutAPictureHaveNoAccessUnit) {
    EXPECT_THAT(Cut(MP4_MVC_H264, {}), IsEmpty());
    EXPECT_THAT(Cut(MP4_MVC_H264, H264Sets(true)), IsEmpty());
    EXPECT_THAT(Cut(MP4_MVC_HEVC, {0, 0, 1, 0x40}), IsEmpty());  // half a NAL header
}

/// One AAC frame of `payload` bytes behind a header with the fields that matter here.
Bytes AdtsFrameOf(size_t payload, uint8_t fill, bool crc = false, int rateIndex = 3,
                  int channels = 2, int blocks = 1) {
    const size_t size = payload + (crc ? 9 : 7);
    BitWriter bits;
    bits.U(12, 0xFFF).U(3, 0).U(1, crc ? 0 : 1).U(2, 1).U(4, static_cast<uint32_t>(rateIndex));
    bits.U(1, 0).U(3, static_cast<uint32_t>(channels)).U(4, 0).U(13, static_cast<uint32_t>(size));
    bits.U(11, 0x7FF).U(2, static_cast<uint32_t>(blocks - 1));
    return bits.Bytes() + (crc ? Bytes{0xC3, 0xC4} : Bytes{}) + Bytes(payload, fill);
}

std::vector<Bytes> AdtsFrames(const Bytes& stream, size_t step = 4, size_t* skipped = nullptr) {
    MemorySource source(stream, step);
    AdtsCutter cutter(source, step);
    std::vector<Bytes> frames;
    for (AdtsFrame frame; cutter.Next(frame);) {
        EXPECT_EQ(frame.header.sampleRate, 48000U);
        EXPECT_EQ(frame.header.channels, 2);
        EXPECT_EQ(frame.header.objectType, 2);
        frames.emplace_back(frame.data, frame.data + frame.size);
    }
    if (skipped != nullptr) *skipped = cutter.SkippedBytes();
    return frames;
}

TEST(AdtsCutter, CutsFramesAndLeavesOutTheCrcAndWhatStandsInFront) {
    // A syncword by accident does not count unless another frame follows where it says.
    const Bytes garbage = {'I', 'D', '3', 0xFF, 0xF1, 0x4C, 0x80, 0x01, 0x3F, 0xFC, 0x00};
    const Bytes stream =
        garbage + AdtsFrameOf(300, 0xFF) + AdtsFrameOf(1, 2) + AdtsFrameOf(2047, 3, true);
    for (const size_t step : {1U, 7U, 5000U}) {
        size_t skipped = 0;
        EXPECT_THAT(AdtsFrames(stream, step, &skipped),
                    ElementsAre(AdtsFrameOf(300, 0xFF), AdtsFrameOf(1, 2), AdtsFrameOf(2047, 3)));
        EXPECT_EQ(skipped, garbage.size());
    }
}

TEST(AdtsCutter, SaysWhatIsWrongWithAStream) {
    const Bytes frame = AdtsFrameOf(50, 1);
    const auto errorOf = [](const Bytes& stream) { return ErrorOf([&] { AdtsFrames(stream); }); };
    EXPECT_THAT(AdtsFrames({}), IsEmpty());
    EXPECT_THAT(errorOf(Bytes(3000, 0xFF)), HasSubstr("no ADTS frames"));
    EXPECT_THAT(errorOf(frame + frame + Bytes(20, 0x11)), HasSubstr("no ADTS header at byte 114"));
    EXPECT_THAT(errorOf(frame + frame + Bytes(frame.begin(), frame.begin() + 20)),
                HasSubstr("cut off: 20 of 57 bytes"));
    EXPECT_THAT(errorOf(frame + frame + AdtsFrameOf(50, 1, false, 4)), HasSubstr("44100 Hz"));
    EXPECT_THAT(errorOf(frame + AdtsFrameOf(50, 1, false, 3, 2, 2)), HasSubstr("2 AAC frames"));
    const Bytes unsaid = AdtsFrameOf(50, 1, false, 3, 0);
    EXPECT_THAT(errorOf(unsaid + unsaid), HasSubstr("channel configuration 0"));
}

Bytes ProResFrameOf(uint32_t size, uint32_t width, uint32_t height, uint32_t chroma) {
    BitWriter bits;
    bits.U(32, size).U(32, 0x69637066).U(16, 148).U(16, 0).U(32, 0);
    bits.U(16, width).U(16, height).U(2, chroma).U(6, 0);
    Bytes frame = bits.Bytes();
    frame.resize(size, 0xEE);
    return frame;
}

TEST(ProResCutter, CutsFramesBySize) {
    const Bytes stream = ProResFrameOf(500, 1920, 1080, 2) + ProResFrameOf(156, 1280, 720, 3);
    MemorySource source(stream, 11);
    ProResCutter cutter(source, 11);
    ProResFrame frame;
    ASSERT_TRUE(cutter.Next(frame));
    EXPECT_EQ(Bytes(frame.data, frame.data + frame.size), ProResFrameOf(500, 1920, 1080, 2));
    EXPECT_EQ(frame.width, 1920);
    EXPECT_FALSE(frame.is444);
    ASSERT_TRUE(cutter.Next(frame));
    EXPECT_EQ(frame.size, 156U);
    EXPECT_EQ(frame.height, 720);
    EXPECT_TRUE(frame.is444);
    EXPECT_FALSE(cutter.Next(frame));
}

TEST(ProResCutter, SaysWhatIsWrongWithAStream) {
    const auto errorOf = [](const Bytes& stream) {
        MemorySource source(stream);
        ProResCutter cutter(source);
        return ErrorOf([&] {
            for (ProResFrame frame; cutter.Next(frame);)
                EXPECT_EQ(frame.width, 64);
        });
    };
    const Bytes good = ProResFrameOf(500, 64, 64, 2);
    EXPECT_EQ(errorOf({}), "nothing");
    EXPECT_THAT(errorOf(good + Bytes(10, 0)), HasSubstr("within the frame header"));
    EXPECT_THAT(errorOf(good + Bytes(100, 0)), HasSubstr("at byte 500"));
    EXPECT_THAT(errorOf(good + Bytes(good.begin(), good.end() - 1)),
                HasSubstr("cut off: 499 of 500 bytes"));
    EXPECT_THAT(errorOf(ProResFrameOf(155, 64, 64, 2)), HasSubstr("size 155, header 148"));
    Bytes endless = good;
    endless[0] = 0xFF;
    EXPECT_THAT(errorOf(endless), HasSubstr("not a ProRes frame"));
    EXPECT_THAT(errorOf(ProResFrameOf(500, 64, 64, 1)), HasSubstr("chroma format 1"));
}

/// A named pipe that holds more than one read of it takes, with its writer.
class NamedPipe {
public:
    explicit NamedPipe(std::string path, size_t filled = 0) : m_path(std::move(path)) {
        EXPECT_EQ(mkfifo(m_path.c_str(), 0600), 0);
        m_descriptor = open(m_path.c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_GE(fcntl(m_descriptor, F_SETPIPE_SZ, 1 << 18), 1 << 18);
        Write(Bytes(filled, 7));
    }
    ~NamedPipe() { close(m_descriptor); }
    NamedPipe(const NamedPipe&) = delete;
    NamedPipe& operator=(const NamedPipe&) = delete;
    void Write(const Bytes& bytes) const {
        EXPECT_EQ(write(m_descriptor, bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
    int m_descriptor = -1;
};

TEST(InputSet, HoldsWhatOnePipeSendsWhileAnotherIsWaitedForUpToALimit) {
    const ScratchFolder folder;
    const NamedPipe sending(folder.Path("sending"), 200000);
    const NamedPipe waiting(folder.Path("waiting"));
    InputSet set(100000);
    Input& sent = set.Open(sending.Path());
    Input& silent = set.Open(waiting.Path());
    EXPECT_EQ(sent.Head(5), Bytes(5, 7));
    EXPECT_THAT(ErrorOf([&] { silent.Head(1); }), HasSubstr("nothing came while "));
    // The input that waited is at its end, and of the other one nothing is lost.
    uint8_t byte = 0;
    EXPECT_EQ(silent.Read(&byte, 1), 0U);
    PieceReader reader(sent);
    EXPECT_TRUE(reader.Fill(200000));
    EXPECT_EQ(std::count(reader.Data(), reader.Data() + 200000, 7), 200000);
}

/// Timing flag and 1001 / 60000 behind what comes before it.
Bytes Timed(BitWriter& bits, const Bytes& header) {
    return header + bits.U(1, 1).U(32, 1001).U(32, 60000).U(1, 1).Nal();
}

/// The beginning of a sequence parameter set of H.265, 64x64, up to the coding tools.
BitWriter HevcSpsStart() {
    BitWriter bits;
    bits.U(4, 0).U(3, 0).U(1, 1).U(32, 0).U(32, 0).U(32, 0);
    bits.Ue(0).Ue(1).Ue(64).Ue(64).U(1, 0).Ue(0).Ue(0).Ue(4).U(1, 1).Ue(4).Ue(2).Ue(0);
    return bits.Ue(0).Ue(3).Ue(0).Ue(3).Ue(0).Ue(0);
}

TEST(StreamRate, IsReadFromWhereverItStands) {
    const Bytes sps = {0x42, 0x01};
    // Scaling lists, PCM, reference picture sets of which one is predicted, long-term pictures, and
    // everything that a VUI can have before its timing.
    BitWriter full = HevcSpsStart();
    full.U(1, 1).U(1, 1);
    for (int list = 0; list < 20; ++list) {
        full.U(1, list == 19 ? 1 : 0);
        if (list < 19) full.Ue(0);
    }
    for (int coefficient = 0; coefficient < 65; ++coefficient)
        full.Ue(0);
    full.U(2, 0).U(1, 1).U(8, 0).Ue(0).Ue(0).U(1, 0);
    full.Ue(2).Ue(1).Ue(1).Ue(0).U(1, 1).Ue(1).U(1, 1);  // -1 and +2
    full.U(1, 1).U(1, 1).Ue(0).U(1, 1).U(2, 0).U(1, 1);  // predicted: 3 flags for 3 pictures
    full.U(1, 1).Ue(1).U(8, 0).U(1, 0).U(2, 0).U(1, 1);  // long-term, then the VUI
    full.U(1, 1).U(8, 255).U(32, 0).U(1, 1).U(1, 0).U(1, 1).U(4, 0).U(1, 1).U(24, 0);
    full.U(1, 1).Ue(0).Ue(0).U(3, 0).U(1, 1).Ue(0).Ue(0).Ue(0).Ue(0);
    BitWriter plain = HevcSpsStart();
    plain.U(1, 0).U(2, 0).U(1, 0).Ue(0).U(1, 0).U(2, 0);
    BitWriter none = plain;
    none.U(1, 0).U(1, 1);
    plain.U(1, 1).U(4, 0).U(3, 0).U(1, 0);
    BitWriter vps;
    vps.U(12, 0).U(3, 0).U(17, 0).U(32, 0).U(32, 0).U(32, 0);
    vps.U(1, 1).Ue(4).Ue(2).Ue(0).U(6, 1).Ue(1).U(2, 0);
    const Bytes timedVps = Timed(vps, {0x40, 0x01});
    const Bytes untimedSps = sps + none.Nal();
    const auto text = [](const std::optional<FrameRate>& rate) {
        return rate ? std::to_string(rate->num) + "/" + std::to_string(rate->den) : "none";
    };
    EXPECT_EQ(text(HevcFrameRate({}, Timed(full, sps))), "60000/1001");
    EXPECT_EQ(text(HevcFrameRate({}, Timed(plain, sps))), "60000/1001");
    EXPECT_EQ(text(HevcFrameRate(timedVps, untimedSps)), "60000/1001");
    EXPECT_EQ(text(HevcFrameRate({}, untimedSps)), "none");
    EXPECT_EQ(text(HevcFrameRate({0x40, 0x01}, {0x42})), "none");
    EXPECT_EQ(text(H264FrameRate({0x67})), "none");
    BitWriter zero = HevcSpsStart();
    zero.U(1, 0).U(2, 0).U(1, 0).Ue(0).U(1, 0).U(2, 0).U(1, 1).U(4, 0).U(3, 0).U(1, 0);
    EXPECT_EQ(text(HevcFrameRate({}, sps + zero.U(1, 1).U(32, 0).U(32, 60000).U(1, 1).Nal())),
              "none");
}

TEST(FrameTicks, AreExactForEveryRateAndCompareAcrossTimescales) {
    for (const FrameRate rate : {FrameRate{25, 1}, FrameRate{30000, 1001}, FrameRate{60000, 2002},
                                 FrameRate{1U << 31, 1}, FrameRate{1, 1U << 31}}) {
        const FrameTicks ticks = TicksOf(rate);
        EXPECT_EQ(uint64_t{ticks.timescale} * rate.den, uint64_t{ticks.perFrame} * rate.num);
    }
    EXPECT_EQ(TicksOf({25, 1}).timescale, 25000U);
    EXPECT_TRUE(IsEarlier({1, 30000}, {2, 48000}));
    EXPECT_FALSE(IsEarlier({3, 3}, {2, 2}));
    // The same second, one tick apart, where the products of 64-bit values would not fit.
    const uint64_t years = uint64_t{1} << 32;
    EXPECT_TRUE(IsEarlier({years * 90000, 90000}, {years * 48000 + 1, 48000}));
}

}  // namespace
