/// @file
/// One recording from its inputs to the closed file, through CMp4Muxer or, of live inputs, through
/// CMp4Recorder, as any application would.
#ifndef KXMUX_RECORDING_H
#define KXMUX_RECORDING_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "AudioFeed.h"
#include "CaptionFeed.h"
#include "FrameSink.h"
#include "InputSet.h"
#include "LiveOutput.h"
#include "Output.h"
#include "Timecode.h"
#include "VideoFeed.h"
#include "kx_mp4/Mp4Muxer.h"

namespace kxmux {

/// What players are told beside the samples.
struct PresentationOptions {
    /// Where tracks begin, and what the stream tells of shape, fields, colour and light.
    bool fromStream = true;
    uint32_t audioPriming = 0;  ///< Samples at the beginning of the sound that are not to be heard.
    uint32_t rotation = 0;      ///< Degrees clockwise.
    bool strictForm = false;    ///< As CMp4Muxer::SetStrictForm.
};

/// At least one of video and audio is given.
struct RecordingOptions {
    OutputOptions output;
    VideoOptions video;    ///< empty path: no video
    std::string audio;     ///< empty: no audio
    std::string captions;  ///< empty: no captions
    std::string timecode;  ///< of the first frame; empty: none
    std::vector<std::pair<std::string, std::string>> metadata;
    bool use64bit = false;
    uint32_t liveIndexMs = 0;  ///< interval of the live index; 0: none
    LiveOptions live;          ///< queue and segments
    PresentationOptions presentation;
};

/// What a line of progress shows.
struct Progress {
    double seconds = 0;
    uint64_t frames = 0;  ///< of the video, of the audio where there is no video
    int64_t bytes = 0;
    std::string live;  ///< of queue and segments, where there are
};

/// Who is told what happens while it happens.
struct Observer {
    std::function<void(const Progress&)> progress;    ///< after every frame
    std::function<void(const std::string&)> warning;  ///< one line each
};

/// What became of a recording that was closed.
enum class RecordingResult {
    kComplete,
    kFlawed,       ///< a warning told what is missing
    kInterrupted,  ///< the user ended it
};

class Recording {
public:
    explicit Recording(RecordingOptions options);

    /// Records everything and closes the file. An input that fails ends there, with a warning, and
    /// so does the repair info file; the rest is recorded.
    /// Throws RecordingError; what was recorded before a failure is then closed as well as it can
    /// be, and the error says how the output was left. Throws Interrupted when the user ends it
    /// before the first frame; no file is left then.
    RecordingResult Run(const Observer& observer);
    /// A few lines about the closed file: tracks, frames, durations, size, bitrates.
    std::string Summary() const;

private:
    void OpenInputs();
    void OpenFeeds();
    bool KeepsStartTimes() const;
    void AlignStarts();
    void ReadTimecode();
    void WarnBeforehand();
    void Create();
    bool WantsRecorder() const;
    void StartRecorder();
    void FinishRecorder();
    void PassWarnings();
    mp4_status_t Present(CMp4Muxer& muxer) const;
    void Declare();
    void WriteFrames();
    std::string SegmentLines() const;
    std::string FileLine() const;
    TrackFeed* Earliest();
    bool Stopped();
    void Finish();
    uint32_t Flags() const;
    bool IsDone(mp4_status_t status);
    bool IsQueued(mp4_status_t status);
    void Require(mp4_status_t status, const std::string& subject);
    std::string HowItWasLeft();
    bool HoldsFrames() const;
    const TrackFeed& LeadingFeed() const;
    Progress Now();

    RecordingOptions m_options;
    Output m_output;
    InputSet m_inputs;
    Input* m_videoInput = nullptr;
    Input* m_audioInput = nullptr;
    Input* m_captionInput = nullptr;
    std::unique_ptr<VideoFeed> m_video;
    std::unique_ptr<AudioFeed> m_audio;
    std::unique_ptr<CaptionFeed> m_captions;
    std::vector<TrackFeed*> m_feeds;
    std::optional<Timecode> m_timecode;
    uint64_t m_startSeconds = 0;  // when the first picture is shown and the first sound heard
    Observer m_observer;
    CMp4Muxer m_muxer;
    SinkOf<CMp4Muxer> m_muxerSink{m_muxer};
    std::unique_ptr<LiveOutput> m_live;  // in place of the muxer
    std::unique_ptr<FrameSink> m_recorderSink;
    FrameSink* m_sink = &m_muxerSink;
    std::vector<kx_mp4::RecorderSegment> m_segments;
    bool m_guarded = false;  // the repair info file is complete so far
    bool m_started = false;  // frames are written
    bool m_flawed = false;
    bool m_interrupted = false;
    uint64_t m_durationMs = 0;
    int64_t m_size = 0;
    double m_videoBitrate = 0;  // KiB per second
    double m_audioBitrate = 0;
};

}  // namespace kxmux

#endif  // KXMUX_RECORDING_H
