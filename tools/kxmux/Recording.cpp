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
    m_options.video.splits = WantsRecorder();
    OpenFeeds();
    AlignStarts();
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

/// Files that follow one another need it, too.
bool Recording::KeepsStartTimes() const {
    return m_options.presentation.fromStream || m_options.live.HasSegments();
}

/// The first picture is shown when the sound behind its priming begins. That is at a whole second,
/// which is exact in the ticks of every track.
void Recording::AlignStarts() {
    if (!KeepsStartTimes()) return;
    const auto seconds = [](uint64_t ticks, uint32_t timescale) {
        return (ticks + timescale - 1) / timescale;
    };
    const uint64_t priming = m_options.presentation.audioPriming;
    if (m_video) m_startSeconds = seconds(m_video->ReorderDelay(), m_video->Timescale());
    if (m_audio) m_startSeconds = std::max(m_startSeconds, seconds(priming, m_audio->SampleRate()));
    if (m_video) m_video->StartAt(m_startSeconds * m_video->Timescale() - m_video->ReorderDelay());
    if (m_audio) m_audio->StartAt(m_startSeconds * m_audio->SampleRate() - priming);
    if (m_captions) m_captions->StartAt(m_startSeconds * m_captions->Timescale());
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

/// What a pipe sends exists nowhere else, and its writer should not wait for the storage.
bool Recording::WantsRecorder() const {
    return m_options.live.wanted || (m_inputs.HasPipe() && m_output.IsPlainFile());
}

void Recording::StartRecorder() {
    const std::string& path = m_output.Path();
    const LiveOptions& live = m_options.live;
    const bool segments = live.HasSegments();
    kx_mp4::RecorderOptions options;
    options.pattern =
        segments ? LiveOutput::SegmentPattern(path) : LiveOutput::LiteralPattern(path);
    options.container = m_output.IsQuickTime() ? MP4_CONTAINER_QUICKTIME : MP4_CONTAINER_MP4;
    options.flags = Flags() | (m_output.HasRepairInfo() ? MP4_FLAG_REPAIR_INFO : 0U);
    options.composition_offsets = m_options.video.compositionOffsets;
    options.live_index_ms = m_options.liveIndexMs;
    options.start_times = KeepsStartTimes();
    options.all_parameter_sets = m_options.presentation.fromStream;
    options.configure = [this](CMp4Muxer& muxer) { return Present(muxer); };
    m_output.MakeFree(segments);
    m_live = std::make_unique<LiveOutput>();
    const mp4_status_t status = m_live->Start(live, std::move(options));
    if (status != MP4_STATUS_SUCCESS)
        throw RecordingError(path + ": cannot be created: " + mp4_status_string(status));
    StopSignal::SetFarewell("kxmux: " + path + ": " + (segments ? "the newest segment " : "") +
                            "is unfinished, it has no index; " + m_output.RepairHint() + "\n");
    m_recorderSink = std::make_unique<SinkOf<CMp4Recorder>>(m_live->Recorder());
    m_sink = m_recorderSink.get();
}

void Recording::Create() {
    if (WantsRecorder()) {
        StartRecorder();
        return;
    }
    m_output.Create(m_muxer, Flags());
    m_guarded = m_output.HasRepairInfo();
    StopSignal::SetFarewell("kxmux: " + m_output.Path() + ": is unfinished, it has no index; " +
                            m_output.RepairHint() + "\n");
}

/// What the file says beside its samples; of a recorder this runs for each of its files.
mp4_status_t Recording::Present(CMp4Muxer& muxer) const {
    const PresentationOptions& wanted = m_options.presentation;
    mp4_video_shape_t shape{};
    shape.struct_size = sizeof shape;
    shape.rotation = wanted.rotation;
    shape.from_stream = wanted.fromStream ? 1 : 0;
    mp4_video_colour_t colour{};
    colour.struct_size = sizeof colour;
    colour.from_stream = wanted.fromStream ? 1 : 0;
    mp4_status_t status = muxer.SetStrictForm(wanted.strictForm);
    if (status == MP4_STATUS_SUCCESS) status = muxer.SetTimeline(KeepsStartTimes());
    if (status == MP4_STATUS_SUCCESS) status = muxer.SetAllParameterSets(wanted.fromStream);
    if (status == MP4_STATUS_SUCCESS) status = muxer.SetAudioPriming(wanted.audioPriming);
    if (status == MP4_STATUS_SUCCESS) status = muxer.SetVideoShape(shape);
    if (status == MP4_STATUS_SUCCESS) status = muxer.SetVideoColour(colour);
    return status;
}

void Recording::Declare() {
    if (m_live == nullptr) {
        Require(Present(m_muxer), m_output.Path() + ": presentation");
        Require(m_muxer.SetLiveIndex(m_options.liveIndexMs), m_output.Path() + ": live index");
    }
    for (TrackFeed* feed : m_feeds) {
        Require(feed->Declare(*m_sink), feed->Path() + ": the track is refused");
    }
    if (m_timecode) {
        const mp4_time_code_track_info_t info = m_timecode->TrackInfo();
        Require(m_sink->SetTCMDTrack(&info), m_output.Path() + ": the timecode track is refused");
    }
    for (const auto& [key, value] : m_options.metadata) {
        Require(m_sink->SetMetadata(key, value),
                m_output.Path() + ": metadata '" + key + "' is refused");
    }
}

void Recording::WriteFrames() {
    if (m_timecode) {
        Require(m_sink->WriteTimeCode(m_timecode->FrameCount()), m_output.Path() + ": timecode");
    }
    m_started = true;
    while (TrackFeed* feed = Earliest()) {
        if (Stopped()) break;
        const mp4_status_t status = feed->Write(*m_sink);
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
    const double seconds =
        std::max(feed.NextTime().Seconds() - static_cast<double>(m_startSeconds), 0.0);
    if (m_live != nullptr) {
        const auto bytes = static_cast<int64_t>(m_live->Figures().bytes_written);
        return {seconds, feed.Frames(), bytes, m_live->Status()};
    }
    return {seconds, feed.Frames(), m_muxer.GetCurFileSize(), {}};
}

void Recording::PassWarnings() {
    for (const std::string& warning : m_live->TakeWarnings()) {
        m_flawed = true;
        m_observer.warning(warning);
    }
}

void Recording::FinishRecorder() {
    const mp4_status_t status = m_live->Stop().status;
    StopSignal::SetFarewell("");
    PassWarnings();
    m_segments = m_live->Segments();
    uint64_t videoBytes = 0;
    uint64_t audioBytes = 0;
    for (const kx_mp4::RecorderSegment& segment : m_segments) {
        m_size += static_cast<int64_t>(segment.bytes);
        videoBytes += segment.video.bytes;
        audioBytes += segment.audio.bytes;
    }
    const double videoSeconds = m_video ? m_video->Duration().Seconds() : 0;
    const double audioSeconds = m_audio ? m_audio->Duration().Seconds() : 0;
    constexpr double kKib = 1024;
    if (videoSeconds > 0) m_videoBitrate = static_cast<double>(videoBytes) / kKib / videoSeconds;
    if (audioSeconds > 0) m_audioBitrate = static_cast<double>(audioBytes) / kKib / audioSeconds;
    constexpr double kMilliseconds = 1000;
    m_durationMs = static_cast<uint64_t>(std::max(videoSeconds, audioSeconds) * kMilliseconds);
    m_flawed = m_flawed || status != MP4_STATUS_SUCCESS || m_live->Lost() != 0;
    if (!m_segments.empty()) return;
    if (m_interrupted) throw Interrupted();
    throw RecordingError(m_output.Path() + ": nothing was recorded");
}

void Recording::Finish() {
    if (m_live != nullptr) {
        FinishRecorder();
        return;
    }
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
    if (m_live != nullptr) {
        m_live->Stop();
        StopSignal::SetFarewell("");
        PassWarnings();
        const size_t files = m_live->Segments().size();
        if (files == 0) return "; nothing was recorded";
        return "; what came before is in " + std::to_string(files) +
               (files == 1 ? " file" : " files");
    }
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

/// Of a recorder: a frame that is dropped, or a failure that is told, ends nothing but a full disk.
bool Recording::IsQueued(mp4_status_t status) {
    PassWarnings();
    return status != MP4_STATUS_NO_SPACE_LEFT && status != MP4_STATUS_FILE_NOT_OPEN;
}

/// Whether a call has done its work: the failure of the repair info file alone stops nothing.
bool Recording::IsDone(mp4_status_t status) {
    if (status == MP4_STATUS_SUCCESS) return true;
    if (m_live != nullptr) return m_started && IsQueued(status);
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

/// One line for each file of a live recording that has become several.
std::string Recording::SegmentLines() const {
    std::string text = std::to_string(m_segments.size()) + " files" +
                       Format(", %.3f s, ", static_cast<double>(m_durationMs) / 1000) +
                       std::to_string(m_size) + " bytes\n";
    for (const kx_mp4::RecorderSegment& segment : m_segments) {
        text += "  " + segment.path + ": " + std::to_string(segment.bytes) + " bytes";
        if (segment.status != MP4_STATUS_SUCCESS)
            text += std::string(", ") + mp4_status_string(segment.status);
        text += "\n";
    }
    return text;
}

std::string Recording::FileLine() const {
    const std::string& path = m_segments.empty() ? m_output.Path() : m_segments.front().path;
    return path + ": " + (m_output.IsQuickTime() ? "QuickTime movie" : "MP4 file") +
           Format(", %.3f s, ", static_cast<double>(m_durationMs) / 1000) + std::to_string(m_size) +
           " bytes\n";
}

std::string Recording::Summary() const {
    std::string text = m_segments.size() > 1 ? SegmentLines() : FileLine();
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
    if (m_live == nullptr && m_output.HasRepairInfo() && !m_guarded) {
        text += NoteLine("from the failure of its repair info file on it was not protected");
    }
    if (m_live != nullptr && m_live->Lost() != 0)
        text += NoteLine(std::to_string(m_live->Lost()) + " frames are in no file");
    if (m_interrupted) text += NoteLine("ended by a signal");
    return text;
}

}  // namespace kxmux
