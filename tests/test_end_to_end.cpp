// kxmux as a whole, judged by readers that others wrote: the sample streams are recorded, and what
// ffprobe and ffmpeg see in the recording is compared with what they see in the streams.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "program_runner.h"
#include "scratch_folder.h"

using namespace program_runner;

namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

/// Runs a reader that must find nothing to complain of, and returns the lines it prints.
Lines Read(const std::string& command) {
    const Outcome outcome = Execute(command);
    EXPECT_EQ(outcome.code, 0) << command;
    EXPECT_THAT(outcome.errors, IsEmpty()) << command;
    return SplitLines(outcome.out);
}

Lines Probe(const std::string& entries, const std::string& arguments) {
    return Read("ffprobe -v error -of csv=p=0 -show_entries " + entries + " " + arguments);
}

/// Sizes and checksums of the decoded frames, without their times.
Lines DecodedFrames(const std::string& input, const std::string& stream) {
    Lines frames;
    for (const std::string& line :
         Read("ffmpeg -nostdin -v error " + input + " -map 0:" + stream + " -f framemd5 -")) {
        if (line.empty() || line[0] == '#') continue;
        // stream, dts, pts, duration, size, checksum
        frames.push_back(line.substr(line.rfind(',', line.rfind(',') - 1) + 1));
    }
    return frames;
}

Outcome Kxmux(const std::string& arguments) {
    return Execute(std::string("'") + KXMUX_PATH + "' " + arguments);
}

bool HaveReaders() {
    static const bool have =
        Execute("ffmpeg -version").code == 0 && Execute("ffprobe -version").code == 0;
    return have;
}

/// Where the readers are missing nothing is tested, which continuous integration must not accept.
class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        if (HaveReaders()) return;
        if (std::getenv("CI") != nullptr) FAIL() << "ffmpeg and ffprobe are not installed";
        GTEST_SKIP() << "ffmpeg and ffprobe are not installed";
    }

    std::string Path(const std::string& name) const { return m_folder.Path(name); }

private:
    ScratchFolder m_folder;
};

struct Stream {
    const char* file;
    const char* codec;
    const char* size;
};

constexpr Stream kStreams[] = {{"h264.h264", "h264", "320,180"},
                               {"hevc.hevc", "hevc", "320,180"},
                               {"prores422.prores", "prores", "160,90"}};
constexpr size_t kVideoFrames = 75;  // of each sample, at 25 per second

/// The arguments with which ffmpeg decodes a sample itself. A raw ProRes stream has no reader
/// there, so its frames become files of their own in the folder.
std::string SourceInput(const Stream& stream, const ScratchFolder& folder) {
    if (std::string(stream.codec) != "prores") {
        return std::string("-f ") + stream.codec + " -i " + Sample(stream.file);
    }
    const std::string bytes = ReadFile(Sample(stream.file));
    size_t count = 0;
    for (size_t at = 0; at + 4 <= bytes.size(); ++count) {
        size_t size = 0;
        for (size_t i = 0; i < 4; ++i)
            size = size << 8 | static_cast<uint8_t>(bytes[at + i]);
        char name[32];
        std::snprintf(name, sizeof name, "%04zu.icpf", count);
        std::ofstream(folder.Path(name), std::ios::binary) << bytes.substr(at, size);
        at += std::max<size_t>(size, 4);
    }
    return "-framerate 25 -f image2 -c:v prores -i " + folder.Path("%04d.icpf");
}

class Recordings
    : public EndToEnd,
      public ::testing::WithParamInterface<std::tuple<Stream, const char*, const char*>> {};

