// kxmux as a whole, judged by readers that others wrote: the sample streams are recorded, and what
// ffprobe and ffmpeg see in the recording is compared with what they see in the streams.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
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
using ::testing::EndsWith;
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

TEST_F(EndToEnd, TheWayToTheFileChangesNoByte) {
    for (const Stream& stream : kStreams) {
        const std::string inputs =
            " --overwrite --fps 25 --timecode 01:00:00:00 --meta title=T --video " +
            Sample(stream.file) + " --audio " + Sample("audio.aac");
        ASSERT_EQ(Kxmux("-o " + Path("plain.mp4") + inputs).code, 0);
        const std::string plain = ReadFile(Path("plain.mp4"));
        for (const char* flag : {"--callback-io", "--buffered", "--no-repair"}) {
            const Outcome outcome = Kxmux("-o " + Path("other.mp4") + inputs + " " + flag);
            ASSERT_EQ(outcome.code, 0) << outcome.errors;
            EXPECT_TRUE(ReadFile(Path("other.mp4")) == plain) << stream.file << " " << flag;
        }
        EXPECT_FALSE(std::filesystem::exists(Path("other.mp4.info")));
    }
}

TEST_F(EndToEnd, ConfigurationFoundInTheStreamIsTheSameAsTheDeclaredOne) {
    for (const Stream& stream : kStreams) {
        const std::string inputs = " --overwrite --fps 25 --video " + Sample(stream.file) +
                                   " --audio " + Sample("audio.aac");
        ASSERT_EQ(Kxmux("-o " + Path("declared.mp4") + inputs).code, 0);
        ASSERT_EQ(Kxmux("-o " + Path("found.mp4") + inputs + " --deferred").code, 0);
        EXPECT_TRUE(ReadFile(Path("found.mp4")) == ReadFile(Path("declared.mp4"))) << stream.file;
    }
}

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

// Offsets are on whatever the first pictures are like: here reordering begins in the middle.
TEST_F(EndToEnd, StreamsThatChangeKeepTheirTimesAndAreToldOf) {
    const auto encode = [this](const std::string& name, const std::string& what) {
        Read("ffmpeg -nostdin -v error -f lavfi -i testsrc2=rate=25:duration=1.2:size=" + what +
             " " + Path(name));
    };
    if (Execute("ffmpeg -v error -encoders | grep libx265").code != 0) GTEST_SKIP();
    encode("0.h264", "160x96 -c:v libx264 -bf 0");
    encode("1.h264", "320x180 -c:v libx264 -bf 2");
    Execute("{ cat " + Path("*.h264") + " >" + Path("a.264") + "; }");
    const Outcome file = Kxmux("--fps stream --video " + Path("a.264") + " -o " + Path("a.mp4"));
    EXPECT_THAT(file.errors,
                HasSubstr("changes from 160x96 to 320x180 at frame 30; the recording"));
    const auto times = ShiftedTimes(Path("a.mp4"));
    ASSERT_EQ(times.size(), 60U);
    const auto isReordered = [](const auto& time) { return time.first != time.second; };
    EXPECT_GT(std::count_if(times.begin() + 30, times.end(), isReordered), 10);
    // A pipe cannot be read ahead, and gives the same.
    EXPECT_EQ(
        Execute("cat " + Path("a.264") +
                " | '" KXMUX_PATH "' --fps stream --video - --video-codec h264 -o " + Path("b.mp4"))
            .code,
        0);
    EXPECT_TRUE(ReadFile(Path("a.mp4")) == ReadFile(Path("b.mp4")));

    // Open groups without reordering: every random-access picture is marked.
    encode("cra.hevc",
           "160x96 -c:v libx265 -x265-params "
           "bframes=0:keyint=10:min-keyint=10:open-gop=1:log-level=error");
    const Outcome hevc = Kxmux("--fps stream --video " + Path("cra.hevc") + " -o " + Path("c.mp4"));
    EXPECT_THAT(hevc.out, HasSubstr("160x96, 25 fps: 30 frames"));
    const Lines flags = Probe("packet=flags", Path("c.mp4"));
    EXPECT_EQ(std::count(flags.begin(), flags.end(), "K_"), 3);
}

