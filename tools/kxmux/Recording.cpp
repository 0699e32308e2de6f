#include "Recording.h"

#include <algorithm>
#include <cstdio>

#include "StopSignal.h"
#include "kx_mp4/buffered_io.h"

namespace kxmux {
namespace {

/// Inputs that together are larger may not fit 32-bit offsets with what the boxes add.
constexpr uint64_t kMax32bitInput = 0xFF000000;

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

Recording::Recording(RecordingOptions options)
    : m_options(std::move(options)), m_output(m_options.output) {}

RecordingResult Recording::Run(const Observer& observer) {
    m_observer = observer;
    OpenInputs();
    m_output.Check(m_inputs);
    OpenFeeds();
    ReadTimecode();
    WarnBeforehand();
    Create();
    try {
        Declare();
        WriteFrames();
    } catch (const std::exception& error) {
        throw RecordingError(error.what() + HowItWasLeft());
    }
    Finish();
    if (m_interrupted) return RecordingResult::kInterrupted;
    return m_flawed ? RecordingResult::kFlawed : RecordingResult::kComplete;
}

/// Opens all before any is read: a program that writes to two named pipes opens one after the
/// other, and waits at each for its reader.
void Recording::OpenInputs() {
    const auto open = [this](const std::string& path) -> Input* {
        if (path.empty()) return nullptr;
        return OpenInput(path, [&] { return &m_inputs.Open(path); });
    };
    m_videoInput = open(m_options.video.path);
    m_audioInput = open(m_options.audio);
    m_captionInput = open(m_options.captions);
}

void Recording::OpenFeeds() {
    if (m_videoInput != nullptr) {
        m_video = OpenInput(m_videoInput->Path(),
                            [&] { return VideoFeed::Open(m_options.video, *m_videoInput); });
        m_feeds.push_back(m_video.get());
    }
    if (m_audioInput != nullptr) {
        m_audio = OpenInput(m_audioInput->Path(), [&] {
            return std::make_unique<AudioFeed>(*m_audioInput, m_options.video.deferred);
        });
        m_feeds.push_back(m_audio.get());
    }
    if (m_captionInput != nullptr) {
        const uint32_t timescale = m_video ? m_video->Timescale() : SccFile::kTimescale;
        m_captions = OpenInput(m_captionInput->Path(), [&] {
            return std::make_unique<CaptionFeed>(*m_captionInput, timescale);
        });
        m_feeds.push_back(m_captions.get());
    }
}

void Recording::ReadTimecode() {
    if (m_options.timecode.empty()) return;
    std::string error;
    if (!m_timecode.emplace().Parse(m_options.timecode, m_video->Rate(), &error)) {
        throw RecordingError("--timecode: " + error);
    }
}

void Recording::WarnBeforehand() {
    if (m_video && m_options.video.codec == MP4_MVC_PRORES && !m_output.IsQuickTime()) {
        m_observer.warning(m_output.Path() +
                           ": few players take ProRes in an MP4 file; --format mov makes a "
                           "QuickTime movie");
    }
    if (m_options.output.mode == OutputMode::kBuffered && m_output.HasRepairInfo()) {
        m_observer.warning(m_output.RepairInfoPath() + ": with --buffered, the newest " +
                           std::to_string(KX_MP4_BUFFERED_IO_SIZE >> 10) +
                           " KiB of the recording are not protected");
    }
}

uint32_t Recording::Flags() const {
    uint32_t flags = 0;
    if (m_options.use64bit) flags |= MP4_FLAG_64BIT_TIME | MP4_FLAG_64BIT_SIZE;
    // An MP4 file grows past 4 GiB by itself, a QuickTime movie has to be prepared for it.
    const bool mayGrow = m_output.IsQuickTime() && m_inputs.HasPipe();
    if (m_inputs.Size() > kMax32bitInput || mayGrow) flags |= MP4_FLAG_64BIT_SIZE;
    return flags;
}

void Recording::Create() {
    m_output.Create(m_muxer, Flags());
    m_guarded = m_output.HasRepairInfo();
    StopSignal::SetFarewell("kxmux: " + m_output.Path() + ": is unfinished, it has no index; " +
                            m_output.RepairHint() + "\n");
}

void Recording::Declare() {
    if (m_options.liveIndexMs != 0)
        Require(m_muxer.SetLiveIndex(m_options.liveIndexMs), m_output.Path() + ": live index");
    for (TrackFeed* feed : m_feeds) {
        Require(feed->Declare(m_muxer), feed->Path() + ": the track is refused");
    }
    if (m_timecode) {
        const mp4_time_code_track_info_t info = m_timecode->TrackInfo();
        Require(m_muxer.SetTCMDTrack(&info), m_output.Path() + ": the timecode track is refused");
    }
    for (const auto& [key, value] : m_options.metadata) {
        Require(
            m_muxer.SetMetadata(key.c_str(), value.c_str(), 0, MP4_META_DATA_TYPE_STRING, nullptr),
            m_output.Path() + ": metadata '" + key + "' is refused");
    }
}

void Recording::WriteFrames() {
    if (m_timecode) {
        Require(m_muxer.WriteTimeCode(m_timecode->FrameCount()), m_output.Path() + ": timecode");
    }
    while (TrackFeed* feed = Earliest()) {
        if (Stopped()) break;
        const mp4_status_t status = feed->Write(m_muxer);
        if (!IsDone(status)) {
            Require(status, m_output.Path() + ": frame " + std::to_string(feed->Frames()) + " of " +
                                feed->Path());
        }
        feed->Advance();
        m_observer.progress(Now());
    }
    m_interrupted = StopSignal::Number() != 0;
}

/// Whether to stop here: files stay where they are, but what pipes have sent exists nowhere else.
bool Recording::Stopped() {
    return StopSignal::Number() != 0 && !m_inputs.HasPipe();
}

/// The input whose next frame comes first; null when video and audio are at their end. Captions
/// for a time after that have nothing to be shown on.
TrackFeed* Recording::Earliest() {
    TrackFeed* earliest = nullptr;
    bool onlyCaptions = true;
    for (TrackFeed* feed : m_feeds) {
        const bool ready = feed->Prepare();
        for (const std::string& warning : feed->TakeWarnings())
            m_observer.warning(warning);
        m_flawed = m_flawed || feed->HasFailed();
        if (!ready) continue;
        onlyCaptions = onlyCaptions && feed == m_captions.get();
        if (earliest == nullptr || IsEarlier(feed->NextTime(), earliest->NextTime())) {
            earliest = feed;
        }
    }
    return onlyCaptions ? nullptr : earliest;
}

bool Recording::HoldsFrames() const {
    return std::any_of(m_feeds.begin(), m_feeds.end(),
                       [](const TrackFeed* feed) { return feed->Frames() > 0; });
}

const TrackFeed& Recording::LeadingFeed() const {
    return *m_feeds.front();
}

Progress Recording::Now() {
    const TrackFeed& feed = LeadingFeed();
    return {feed.NextTime().Seconds(), feed.Frames(), m_muxer.GetCurFileSize()};
}

void Recording::Finish() {
    m_durationMs = m_muxer.GetDurationMS();
    m_videoBitrate = m_muxer.GetVideoBitrate();
    m_audioBitrate = m_muxer.GetAudioBitrate();
    const mp4_status_t status = m_output.Close(m_muxer);
    StopSignal::SetFarewell("");
    if (status != MP4_STATUS_SUCCESS) {
        throw RecordingError(m_output.Path() + ": cannot be closed: " + mp4_status_string(status) +
                             "; " + m_output.Path() + " is unfinished, it has no index; " +
                             m_output.RepairHint());
    }
    m_size = m_muxer.GetCurFileSize();
    if (HoldsFrames()) return;
    m_output.Discard();
    if (m_interrupted) throw Interrupted();
    throw RecordingError(m_output.Path() + ": nothing was recorded");
}

/// Closes the output after a failure and says what is in it.
std::string Recording::HowItWasLeft() {
    const mp4_status_t status = m_output.Close(m_muxer);
    StopSignal::SetFarewell("");
    if (!HoldsFrames() && m_output.Discard()) return "; nothing was recorded";
    const std::string left = "; " + m_output.Path() + " is unfinished, it ";
    if (status != MP4_STATUS_SUCCESS && m_options.liveIndexMs != 0 && !m_output.HasRepairInfo())
        return left + "holds what its live index lists; kxrepair finishes it";
    if (status != MP4_STATUS_SUCCESS) return left + "has no index; " + m_output.RepairHint();
    return left + "holds " + std::to_string(LeadingFeed().Frames()) + " frames of " +
           LeadingFeed().Path() + " from before";
}

/// Whether a call has done its work: the failure of the repair info file alone stops nothing.
bool Recording::IsDone(mp4_status_t status) {
    if (status == MP4_STATUS_SUCCESS) return true;
    if (!m_guarded || m_muxer.IsRepairInfoActive() || !m_muxer.IsOpen()) return false;
    m_guarded = false;
    m_flawed = true;
    m_observer.warning(m_output.RepairInfoPath() + ": cannot be written: " +
                       mp4_status_string(status) + "; the recording goes on unprotected");
    return true;
}

void Recording::Require(mp4_status_t status, const std::string& subject) {
    if (!IsDone(status)) throw RecordingError(subject + ": " + mp4_status_string(status));
}

std::string Recording::Summary() const {
    std::string text = m_output.Path() + ": " +
                       (m_output.IsQuickTime() ? "QuickTime movie" : "MP4 file") +
                       Format(", %.3f s, ", static_cast<double>(m_durationMs) / 1000) +
                       std::to_string(m_size) + " bytes\n";
    if (m_video) {
        text += TrackLine("video     ", m_video->Describe(), m_video->Frames(), m_video->Duration(),
                          m_videoBitrate);
        text += NoteLine(m_video->Note());
    }
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
    if (m_timecode) text += "  timecode  from " + m_options.timecode + "\n";
    if (m_output.HasRepairInfo() && !m_guarded) {
        text += NoteLine("from the failure of its repair info file on it was not protected");
    }
    if (m_interrupted) text += NoteLine("ended by a signal");
    return text;
}

}  // namespace kxmux