TEST_P(Recordings, HoldWhatTheStreamsHoldAtItsTimes) {
    const auto& [stream, extension, flags] = GetParam();
    const std::string file = Path(std::string("out.") + extension);
    const Outcome outcome =
        Kxmux("-o " + file + " --fps 30000/1001 --video " + Sample(stream.file) + " --audio " +
              Sample("audio.aac") + " " + flags);
    ASSERT_EQ(outcome.code, 0) << outcome.errors;
    // The streams say 25, and ProRes belongs into a QuickTime movie.
    EXPECT_THAT(SplitLines(outcome.errors), Each(StartsWith("kxmux: warning: ")));
    EXPECT_THAT(outcome.out, HasSubstr("75 frames, 2.502 s"));

    EXPECT_THAT(Probe("stream=codec_name,width,height,nb_frames", "-select_streams v " + file),
                ElementsAre(std::string(stream.codec) + "," + stream.size + ",75"));
    EXPECT_THAT(Probe("format=format_name:format_tags=major_brand", file),
                ElementsAre(HasSubstr(extension == std::string("mov") ? "qt" : "isom")));

    const ScratchFolder frames;
    const Lines decoded = DecodedFrames("-i " + file, "v");
    EXPECT_EQ(decoded.size(), kVideoFrames);
    EXPECT_EQ(decoded, DecodedFrames(SourceInput(stream, frames), "v"));
    EXPECT_EQ(DecodedFrames("-i " + file, "a"), DecodedFrames("-i " + Sample("audio.aac"), "a"));

    Lines times;
    for (size_t i = 0; i < kVideoFrames; ++i)
        times.push_back(std::to_string(i * 1001) + "," + std::to_string(i * 1001));
    EXPECT_EQ(Probe("packet=pts,dts", "-select_streams v " + file), times);
    times.clear();
    const size_t audioFrames = Probe("packet=pts", Sample("audio.aac")).size();
    for (size_t i = 0; i < audioFrames; ++i)
        times.push_back(std::to_string(i * 1024));
    EXPECT_EQ(Probe("packet=pts", "-select_streams a " + file), times);
}

std::string NameOf(const ::testing::TestParamInfo<Recordings::ParamType>& info) {
    const auto& [stream, extension, flags] = info.param;
    return std::string(stream.codec) + "_" + extension + (*flags == '\0' ? "_32bit" : "_64bit");
}

INSTANTIATE_TEST_SUITE_P(All, Recordings,
                         ::testing::Combine(::testing::ValuesIn(kStreams),
                                            ::testing::Values("mp4", "mov"),
                                            ::testing::Values("", "--64bit")),
                         NameOf);

TEST_F(EndToEnd, TimecodeAndMetadataAreFound) {
    for (const std::string& file : {Path("out.mp4"), Path("out.mov")}) {
        const Outcome outcome =
            Kxmux("-o " + file +
                  " --fps 30000/1001 --timecode '00:59:59;29' --meta title='A title' "
                  "--meta com.example.take=7 --video " +
                  Sample("h264.h264"));
        ASSERT_EQ(outcome.code, 0) << outcome.errors;
        EXPECT_THAT(Probe("stream_tags=timecode", "-select_streams v " + file),
                    ElementsAre("00:59:59;29"));
        EXPECT_THAT(Probe("format_tags=title,com.example.take", file),
                    ElementsAre(AllOf(HasSubstr("A title"), HasSubstr("7"))));
    }
}

/// Decode and presentation times of the video packets, moved so that the first presentation is 0.
std::vector<std::pair<long, long>> ShiftedTimes(const std::string& file) {
    std::vector<std::pair<long, long>> times;
    for (const std::string& line : Probe("packet=dts_time,pts_time", "-select_streams v " + file)) {
        double pts = 0;
        double dts = 0;
        // ffprobe prints them in its own order.
        if (std::sscanf(line.c_str(), "%lf,%lf", &pts, &dts) != 2) ADD_FAILURE() << line;
        times.emplace_back(std::lround(dts * 1000), std::lround(pts * 1000));
    }
    long first = times.empty() ? 0 : times[0].second;
    for (const auto& [dts, pts] : times)
        first = std::min(first, pts);
    for (auto& [dts, pts] : times) {
        dts -= first;
        pts -= first;
    }
    return times;
}

struct Encoding {
    const char* name;
    const char* codec;  // as kxmux and ffmpeg's raw formats call it
    const char* options;
};

class Reordered : public EndToEnd, public ::testing::WithParamInterface<Encoding> {};

