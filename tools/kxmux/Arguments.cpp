#include "Arguments.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <map>

#include "InputFormat.h"

namespace kxmux {
namespace {

constexpr double kMillisecondsPerSecond = 1000;
/// More than any encoder has.
constexpr uint32_t kMaxPriming = 100000;

/// The whole text as a decimal number from 1 to `max`.
bool ParseNumber(std::string_view text, uint32_t max, uint32_t* value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && end == text.data() + text.size() && *value >= 1 && *value <= max;
}

const std::map<std::string, mp4_video_codec>& Codecs() {
    static const std::map<std::string, mp4_video_codec> codecs = {
        {"h264", MP4_MVC_H264}, {"hevc", MP4_MVC_HEVC}, {"prores", MP4_MVC_PRORES}};
    return codecs;
}

const std::map<std::string, mp4_prores_format>& ProResFormats() {
    static const std::map<std::string, mp4_prores_format> formats = {
        {"proxy", MP4_PRORES_422_proxy}, {"lt", MP4_PRORES_422_LT}, {"422", MP4_PRORES_422},
        {"hq", MP4_PRORES_422_HQ},       {"4444", MP4_PRORES_4444}, {"xq", MP4_PRORES_4444_XQ}};
    return formats;
}

const std::map<std::string, Container>& Containers() {
    static const std::map<std::string, Container> containers = {{"mp4", Container::kMp4},
                                                                {"mov", Container::kQuickTime}};
    return containers;
}

/// What to write in place of a rate that was not understood.
std::string AdviceOnRate(const std::string& text) {
    static const std::map<std::string, std::string> ratios = {
        {"23.976", "24000/1001"}, {"23.98", "24000/1001"}, {"29.97", "30000/1001"},
        {"47.952", "48000/1001"}, {"59.94", "60000/1001"}, {"119.88", "120000/1001"}};
    const auto known = ratios.find(text);
    if (known != ratios.end()) return "write it as " + known->second;
    return "not N or N/D, such as 25 or 30000/1001";
}

}  // namespace

bool ParseFrameRate(std::string_view text, FrameRate* rate) {
    constexpr uint32_t kMax = 1U << 31;
    const size_t slash = text.find('/');
    rate->den = 1;
    if (!ParseNumber(text.substr(0, slash), kMax, &rate->num)) return false;
    return slash == std::string_view::npos || ParseNumber(text.substr(slash + 1), kMax, &rate->den);
}

bool ParsePictureSize(std::string_view text, PictureSize* size) {
    constexpr uint32_t kMax = 65535;
    const size_t cross = text.find('x');
    uint32_t width = 0;
    uint32_t height = 0;
    if (cross == std::string_view::npos || !ParseNumber(text.substr(0, cross), kMax, &width) ||
        !ParseNumber(text.substr(cross + 1), kMax, &height)) {
        return false;
    }
    *size = {static_cast<uint16_t>(width), static_cast<uint16_t>(height)};
    return true;
}

bool ParseLimit(std::string_view text, uint64_t* milliseconds, uint64_t* bytes) {
    static const std::map<std::string_view, uint64_t> times = {
        {"ms", 1}, {"s", 1000}, {"m", 60000}, {"h", 3600000}};
    static const std::map<std::string_view, uint64_t> sizes = {
        {"K", uint64_t{1} << 10}, {"M", uint64_t{1} << 20}, {"G", uint64_t{1} << 30}};
    const size_t unit = text.find_first_not_of("0123456789");
    uint32_t number = 0;
    constexpr uint32_t kMax = 1000000;
    if (unit == std::string_view::npos || !ParseNumber(text.substr(0, unit), kMax, &number))
        return false;
    const auto time = times.find(text.substr(unit));
    const auto size = sizes.find(text.substr(unit));
    *milliseconds = time != times.end() ? number * time->second : 0;
    *bytes = size != sizes.end() ? number * size->second : 0;
    return *milliseconds != 0 || *bytes != 0;
}

void Arguments::AddTo(CLI::App& app) {
    AddInputs(app);
    AddDescription(app);
    AddPresentation(app);
    AddOutput(app);
    app.footer(
        "Ctrl-C ends the recording properly. Exit status: 0 the recording is complete, 1 it "
        "is not or could not be made, 2 the command line is wrong, 130 or 143 it was ended "
        "by Ctrl-C or SIGTERM.");
}

void Arguments::AddInputs(CLI::App& app) {
    app.add_option("--video", m_video,
                   "Video: " + AcceptedVideo() + "; - is standard input, here and below");
    app.add_option("--audio", m_audio, "Sound: " + AcceptedAudio());
    app.add_option("--captions", m_captions, "Scenarist closed captions (.scc)");
}

void Arguments::AddDescription(CLI::App& app) {
    auto* const video = app.get_option("--video");
    app.add_option("--fps", m_fps,
                   "Frames per second of the video, N or N/D: 25, 30000/1001; stream for the rate "
                   "that the stream tells")
        ->needs(video);
    app.add_option("--timecode", m_timecode,
                   "Timecode of the first frame, HH:MM:SS:FF; a semicolon before the frames means "
                   "drop frame")
        ->needs(video);
    app.add_option("--size", m_size, "Picture size WxH instead of the stream's own")->needs(video);
    app.add_option("--video-codec", m_codec, "Instead of what the extension says")
        ->check(CLI::IsMember(Codecs()))
        ->needs(video);
    app.add_option("--prores-format", m_proresFormat,
                   "ProRes flavour; 422 or 4444 by the frames' chroma format when not given")
        ->check(CLI::IsMember(ProResFormats()))
        ->needs(video);
    app.add_option("--meta", m_metadata, "Metadata item KEY=VALUE; repeatable")
        ->allow_extra_args(false);
    app.add_flag("--deferred", m_deferred,
                 "Declare the tracks without configuration, to be found in the stream");
    app.add_flag("--no-composition-offsets", m_noCompositionOffsets,
                 "Show reordered frames at their decode times");
}

void Arguments::AddPresentation(CLI::App& app) {
    app.add_option("--priming", m_priming,
                   "Samples at the beginning of the sound that are not to be heard; most encoders "
                   "of AAC LC put 1024 there, some 2112, and raw streams do not tell")
        ->check(CLI::Range(0U, kMaxPriming))
        ->type_name("SAMPLES")
        ->needs(app.get_option("--audio"));
    app.add_option("--rotate", m_rotation, "Degrees clockwise that players turn the picture by")
        ->check(CLI::IsMember({0U, 90U, 180U, 270U}))
        ->type_name("DEGREES")
        ->needs(app.get_option("--video"));
    app.add_flag("--plain", m_plain,
                 "Do not say when tracks begin, nor what the stream tells of pixel shape, fields, "
                 "colour and light")
        ->excludes("--priming");
    app.add_flag("--strict", m_strict,
                 "Boxes as the standard has them to the letter, for readers that take no others");
}

void Arguments::AddOutput(CLI::App& app) {
    app.add_option("-o,--output", m_output, "The recording, a file")->required();
    app.add_option("--format", m_format,
                   "MP4 file or QuickTime movie; by the extension when not given: .mov and .qt "
                   "are movies")
        ->check(CLI::IsMember(Containers()));
    app.add_flag("--overwrite", m_overwrite, "Replace an output that is there already");
    auto* const noRepair = app.add_flag(
        "--no-repair", m_noRepair,
        "Keep no repair info file (OUTPUT.info, for kxrepair) beside the output while recording");
    app.add_flag("--repair", "Keep one, which is the default")->excludes(noRepair);
    app.add_option("--live", m_liveSeconds,
                   "Keep the output playable at every moment: an index of what came every SECONDS")
        ->check(CLI::Range(0.001, 86400.0))
        ->type_name("SECONDS");
    app.add_option("--segment", m_segment,
                   "Begin a new file every 60s (ms, s, m, h) or 500M (K, M, G) at a key frame; the "
                   "files are OUTPUT with -0000, -0001 ... before its extension, or by the %i and "
                   "strftime conversions in it");
    app.add_option("--queue", m_queue, "Room for frames that wait for the storage, 8M (K, M, G)");
    app.add_option("--on-full", m_onFull,
                   "When it is full: wait, which holds up the inputs, or drop pictures up to the "
                   "next key frame")
        ->check(CLI::IsMember({"wait", "drop"}));
    app.add_flag("--64bit", m_64bit, "64-bit sizes and times");
    auto* const callbacks = app.add_flag("--callback-io", m_callbackIo, "Write through callbacks");
    app.add_flag("--buffered", m_buffered, "Write through the library's buffered file output")
        ->excludes(callbacks);
}

mp4_video_codec Arguments::VideoCodec() const {
    if (!m_codec.empty()) return Codecs().at(m_codec);
    const mp4_video_codec codec = CodecOfExtension(m_video);
    if (codec == MP4_MVC_UNKNOWN) {
        throw CLI::ValidationError(
            "--video", m_video + ": unknown extension; accepted: " + AcceptedVideo() +
                           "; or say which codec it is with --video-codec h264|hevc|prores");
    }
    return codec;
}

VideoOptions Arguments::Video() const {
    VideoOptions video;
    video.path = m_video;
    video.codec = VideoCodec();
    video.deferred = m_deferred;
    video.compositionOffsets = !m_noCompositionOffsets;
    if (!m_proresFormat.empty()) video.proResFormat = ProResFormats().at(m_proresFormat);
    if (m_fps.empty()) {
        throw CLI::ValidationError("--fps",
                                   "is required with --video: N or N/D, or stream for the "
                                   "rate that the stream tells");
    }
    if (m_fps != "stream" && !ParseFrameRate(m_fps, &video.rate.emplace())) {
        throw CLI::ValidationError("--fps", m_fps + ": " + AdviceOnRate(m_fps));
    }
    if (!m_size.empty() && !ParsePictureSize(m_size, &video.size.emplace())) {
        throw CLI::ValidationError("--size", m_size + ": not WxH, such as 1920x1080");
    }
    return video;
}

OutputOptions Arguments::Output() const {
    OutputOptions output;
    output.path = m_output;
    if (!m_format.empty()) output.container = Containers().at(m_format);
    if (m_callbackIo) output.mode = OutputMode::kCallbacks;
    if (m_buffered) output.mode = OutputMode::kBuffered;
    output.overwrite = m_overwrite;
    output.repairInfo = !m_noRepair;
    return output;
}

LiveOptions Arguments::Live() const {
    LiveOptions live;
    live.wanted = !m_segment.empty() || !m_queue.empty() || !m_onFull.empty();
    if (live.wanted && (m_callbackIo || m_buffered))
        throw CLI::ValidationError("--segment, --queue, --on-full",
                                   "not together with --callback-io or --buffered");
    constexpr uint64_t kLeastMs = 100;
    constexpr uint64_t kLeastBytes = uint64_t{64} << 10;
    const bool hasSegment =
        m_segment.empty() || (ParseLimit(m_segment, &live.segmentMs, &live.segmentBytes) &&
                              (live.segmentMs >= kLeastMs || live.segmentBytes >= kLeastBytes));
    if (!hasSegment)
        throw CLI::ValidationError("--segment", m_segment +
                                                    ": not such as 60s or 500M, at least "
                                                    "100ms or 64K");
    uint64_t time = 0;
    const bool hasQueue = m_queue.empty() || (ParseLimit(m_queue, &time, &live.queueBytes) &&
                                              live.queueBytes >= kLeastBytes);
    if (!hasQueue)
        throw CLI::ValidationError("--queue", m_queue + ": not such as 8M, at least 64K");
    live.drop = m_onFull == "drop";
    return live;
}

PresentationOptions Arguments::Presentation() const {
    PresentationOptions presentation;
    presentation.fromStream = !m_plain;
    presentation.audioPriming = m_priming;
    presentation.rotation = m_rotation;
    presentation.strictForm = m_strict;
    return presentation;
}

RecordingOptions Arguments::Options() const {
    RecordingOptions options;
    if (m_video.empty() && m_audio.empty()) {
        throw CLI::ValidationError("inputs", "nothing to record; give --video or --audio or both");
    }
    options.output = Output();
    if (!m_video.empty()) options.video = Video();
    options.video.deferred = m_deferred;
    options.timecode = m_timecode;
    std::string error;
    const bool checkable = !m_timecode.empty() && options.video.rate;
    if (checkable && !Timecode().Parse(m_timecode, *options.video.rate, &error)) {
        throw CLI::ValidationError("--timecode", error);
    }
    for (const std::string& item : m_metadata) {
        const size_t equals = item.find('=');
        if (equals == 0 || equals == std::string::npos) {
            throw CLI::ValidationError("--meta", item + ": not KEY=VALUE");
        }
        options.metadata.emplace_back(item.substr(0, equals), item.substr(equals + 1));
    }
    options.audio = m_audio;
    options.captions = m_captions;
    options.use64bit = m_64bit;
    options.live = Live();
    options.presentation = Presentation();
    options.liveIndexMs = static_cast<uint32_t>(m_liveSeconds * kMillisecondsPerSecond);
    return options;
}

}  // namespace kxmux