/// kxmux in a folder with the samples in.h264 and in.aac, so that paths can be short.
class CommandLines : public ::testing::Test {
protected:
    CommandLines() {
        std::filesystem::copy_file(Sample("h264.h264"), Path("in.h264"));
        std::filesystem::copy_file(Sample("audio.aac"), Path("in.aac"));
    }
    std::string Path(const std::string& name) const { return m_folder.Path(name); }
    bool Exists(const std::string& name) const { return std::filesystem::exists(Path(name)); }
    void Write(const std::string& name, const std::string& bytes) const {
        std::ofstream(Path(name), std::ios::binary) << bytes;
    }
    /// Runs a line of the shell in the folder; KXMUX stands for the program.
    Outcome Run(const std::string& line) const {
        return Execute("export KXMUX='" KXMUX_PATH "'; cd " + Path("") + " && { " + line + "; }");
    }
    Outcome Record(const std::string& arguments) const { return Run("$KXMUX " + arguments); }
    /// Waits for a condition of the shell, but not for ever.
    static std::string Until(const std::string& condition) {
        return "for i in $(seq 200); do " + condition + " && break; sleep 0.05; done; ";
    }

private:
    ScratchFolder m_folder;
};

/// One line, and an exit code that says so.
void ExpectLine(const Outcome& outcome, int code, const std::string& part) {
    EXPECT_EQ(outcome.code, code) << outcome.errors;
    EXPECT_EQ(SplitLines(outcome.errors).size(), 1U) << outcome.errors;
    EXPECT_THAT(outcome.errors, AllOf(StartsWith("kxmux: "), HasSubstr(part)));
}

TEST_F(CommandLines, ThatCannotBeRecordedAreRefusedInOneLine) {
    const std::string start = "-o out.mp4 ";
    const std::string video = "--video in.h264 ";
    const std::string whole = start + video + "--fps 25 ";
    const struct {
        std::string arguments;
        int code;
        const char* line;
    } rows[] = {
        {start + "--fps 25 --video none.h264", 1, "none.h264: cannot be opened: No such file"},
        {start + "--fps 25 --video in.x", 2, "in.x: unknown extension; accepted: raw H.264 (.h264"},
        {start + "--fps 25 --video make.sh --video-codec hevc", 1,
         "make.sh: frame 0: no start code"},
        {start + "--fps 25 --video .", 2, "unknown extension"},
        {start + "--fps 25 --video empty.h264", 1, "frame 0: no picture with its parameter sets"},
        {start + video, 2, "--fps: is required with --video: N or N/D, or stream"},
        {start + video + "--fps 29.97", 2, "29.97: write it as 30000/1001"},
        {start + video + "--fps 23.976", 2, "write it as 24000/1001"},
        {start + video + "--fps fast", 2, "not N or N/D"},
        {start + "--fps stream --video untimed.prores", 1, "does not tell its frame rate"},
        {start, 2, "nothing to record; give --video or --audio"},
        {start + "--audio in.aac --fps 25", 2, "--fps requires --video"},
        {start + "--audio empty.aac", 1, "empty.aac: frame 0: the input is empty"},
        {start + "--fps 25 --video - --video-codec h264 --audio - <in.h264", 1,
         "-: standard input can be one input only"},
        {"-o - " + video + "--fps 25", 1, "cannot go to standard output; it must be a file"},
        {"-o . " + video + "--fps 25", 1, ".: is a folder; name the file to be made in it"},
        {"-o pipe " + video + "--fps 25", 1, "pipe: is a pipe; the recording must be a file"},
        {"-o none/out.mp4 " + video + "--fps 25", 1, "none/out.mp4: cannot be created: No such"},
        {"-o taken.mp4 " + video + "--fps 25", 1, "taken.mp4: is there already; --overwrite"},
        {"-o link.mp4 " + video + "--fps 25", 1, "link.mp4: is there already; --overwrite"},
        {"-o left.mp4 " + video + "--fps 25", 1, "left.mp4.info: is there already, of a recording"},
        {"-o ./in.h264 --overwrite " + video + "--fps 25", 1, "is an input and would be overwrit"},
        {"-o in.aac --overwrite --video - --video-codec h264 --fps 25 <in.aac", 1, "is an input"},
        {whole + "--format avi", 2, "--format: avi not in {"},
        {whole + "--timecode 01:00:00:25", 2, "frame 25 does not exist at 25"},
        {start + video + "--fps stream --timecode 01:00:00:25", 1, "frame 25 does not exist at 25"},
        {whole + ">/dev/full", 1, "standard output cannot be written"},
        {"--help >/dev/full", 1, "standard output cannot be written"},
        {whole + "--overwrite >&-", 1, "standard output cannot be written"},
    };
    std::filesystem::copy_file(Sample("make.sh"), Path("make.sh"));
    std::filesystem::copy_file(Sample("prores422.prores"), Path("untimed.prores"));
    for (const char* file : {"empty.h264", "empty.aac", "in.x", "left.mp4.info"})
        Write(file, "");
    Write("taken.mp4", "kept");
    ASSERT_EQ(Run("mkfifo pipe; ln -s nowhere link.mp4").code, 0);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.arguments);
        EXPECT_FALSE(Exists("out.mp4")) << "left by the row before";
        ExpectLine(Record(row.arguments), row.code, row.line);
        if (row.arguments.find("/dev/full") != std::string::npos) Run("rm -f out.mp4");
    }
    EXPECT_EQ(ReadFile(Path("taken.mp4")), "kept");
    EXPECT_TRUE(ReadFile(Path("in.h264")) == ReadFile(Sample("h264.h264")));
    EXPECT_TRUE(ReadFile(Path("in.aac")) == ReadFile(Sample("audio.aac")));
    EXPECT_THAT(Record("--help").out, HasSubstr("HEVC (.h265 .265 .hevc .hvc)"));
}