// The reference is the file that the encoder's own muxing made; the stream is taken out of it.
TEST_P(Reordered, TimesAndFramesEqualThoseOfAnotherMuxer) {
    const Encoding& encoding = GetParam();
    const std::string reference = Path("reference.mp4");
    const std::string raw = Path("stream");
    const Outcome encoded =
        Execute("ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=160x96:rate=25:duration=3 " +
                std::string(encoding.options) + " " + reference);
    if (encoded.code != 0 && std::getenv("CI") == nullptr) GTEST_SKIP() << encoded.errors;
    ASSERT_EQ(encoded.code, 0) << encoded.errors;
    Read("ffmpeg -nostdin -v error -i " + reference + " -c copy -f " + encoding.codec + " " + raw);

    const std::string file = Path("out.mp4");
    const Outcome outcome =
        Kxmux("-o " + file + " --fps 25 --video-codec " + encoding.codec + " --video " + raw);
    ASSERT_EQ(outcome.code, 0) << outcome.errors;
    EXPECT_THAT(outcome.out, HasSubstr("reordered"));
    EXPECT_EQ(ShiftedTimes(file), ShiftedTimes(reference));
    EXPECT_EQ(DecodedFrames("-i " + file, "v"), DecodedFrames("-i " + reference, "v"));

    const std::string flat = Path("flat.mp4");
    ASSERT_EQ(Kxmux("-o " + flat + " --fps 25 --no-composition-offsets --video-codec " +
                    encoding.codec + " --video " + raw)
                  .code,
              0);
    for (const std::string& line : Probe("packet=dts_time,pts_time", flat)) {
        EXPECT_EQ(line.substr(0, line.find(',')), line.substr(line.find(',') + 1));
    }
}

constexpr Encoding kEncodings[] = {
    {"H264", "h264", "-c:v libx264 -g 20"},
    {"H264OpenGroups", "h264", "-c:v libx264 -g 20 -x264-params open-gop=1:b-pyramid=normal"},
    {"H264Interlaced", "h264", "-c:v libx264 -flags +ilme+ildct -x264-params tff=1"},
    {"Hevc", "hevc", "-c:v libx265 -x265-params keyint=20:open-gop=0:log-level=error"},
    {"HevcOpenGroups10Bit", "hevc",
     "-c:v libx265 -pix_fmt yuv420p10le -x265-params keyint=20:open-gop=1:log-level=error"},
};

INSTANTIATE_TEST_SUITE_P(All, Reordered, ::testing::ValuesIn(kEncodings),
                         [](const auto& encoding) { return std::string(encoding.param.name); });

TEST_F(EndToEnd, PlayersAreToldWhatTheStreamTells) {
    const std::string raw = Path("a.h264");
    const std::string sound = Sample("audio.aac");
    Read(
        "ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=160x96:rate=30000/1001:duration=3 "
        "-vf setsar=16/11,setfield=bff -c:v libx264 -flags +ilme+ildct -x264-params "
        "colorprim=bt709:transfer=bt709:colormatrix=bt709 " +
        raw);
    const std::string told = " --fps stream --priming 1024 --rotate 90 --audio " + sound;
    const std::string file = Path("a.mp4");
    ASSERT_EQ(Kxmux("--video " + raw + told + " -o " + file).code, 0);
    EXPECT_THAT(Probe("stream=sample_aspect_ratio,field_order,color_space,color_transfer,"
                      "color_primaries,start_time:stream_side_data=rotation",
                      "-select_streams v " + file),
                ElementsAre("16:11,bt709,bt709,bt709,bb,0.000000,-90", ""));
    // What is heard first is shown with the first picture; the priming lies before it.
    EXPECT_THAT(Probe("stream=start_time", "-select_streams a " + file), ElementsAre("0.000000"));
    EXPECT_EQ(Probe("packet=pts,flags", "-select_streams a " + file).at(0), "-1024,KD,");
    const auto boxesIn = [](const std::string& path) {
        const std::string bytes = ReadFile(path);
        Lines found;
        for (const char* const type : {"pasp", "colr", "fiel"})
            if (bytes.find(type) != std::string::npos) found.emplace_back(type);
        return found;
    };
    EXPECT_THAT(boxesIn(file), ElementsAre("pasp", "colr", "fiel"));
    // The same from a pipe, which the recorder writes.
    ASSERT_EQ(Execute("cat " + raw + " | '" KXMUX_PATH "' --video - --video-codec h264" + told +
                      " -o " + Path("b.mp4"))
                  .code,
              0);
    EXPECT_TRUE(ReadFile(file) == ReadFile(Path("b.mp4")));
    // Without all of it, and by the letter of the standard.
    ASSERT_EQ(Kxmux("--plain --strict --fps stream --video " + raw + " -o " + Path("c.mp4")).code,
              0);
    EXPECT_THAT(boxesIn(Path("c.mp4")), IsEmpty());
    EXPECT_THAT(Probe("format_tags=compatible_brands", Path("c.mp4")), ElementsAre("isomiso2mp42"));
}

