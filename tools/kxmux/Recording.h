/// @file
/// One recording from its inputs to the closed file, through CMp4Muxer as any application would.
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
#include "Mp4Muxer.h"
#include "Timecode.h"
#include "VideoFeed.h"

namespace kxmux {

/// How the bytes reach the output.
enum class OutputMode {
    kFile,       ///< the library's own file
    kCallbacks,  ///< callbacks over a plain file
    kBuffered,   ///< the library's buffered file, which is callbacks too
};

struct RecordingOptions {
    std::string output;
    VideoOptions video;
    std::string audio;     ///< empty: no audio
    std::string captions;  ///< empty: no captions
    std::optional<Timecode> timecode;
    std::string timecodeText;
    std::vector<std::pair<std::string, std::string>> metadata;
    OutputMode mode = OutputMode::kFile;
    bool use64bit = false;
    bool repairInfo = false;
};

/// What a line of progress shows.
struct Progress {
    double seconds = 0;
    uint64_t videoFrames = 0;
    int64_t bytes = 0;
};

class Recording {
public:
    explicit Recording(RecordingOptions options);

    /// Records everything and closes the file. `report` is called after every frame.
    /// Throws RecordingError; what was recorded before a failure is then closed as well as it can
    /// be, and the error says how the output was left.
    void Run(const std::function<void(const Progress&)>& report);
    /// A few lines about the closed file: tracks, frames, durations, size, bitrates.
    std::string Summary() const;

private:
    void OpenInputs();
    void CheckOutput() const;
    void Create();
    void Declare();
    void WriteFrames(const std::function<void(const Progress&)>& report);
    TrackFeed* Earliest();
    void Finish();
    uint32_t Flags() const;
    void Require(mp4_status_t status, const std::string& subject) const;
    std::string HowItWasLeft();
    Progress Now();

    RecordingOptions m_options;
    std::wstring m_widePath;
    std::unique_ptr<VideoFeed> m_video;
    std::unique_ptr<AudioFeed> m_audio;
    std::unique_ptr<CaptionFeed> m_captions;
    std::vector<TrackFeed*> m_feeds;
    CMp4Muxer m_muxer;
    uint64_t m_inputSize = 0;
    uint64_t m_durationMs = 0;
    double m_videoBitrate = 0;  // KiB per second
    double m_audioBitrate = 0;
};

}  // namespace kxmux

#endif  // KXMUX_RECORDING_H
