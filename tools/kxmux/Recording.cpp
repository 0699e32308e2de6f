#include "Recording.h"

#include <sys/stat.h>

#include <cstdio>

#include "FileCallbacks.h"
#include "WidePath.h"
#include "kx_mp4/buffered_io.h"

namespace kxmux {
namespace {

/// Inputs that together are larger may not fit 32-bit offsets with what the boxes add.
constexpr uint64_t kMax32bitInput = 0xFF000000;

bool IsSameFile(const std::string& a, const std::string& b) {
    struct stat statusA {};
    struct stat statusB {};
    return ::stat(a.c_str(), &statusA) == 0 && ::stat(b.c_str(), &statusB) == 0 &&
           statusA.st_dev == statusB.st_dev && statusA.st_ino == statusB.st_ino;
}

uint64_t FileSize(const std::string& path) {
    struct stat status {};
    const bool isFile = ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    return isFile ? static_cast<uint64_t>(status.st_size) : 0;
}

/// Opens an input; its faults are told under its name.
template <class Open>
auto OpenInput(const std::string& path, Open open) {
    try {
        return open();
    } catch (const StreamError& error) {
        throw RecordingError(path + ": " + error.what());
    }
}

std::string Format(const char* format, double value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string TrackLine(const std::string& kind, const std::string& what, uint64_t frames,
                      const MediaTime& duration, double kibPerSecond) {
    constexpr double kKilobitsPerKib = 8.192;
    return "  " + kind + what + ": " + std::to_string(frames) + " frames, " +
           Format("%.3f s, ", duration.Seconds()) +
           Format("%.0f kbit/s\n", kibPerSecond * kKilobitsPerKib);
}

std::string NoteLine(const std::string& note) {
    return note.empty() ? "" : "  note: " + note + "\n";
}

}  // namespace

Recording::Recording(RecordingOptions options) : m_options(std::move(options)) {}

void Recording::Run(const std::function<void(const Progress&)>& report) {
    OpenInputs();
    CheckOutput();
    Create();
    try {
        Declare();
        WriteFrames(report);
    } catch (const RecordingError& error) {
        throw RecordingError(error.what() + HowItWasLeft());
    }
    Finish();
}

void Recording::OpenInputs() {
    const auto& video = m_options.video;
    m_video = OpenInput(video.path, [&] { return VideoFeed::Open(video); });
    m_feeds.push_back(m_video.get());
    if (!m_options.audio.empty()) {
        m_audio = OpenInput(m_options.audio, [&] {
            return std::make_unique<AudioFeed>(m_options.audio, video.deferred);
        });
        m_feeds.push_back(m_audio.get());
    }
    if (!m_options.captions.empty()) {
        const uint32_t timescale = TicksOf(video.rate).timescale;
        m_captions = std::make_unique<CaptionFeed>(m_options.captions, timescale);
        m_feeds.push_back(m_captions.get());
    }
    for (const TrackFeed* feed : m_feeds) {
        m_inputSize += FileSize(feed->Path());
    }
}

void Recording::CheckOutput() const {
    for (const TrackFeed* feed : m_feeds) {
        if (IsSameFile(feed->Path(), m_options.output)) {
            throw RecordingError(m_options.output + ": is an input and would be overwritten");
        }
    }
}

uint32_t Recording::Flags() const {
    uint32_t flags = 0;
    if (m_options.use64bit) flags |= MP4_FLAG_64BIT_TIME | MP4_FLAG_64BIT_SIZE;
    if (m_inputSize > kMax32bitInput) flags |= MP4_FLAG_64BIT_SIZE;
    if (m_options.repairInfo) flags |= MP4_FLAG_REPAIR_INFO;
    return flags;
}

void Recording::Create() {
    const auto path = WidenPath(m_options.output);
    if (!path) throw RecordingError(m_options.output + ": no locale can spell this path");
    m_widePath = *path;

    mp4_config_t config = {};
    config.flags = Flags();
    if (m_options.mode != OutputMode::kFile) config.io_mode = MP4_IO_EXTERNAL;
    if (m_options.mode == OutputMode::kCallbacks) config.func = FileCallbacks();
    if (m_options.mode == OutputMode::kBuffered) config.func = kx_mp4_buffered_io();
    Require(m_muxer.Create(m_widePath.c_str(), &config), m_options.output + ": cannot be created");
}

void Recording::Declare() {
    for (TrackFeed* feed : m_feeds) {
        Require(feed->Declare(m_muxer), feed->Path() + ": the track is refused");
    }
    if (m_options.timecode) {
        const mp4_time_code_track_info_t info = m_options.timecode->TrackInfo();
        Require(m_muxer.SetTCMDTrack(&info), m_options.output + ": the timecode track is refused");
    }
    for (const auto& [key, value] : m_options.metadata) {
        Require(
            m_muxer.SetMetadata(key.c_str(), value.c_str(), 0, MP4_META_DATA_TYPE_STRING, nullptr),
            m_options.output + ": metadata '" + key + "' is refused");
    }
}

void Recording::WriteFrames(const std::function<void(const Progress&)>& report) {
    if (m_options.timecode) {
        Require(m_muxer.WriteTimeCode(m_options.timecode->FrameCount()),
                m_options.output + ": timecode");
    }
    while (TrackFeed* feed = Earliest()) {
        const uint64_t frame = feed->Frames();
        const mp4_status_t status = feed->Write(m_muxer);
        if (status != MP4_STATUS_SUCCESS) {
            Require(status,
                    m_options.output + ": frame " + std::to_string(frame) + " of " + feed->Path());
        }
        report(Now());
    }
}

/// The input whose next frame comes first; null when video and audio are at their end. Captions
/// for a time after that have nothing to be shown on.
TrackFeed* Recording::Earliest() {
    TrackFeed* earliest = nullptr;
    bool onlyCaptions = true;
    for (TrackFeed* feed : m_feeds) {
        if (!feed->Prepare()) continue;
        onlyCaptions = onlyCaptions && feed == m_captions.get();
        if (earliest == nullptr || IsEarlier(feed->NextTime(), earliest->NextTime())) {
            earliest = feed;
        }
    }
    return onlyCaptions ? nullptr : earliest;
}

Progress Recording::Now() {
    return {m_video->NextTime().Seconds(), m_video->Frames(), m_muxer.GetCurFileSize()};
}

void Recording::Finish() {
    m_durationMs = m_muxer.GetDurationMS();
    m_videoBitrate = m_muxer.GetVideoBitrate();
    m_audioBitrate = m_muxer.GetAudioBitrate();
    const mp4_status_t status = m_muxer.Close();
    if (status != MP4_STATUS_SUCCESS) {
        const std::string kept =
            m_options.repairInfo ? "; " + m_options.output + ".info is kept for its repair" : "";
        throw RecordingError(m_options.output + ": cannot be closed: " + mp4_status_string(status) +
                             "; " + m_options.output + " is unfinished, it has no index" + kept);
    }
}

/// Closes the output after a failure and says what is in it.
std::string Recording::HowItWasLeft() {
    const std::string& output = m_options.output;
    if (m_muxer.Close() == MP4_STATUS_SUCCESS) {
        return "; " + output + " is unfinished, it holds " + std::to_string(m_video->Frames()) +
               " video frames from before";
    }
    const std::string kept =
        m_options.repairInfo ? "; " + output + ".info is kept for its repair" : "";
    return "; " + output + " is unfinished, it has no index" + kept;
}

void Recording::Require(mp4_status_t status, const std::string& subject) const {
    if (status != MP4_STATUS_SUCCESS)
        throw RecordingError(subject + ": " + mp4_status_string(status));
}

std::string Recording::Summary() const {
    // The muxer decides by the same test.
    const bool quickTime = m_widePath.find(L"mov") != std::wstring::npos;
    const uint64_t size = FileSize(m_options.output);
    std::string text = m_options.output + ": " + (quickTime ? "QuickTime movie" : "MP4 file") +
                       Format(", %.3f s, ", static_cast<double>(m_durationMs) / 1000) +
                       std::to_string(size) + " bytes\n";
    text += TrackLine("video     ", m_video->Describe(), m_video->Frames(), m_video->Duration(),
                      m_videoBitrate);
    text += NoteLine(m_video->Note());
    if (m_audio) {
        text += TrackLine("audio     ", m_audio->Describe(), m_audio->Frames(), m_audio->Duration(),
                          m_audioBitrate);
        text += NoteLine(m_audio->Note());
    }
    if (m_captions) {
        text += "  captions  CEA-608: " + std::to_string(m_captions->Frames()) + " packets\n";
        if (m_captions->Left() > 0) {
            text += NoteLine(std::to_string(m_captions->Left()) +
                             " caption packets after the end of picture and sound left out");
        }
    }
    if (m_options.timecode) text += "  timecode  from " + m_options.timecodeText + "\n";
    return text;
}

}  // namespace kxmux