// Offsets are on whatever the first pictures are like: here reordering begins in the middle.
TEST_F(EndToEnd, StreamsThatChangeKeepTheirTimesAndAreToldOf) {
    const auto encode = [this](const std::string& name, const std::string& what) {
        Read("ffmpeg -nostdin -v error -f lavfi -i testsrc2=rate=25:duration=1.2:size=" + what +
             " " + Path(name));
    };
    if (Execute("ffmpeg -v error -encoders | grep libx265").code != 0) GTEST_SKIP();
    encode("0.h264", "160x96 -c:v libx264 -bf 0");
    encode("1.h264", "320x180 -c:v libx264 -bf 2 -force_key_frames 0.52");
    Execute("{ cat " + Path("*.h264") + " >" + Path("a.264") + "; }");
    const Outcome file = Kxmux("--fps stream --video " + Path("a.264") + " -o " + Path("a.mp4"));
    EXPECT_THAT(file.errors,
                HasSubstr("changes from 160x96 to 320x180 at frame 30; the recording"));
    const auto times = ShiftedTimes(Path("a.mp4"));
    ASSERT_EQ(times.size(), 60U);
    const auto isReordered = [](const auto& time) { return time.first != time.second; };
    EXPECT_GT(std::count_if(times.begin() + 30, times.end(), isReordered), 10);
    // A pipe cannot be read ahead, and becomes a file of each size, with all pictures.
    EXPECT_EQ(
        Execute("cat " + Path("a.264") +
                " | '" KXMUX_PATH "' --fps stream --video - --video-codec h264 -o " + Path("b.mp4"))
            .code,
        0);
    for (const char* const half : {"b.mp4", "b-2.mp4"})
        EXPECT_EQ(ShiftedTimes(Path(half)).size(), 30U) << half;
    // Segments of a pipe hold every picture once.
    const Outcome live =
        Execute("cat " + Path("1.h264") +
                " | '" KXMUX_PATH "' --fps stream --video - --video-codec h264 -o " +
                Path("s%i.mp4") + " --segment 500ms --queue 1M --on-full wait");
    EXPECT_EQ(live.code, 0) << live.errors;
    EXPECT_THAT(live.out, HasSubstr("2 files, 1.200 s"));
    EXPECT_EQ(ShiftedTimes(Path("s0.mp4")).size(), 13U);
    EXPECT_EQ(ShiftedTimes(Path("s1.mp4")).size(), 17U);

    // Open groups without reordering: every random-access picture is marked.
    encode("cra.hevc",
           "160x96 -c:v libx265 -x265-params "
           "bframes=0:keyint=10:min-keyint=10:open-gop=1:log-level=error");
    const Outcome hevc = Kxmux("--fps stream --video " + Path("cra.hevc") + " -o " + Path("c.mp4"));
    EXPECT_THAT(hevc.out, HasSubstr("160x96, 25 fps: 30 frames"));
    const Lines flags = Probe("packet=flags", Path("c.mp4"));
    EXPECT_EQ(std::count(flags.begin(), flags.end(), "K_"), 3);
}

}  // namespace
