/// @file
/// The files that a recording of live inputs becomes: CMp4Recorder, with what the program tells of
/// it.
#ifndef KXMUX_LIVEOUTPUT_H
#define KXMUX_LIVEOUTPUT_H

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "kx_mp4/recorder.h"

namespace kxmux {

/// What the user asks of it. Zeros are the recorder's own.
struct LiveOptions {
    bool wanted = false;  ///< Any of the options was given.
    uint64_t segmentMs = 0;
    uint64_t segmentBytes = 0;
    uint64_t queueBytes = 0;
    bool drop = false;  ///< A full queue drops pictures; else the inputs wait.

    bool HasSegments() const { return segmentMs != 0 || segmentBytes != 0; }
};

class LiveOutput {
public:
    LiveOutput() = default;
    LiveOutput(const LiveOutput&) = delete;
    LiveOutput& operator=(const LiveOutput&) = delete;

    /// The path with the number of the segment before its extension, unless it has a conversion.
    static std::string SegmentPattern(const std::string& path);
    /// A pattern that stands for the path itself.
    static std::string LiteralPattern(const std::string& path);

    /// Begins; `options` has the name and what the muxer is asked for.
    mp4_status_t Start(const LiveOptions& live, kx_mp4::RecorderOptions options);
    CMp4Recorder& Recorder() { return m_recorder; }
    /// Ends, however long the storage takes.
    kx_mp4::RecorderReport Stop();

    /// What went wrong since the last question, as one line each.
    std::vector<std::string> TakeWarnings();
    /// The files so far, finished, in order.
    std::vector<kx_mp4::RecorderSegment> Segments();
    /// Of queue and drops, for a line of progress.
    std::string Status() const;
    /// Frames that are in no file.
    uint64_t Lost() const;
    kx_mp4::RecorderStatistics Figures() const { return m_recorder.GetStatistics(); }

private:
    void Tell(const kx_mp4::RecorderEvent& event);

    std::mutex m_lock;
    std::vector<std::string> m_warnings;
    std::vector<kx_mp4::RecorderSegment> m_segments;
    CMp4Recorder m_recorder;  // last: its threads use the rest
};

}  // namespace kxmux

#endif  // KXMUX_LIVEOUTPUT_H
