// The readers of kxmux' inputs: the fuzzers' seeds are replayed into readable texts that are kept,
// each stream in pieces of several sizes, which must make no difference. A seed's name says what is
// in it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iomanip>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "AccessUnitCutter.h"
#include "AdtsCutter.h"
#include "AnnexBFeed.h"
#include "FrameTicks.h"
#include "H264Syntax.h"
#include "HevcSyntax.h"
#include "InputSet.h"
#include "ProResCutter.h"
#include "Scc.h"
#include "StreamRate.h"
#include "Timecode.h"
#include "TrackFeed.h"
#include "golden_text.h"
#include "scratch_folder.h"

namespace h264 = kx_mp4::h264;
namespace hevc = kx_mp4::hevc;

namespace kxmux {
namespace {

using Bytes = std::vector<uint8_t>;

/// Hands out at most `step` bytes at a time, as a pipe may.
class MemorySource : public ByteSource {
public:
    MemorySource(Bytes bytes, size_t step) : m_bytes(std::move(bytes)), m_step(step) {}
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

/// The beginning of some bytes in hexadecimal, and how many there are.
std::string Hex(const uint8_t* data, size_t size) {
    constexpr size_t kMost = 16;
    std::ostringstream out;
    for (size_t i = 0; i < std::min(size, kMost); ++i)
        out << std::hex << std::setw(2) << std::setfill('0') << int{data[i]};
    if (size > kMost) out << "... " << std::dec << size;
    return out.str();
}

void CutVideo(std::ostream& out, mp4_video_codec codec, MemorySource& source, size_t step) {
    AccessUnitCutter cutter(codec, source, step);
    for (AccessUnit unit; cutter.Next(unit);) {
        out << "  picture\n";
        for (size_t i = 0; i < unit.NalCount(); ++i)
            out << "    " << Hex(unit.Nal(i).data, unit.Nal(i).size) << "\n";
    }
    if (cutter.IsCutOff()) out << "  cut off\n";
    if (cutter.SkippedBytes() != 0) out << "  skipped " << cutter.SkippedBytes() << "\n";
}

void OrderVideo(std::ostream& out, mp4_video_codec codec, MemorySource& source) {
    FrameOrderer orderer(codec, source);
    for (FrameOrderer::Frame frame; orderer.Next(frame);)
        out << "  dts " << frame.times.dts << " pts " << frame.times.pts << "\n";
}

void CutAdts(std::ostream& out, MemorySource& source, size_t step) {
    AdtsCutter cutter(source, step);
    for (AdtsFrame frame; cutter.Next(frame);)
        out << "  type " << int{frame.header.objectType} << " " << frame.header.SampleRate()
            << " Hz " << int{frame.header.channels} << " channels " << Hex(frame.data, frame.size)
            << "\n";
    if (cutter.SkippedBytes() != 0) out << "  skipped " << cutter.SkippedBytes() << "\n";
}

void CutProRes(std::ostream& out, MemorySource& source, size_t step) {
    ProResCutter cutter(source, step);
    for (ProResFrame frame; cutter.Next(frame);)
        out << "  " << frame.width << "x" << frame.height << (frame.is444 ? " 444 " : " 422 ")
            << Hex(frame.data, frame.size) << "\n";
}

/// What a seed of the cutters holds: a byte that chooses the cutter, one for the fuzzer, a stream.
std::string Cut(const Bytes& seed, size_t step) {
    std::ostringstream out;
    MemorySource source(Bytes(seed.begin() + 2, seed.end()), step);
    const mp4_video_codec codec = seed[0] % 2 == 0 ? MP4_MVC_H264 : MP4_MVC_HEVC;
    try {
        switch (seed[0] % 6) {
            case 0:
            case 1:
                CutVideo(out, codec, source, step);
                break;
            case 2:
            case 3:
                OrderVideo(out, codec, source);
                break;
            case 4:
                CutAdts(out, source, step);
                break;
            default:
                CutProRes(out, source, step);
        }
    } catch (const StreamError& error) {
        out << "  error: " << error.what() << "\n";
    }
    return out.str();
}

TEST(StreamSeeds, AreCutAsIsKept) {
    ExpectReplayKept("stream_cutters", [](std::ostream& out, const Bytes& seed) {
        const std::string text = Cut(seed, 3);
        out << text;
        for (const size_t step : {1U, 2U, 7U, 100000U})
            EXPECT_EQ(Cut(seed, step), text) << "in pieces of " << step;
    });
    // Given up long before all of it is in memory.
    Bytes large(AnnexBReader::kMaxGarbage * 3, 0x47);
    large[0] = 0;
    EXPECT_EQ(Cut(large, 65536), "  error: no start code within 1 MiB\n");
}

TEST(StreamSeeds, ParameterSetsSayWhatIsKept) {
    ExpectReplayKept("sps", [](std::ostream& out, const Bytes& seed) {
        h264::Sps avc;
        if (h264::ParseSps(seed.data(), seed.size(), &avc))
            out << "  H.264 " << avc.width << "x" << avc.height
                << (avc.frame_mbs_only ? "" : " fields") << " reorder " << avc.MaxReorderFrames()
                << "\n";
        hevc::Sps hevcSps;
        if (hevc::ParseSps(seed.data(), seed.size(), &hevcSps))
            out << "  HEVC " << hevcSps.width << "x" << hevcSps.height << " "
                << int{hevcSps.bit_depth_luma} << " bits reorder " << hevcSps.max_num_reorder_pics
                << "\n";
        const auto tell = [&out](const char* where, const std::optional<FrameRate>& rate) {
            if (rate) out << "  " << where << " " << rate->num << "/" << rate->den << "\n";
        };
        tell("H.264 rate", H264FrameRate(seed));
        tell("HEVC rate", HevcFrameRate({}, seed));
        tell("HEVC rate of the video parameter set", HevcFrameRate(seed, {}));
        // Cut off, a set says less than it promises.
        size_t taken = 0;
        for (size_t size = 0; size < seed.size(); ++size) {
            const bool isAvc = h264::ParseSps(seed.data(), size, &avc);
            if (isAvc || hevc::ParseSps(seed.data(), size, &hevcSps)) ++taken;
        }
        out << "  taken when cut off: " << taken << "\n";
    });
}

TEST(StreamSeeds, CaptionsAreSentAsIsKept) {
    ExpectReplayKept("scc", [](std::ostream& out, const Bytes& seed) {
        SccFile file;
        std::istringstream in(std::string(seed.begin(), seed.end()));
        if (!file.Read(in)) out << "  error: " << file.Error() << "\n";
        for (const CaptionPacket& packet : file.Packets(SccFile::kTimescale)) {
            out << "  frame " << packet.timestamp / 1001 << " "
                << Hex(packet.bytes.data(), packet.bytes.size()) << "\n";
            EXPECT_EQ(packet.timestamp % 1001, 0U);
        }
        const auto rounded = file.Packets(0xFFFFFFFF);
        if (!rounded.empty()) out << "  last at " << rounded.back().timestamp << " of 2^32 - 1\n";
    });
}

TEST(Timecodes, CountAsIsKept) {
    ExpectLinesKept("timecodes", [](const std::string& line) -> std::string {
        if (line[0] == '#') return {};
        const size_t end = line.find(']');
        std::istringstream rate(line.substr(end + 1));
        FrameRate frameRate;
        char slash = 0;
        rate >> frameRate.num >> slash >> frameRate.den;
        Timecode timecode;
        std::string error;
        if (!timecode.Parse(line.substr(3, end - 3), frameRate, &error))
            return "  error: " + error + "\n";
        const mp4_time_code_track_info_t track = timecode.TrackInfo();
        std::ostringstream out;
        out << "  frame " << timecode.FrameCount() << " at " << int{track.frame_rate}
            << " a second, " << track.frame_duration << " of " << track.timescale
            << " ticks, flags " << int{track.flags} << "\n";
        return out.str();
    });
}

/// Opens a new pipe that holds `filled` bytes, and as many as a read of it takes.
int OpenPipe(const std::string& path, size_t filled) {
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int pipe = open(path.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_GE(fcntl(pipe, F_SETPIPE_SZ, 1 << 18), 1 << 18);
    const Bytes bytes(filled, 7);
    EXPECT_EQ(write(pipe, bytes.data(), filled), static_cast<ssize_t>(filled));
    return pipe;
}

TEST(InputSet, HoldsWhatOnePipeSendsWhileAnotherIsWaitedForUpToALimit) {
    const ScratchFolder folder;
    const int pipes[] = {OpenPipe(folder.Path("sending"), 200000),
                         OpenPipe(folder.Path("waiting"), 0)};
    InputSet set(100000);
    Input& sent = set.Open(folder.Path("sending"));
    Input& silent = set.Open(folder.Path("waiting"));
    EXPECT_EQ(sent.Head(5), Bytes(5, 7));
    EXPECT_THROW(silent.Head(1), StreamError);
    // The input that waited is at its end, and of the other one nothing is lost.
    uint8_t byte = 0;
    EXPECT_EQ(silent.Read(&byte, 1), 0U);
    PieceReader reader(sent);
    EXPECT_TRUE(reader.Fill(200000));
    EXPECT_EQ(std::count(reader.Data(), reader.Data() + 200000, 7), 200000);
    for (const int pipe : pipes)
        close(pipe);
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
}  // namespace kxmux
