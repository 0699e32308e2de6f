#include "Arguments.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <charconv>
#include <map>

namespace kxmux {
namespace {

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

mp4_video_codec CodecOfExtension(std::string_view path) {
    static const std::map<std::string, mp4_video_codec> extensions = {
        {"h264", MP4_MVC_H264}, {"264", MP4_MVC_H264},      {"avc", MP4_MVC_H264},
        {"h265", MP4_MVC_HEVC}, {"265", MP4_MVC_HEVC},      {"hevc", MP4_MVC_HEVC},
        {"hvc", MP4_MVC_HEVC},  {"prores", MP4_MVC_PRORES}, {"icpf", MP4_MVC_PRORES}};
    const size_t dot = path.rfind('.');
    if (dot == std::string_view::npos) return MP4_MVC_UNKNOWN;
    std::string extension(path.substr(dot + 1));
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    const auto found = extensions.find(extension);
    return found == extensions.end() ? MP4_MVC_UNKNOWN : found->second;
}

void Arguments::AddTo(CLI::App& app) {
    app.add_option("-o,--output", m_output,
                   "The recording; a QuickTime movie when the path contains \"mov\" anywhere")
        ->required();
    app.add_option("--video", m_video, "Raw H.264 or HEVC (Annex B) or ProRes stream")->required();
    app.add_option("--fps", m_fps, "Frames per second, N or N/D: 25, 30000/1001")->required();
    app.add_option("--audio", m_audio, "AAC stream in ADTS");
    app.add_option("--captions", m_captions, "Scenarist closed captions (.scc)");
    app.add_option("--timecode", m_timecode,
                   "Timecode of the first frame, HH:MM:SS:FF; a semicolon before the frames means "
                   "drop frame");
    app.add_option("--size", m_size, "Picture size WxH instead of the stream's own");
    app.add_option("--video-codec", m_codec, "Instead of what the extension says")
        ->check(CLI::IsMember(Codecs()));
    app.add_option("--prores-format", m_proresFormat,
                   "ProRes flavour; 422 or 4444 by the frames' chroma format when not given")
        ->check(CLI::IsMember(ProResFormats()));
    app.add_option("--meta", m_metadata, "Metadata item KEY=VALUE; repeatable")
        ->allow_extra_args(false);
    app.add_flag("--64bit", m_64bit, "64-bit sizes and times");
    app.add_flag("--repair", m_repair, "Keep a repair info file beside the output while recording");
    app.add_flag("--deferred", m_deferred,
                 "Declare the tracks without configuration, to be found in the stream");
    app.add_flag("--no-composition-offsets", m_noCompositionOffsets,
                 "Show reordered frames at their decode times");
    auto* callbacks = app.add_flag("--callback-io", m_callbackIo, "Write through callbacks");
    app.add_flag("--buffered", m_buffered, "Write through the library's buffered file output")
        ->excludes(callbacks);
}

mp4_video_codec Arguments::VideoCodec() const {
    if (!m_codec.empty()) return Codecs().at(m_codec);
    const mp4_video_codec codec = CodecOfExtension(m_video);
    if (codec == MP4_MVC_UNKNOWN) {
        throw CLI::ValidationError("--video", m_video +
                                                  ": unknown extension; say which codec it is with "
                                                  "--video-codec h264|hevc|prores");
    }
    return codec;
}

RecordingOptions Arguments::Options() const {
    RecordingOptions options;
    options.output = m_output;
    options.video.path = m_video;
    options.video.codec = VideoCodec();
    options.video.deferred = m_deferred;
    options.video.compositionOffsets = !m_noCompositionOffsets;
    if (!m_proresFormat.empty()) options.video.proResFormat = ProResFormats().at(m_proresFormat);
    if (!ParseFrameRate(m_fps, &options.video.rate)) {
        throw CLI::ValidationError("--fps", m_fps + ": not N or N/D, such as 25 or 30000/1001");
    }
    if (!m_size.empty() && !ParsePictureSize(m_size, &options.video.size.emplace())) {
        throw CLI::ValidationError("--size", m_size + ": not WxH, such as 1920x1080");
    }
    if (!m_timecode.empty()) {
        std::string error;
        options.timecodeText = m_timecode;
        if (!options.timecode.emplace().Parse(m_timecode, options.video.rate, &error)) {
            throw CLI::ValidationError("--timecode", error);
        }
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
    if (m_callbackIo) options.mode = OutputMode::kCallbacks;
    if (m_buffered) options.mode = OutputMode::kBuffered;
    options.use64bit = m_64bit;
    options.repairInfo = m_repair;
    return options;
}

}  // namespace kxmux