TEST_F(CommandLines, InputsAreLookedAt) {
    std::string packets;
    for (int i = 0; i < 20; ++i)
        packets += "\x47" + std::string(187, i % 2 == 0 ? '\0' : '\1');
    const struct {
        std::string head;
        const char* name;
    } rows[] = {
        {packets, "an MPEG transport stream"},
        {"in the middle of a packet" + packets, "an MPEG transport stream"},
        {std::string("\0\0\0\x18", 4) + "ftypisom", "an MP4 or QuickTime file"},
        {std::string("\0\0\0\x18", 4) + "moov", "a QuickTime movie"},
        {"\x1A\x45\xDF\xA3....", "a Matroska or WebM file"},
        {"RIFF....WAVEfmt ", "a WAV file"},
        {"RIFF....AVI LIST", "an AVI file"},
        {"FLV\1....", "an FLV file"},
        {"OggS....", "an Ogg file"},
        {"DKIF....", "an IVF file"},
        {std::string("\0\0\1\xBA", 4) + "....", "an MPEG program stream"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Write("foreign.h264", row.head);
        ExpectLine(
            Record("-o out.mp4 --fps 25 --video foreign.h264"), 1,
            std::string("foreign.h264: is ") + row.name + " and not a raw H.264 stream; acc");
        ExpectLine(Record("-o out.mp4 --audio foreign.h264"), 1,
                   std::string("is ") + row.name + "; accepted: AAC in ADTS (.aac .adts)");
    }
    ExpectLine(Record("-o out.mp4 --fps 25 --video in.h264 --video-codec hevc"), 1,
               "is an H.264 stream and not a raw HEVC");
    ExpectLine(Record("-o out.mp4 --fps 25 --video-codec h264 --video " + Sample("hevc.hevc")), 1,
               "is an HEVC stream and not a raw H.264");
    ExpectLine(Record("-o out.mp4 --fps 25 --video-codec h264 --video in.aac"), 1, "an AAC stream");
    ExpectLine(Record("-o out.mp4 --audio in.h264"), 1, "is a raw video stream; accepted: AAC");
}

TEST_F(CommandLines, TheKindIsTheFormatOrTheExtensionWhateverThePathSays) {
    std::filesystem::create_directory(Path("movies"));
    const struct {
        const char* arguments;
        const char* path;
        const char* brand;
    } rows[] = {{"", "movies/a.mp4", "isom"},
                {"", "remove.mp4", "isom"},
                {"", "movies/move.mp4", "isom"},
                {"", "a.qt", "qt  "},
                {"", "a.MOV", "qt  "},
                {"--format mov", "b.mp4", "qt  "},
                {"--format mov", "movies/b", "qt  "},
                {"--format mp4", "c.mov", "isom"},
                {"--format mp4 --no-repair", "movies/d.mov", "isom"},
                {"--format mov --buffered", "d.mp4", "qt  "}};
    for (const auto& row : rows) {
        const Outcome outcome = Record("--fps stream --video in.h264 -o " + std::string(row.path) +
                                       " " + row.arguments);
        EXPECT_EQ(outcome.code, 0) << outcome.errors;
        EXPECT_EQ(ReadFile(Path(row.path)).substr(8, 4), row.brand) << row.path;
        const bool movie = std::string(row.brand) == "qt  ";
        EXPECT_THAT(outcome.out, HasSubstr(movie ? ": QuickTime movie" : ": MP4 file"));
    }
    // Nothing else is left, and while it is written the repair info file has the output's name.
    const Outcome live =
        Run("rm *.mp4 *.qt *.mov *.MOV; (cat in.h264; " + Until("[ -s remove.mp4.info ]") +
            // The shell goes on holding the pipe while ls runs.
            "ls -A >&2; :) | $KXMUX -o remove.mp4 --fps 25 --video-codec h264 --video -; ls -A");
    EXPECT_THAT(SplitLines(live.errors),
                ElementsAre("in.aac", "in.h264", "movies", "remove.mp4", "remove.mp4.info"));
    EXPECT_THAT(live.out, EndsWith("\nin.aac\nin.h264\nmovies\nremove.mp4\n"));
}

TEST_F(CommandLines, WarningsSayWhatMayBeWrong) {
    ExpectLine(Record("-o a.mp4 --fps 24 --video in.h264"), 0,
               "in.h264: the stream says 25 frames per second, recorded at 24; --fps stream takes");
    ExpectLine(Record("-o b.mp4 --fps 25 --video " + Sample("prores422.prores")), 0,
               "b.mp4: few players take ProRes in an MP4 file; --format mov makes");
    ExpectLine(Record("-o c.mp4 --fps 25 --buffered --video in.h264"), 0,
               "c.mp4.info: with --buffered, the newest 1024 KiB of the recording are not protec");
    // A FIFO takes no sync: the repair info file fails, and the recording does not.
    const Outcome unprotected =
        Run("mkfifo d.mp4.info; exec 3<>d.mp4.info; "
            "$KXMUX -o d.mp4 --overwrite --fps 25 --video in.h264");
    ExpectLine(unprotected, 1, "d.mp4.info: cannot be written: MP4_STATUS_");
    EXPECT_THAT(unprotected.out, AllOf(HasSubstr("75 frames"), HasSubstr("it was not protected")));
    ASSERT_EQ(Record("-o e.mp4 --fps 25 --video in.h264").code, 0);
    EXPECT_TRUE(ReadFile(Path("d.mp4")) == ReadFile(Path("e.mp4")));
}

TEST_F(CommandLines, InputsThatAreCutOffAreRecordedUpToThere) {
    const std::string audio = ReadFile(Path("in.aac"));
    const std::string video = ReadFile(Path("in.h264"));
    Write("cut.aac", audio.substr(0, audio.size() / 2));
    Write("cut.h264", video + std::string("\0\0\0\1\x41", 5));
    Write("next.h264", video + std::string("\0\0\0\1\x09\xF0", 6));
    Write("code.h264", video + std::string("\0\0\1", 3));
    const struct {
        std::string inputs;
        const char* line;
        const char* video;
        const char* audio;
    } rows[] = {
        {"--video in.h264 --audio cut.aac", "cut.aac: frame 71: cut off: ", ": 75 fr", ": 71 fr"},
        {"--video cut.h264 --audio in.aac", "frame 75: cut off before its picture", ": 75 fr",
         ": 142 fr"},
        {"--video next.h264 --audio in.aac", "frame 75: cut off before its picture", ": 75 fr",
         ": 142 fr"},
        {"--video code.h264 --audio in.aac", "frame 75: cut off before its picture", ": 75 fr",
         ": 142 fr"}};
    for (const auto& row : rows) {
        const Outcome outcome = Record("-o out.mp4 --overwrite --fps 25 " + row.inputs);
        ExpectLine(outcome, 1, row.line);
        EXPECT_THAT(outcome.errors, HasSubstr("; its track ends there\n"));
        EXPECT_THAT(outcome.out, AllOf(HasSubstr(row.video), HasSubstr(row.audio)));
    }
}

TEST_F(CommandLines, AFullDeviceLeavesAnOutputThatIsCalledUnfinished) {
    for (const char* mode : {"", "--callback-io", "--buffered"}) {
        const Outcome outcome =
            Record(std::string("-o /dev/full --fps 25 --video in.h264 ") + mode);
        ExpectLine(outcome, 1, "/dev/full is unfinished");
        EXPECT_THAT(outcome.errors, AllOf(HasSubstr("/dev/full: "), HasSubstr("NO_SPACE_LEFT")));
    }
    const Outcome limited = Run("ulimit -f 40; $KXMUX -o \"it's.mp4\" --fps 25 --video in.h264");
    ExpectLine(limited, 1, "it's.mp4 is unfinished, it has no index; repair it with: kxrepair ");
    EXPECT_THAT(limited.errors, EndsWith("kxrepair 'it'\\''s.mp4'\n"));
    EXPECT_TRUE(Exists("it's.mp4.info"));
    ExpectLine(Run("ulimit -f 1; $KXMUX -o none.mp4 --fps 25 --video in.h264"), 1,
               "; nothing was recorded");
    EXPECT_FALSE(Exists("none.mp4") || Exists("none.mp4.info"));
}

TEST_F(CommandLines, PipesOfOneWriterDoNotWaitForEachOther) {
    // In turn, each time more than a pipe holds; one program opens both before it writes.
    const Outcome outcome =
        Run("mkfifo v a; for i in 1 2 3 4 5 6; do cat in.h264; done >v6; "
            "for i in 1 2 3 4 5 6; do cat in.aac; done >a6; "
            "{ exec 3>v 4>a; cat v6 >&3; cat a6 >&4; cat v6 >&3; cat a6 >&4; } & "
            "timeout 20 $KXMUX -o out.mp4 --fps 25 --video-codec h264 --video v --audio a; "
            "code=$?; wait; exit $code");
    EXPECT_EQ(outcome.code, 0) << outcome.errors;
    EXPECT_THAT(outcome.out, AllOf(HasSubstr(": 900 frames"), HasSubstr(": 1704 frames")));
}

TEST_F(EndToEnd, SoundAloneIsRecorded) {
    const Outcome outcome = Kxmux("-o " + Path("out.mp4") + " --audio - <" + Sample("audio.aac"));
    EXPECT_EQ(outcome.code, 0) << outcome.errors;
    EXPECT_THAT(Probe("stream=codec_name", Path("out.mp4")), ElementsAre("aac"));
    EXPECT_EQ(DecodedFrames("-i " + Path("out.mp4"), "a"),
              DecodedFrames("-i " + Sample("audio.aac"), "a"));
}

// The writer of the pipe goes on for longer than the test takes.
TEST_F(CommandLines, SignalsEndTheRecordingProperlyAndASecondOneAtOnce) {
    const std::string start =
        "rm -f out.mp4*; mkfifo v; (cat in.h264; sleep 5) >v & "
        "$KXMUX -o out.mp4 --fps 25 --video-codec h264 --video v & p=$!; " +
        Until("[ -s out.mp4.info ]") + "sleep 0.5; ";
    const std::string end = "; wait $p; code=$?; rm v; exit $code";
    for (const auto& [signal, code] : {std::pair("INT", 130), std::pair("TERM", 143)}) {
        const Outcome outcome = Run(start + "kill -" + signal + " $p" + end);
        EXPECT_EQ(outcome.code, code) << outcome.errors;
        EXPECT_THAT(outcome.errors, IsEmpty());
        EXPECT_THAT(outcome.out, AllOf(HasSubstr(": 74 frames"), HasSubstr("ended by a signal")));
        EXPECT_FALSE(Exists("out.mp4.info"));
        EXPECT_THAT(ReadFile(Path("out.mp4")), HasSubstr("moov"));
    }
    // Both are there when the program goes on, in the order of their numbers.
    ExpectLine(Run(start + "kill -STOP $p; kill -INT $p; kill -TERM $p; kill -CONT $p" + end), 143,
               "out.mp4: is unfinished, it has no index; repair it with: kxrepair out.mp4");
    EXPECT_TRUE(Exists("out.mp4.info"));

    ExpectLine(Run("rm -f out.mp4*; mkfifo v; $KXMUX -o out.mp4 --fps 25 --video-codec h264 "
                   "--video v & p=$!; " +
                   Until("ls -l /proc/$p/fd | grep -q /v$") + "kill -TERM $p" + end),
               143, "interrupted, nothing was recorded");
    EXPECT_FALSE(Exists("out.mp4"));
}

}  // namespace
