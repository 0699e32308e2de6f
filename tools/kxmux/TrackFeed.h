/// @file
/// An input and the track that it becomes: what the recording loop sees of it.
#ifndef KXMUX_TRACKFEED_H
#define KXMUX_TRACKFEED_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "FrameSink.h"
#include "InputSet.h"
#include "StopSignal.h"

namespace kxmux {

/// A failure as the user is told of it: one line that names the file, the frame and the reason.
class RecordingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A time in ticks of a timescale.
struct MediaTime {
    uint64_t ticks = 0;
    uint32_t timescale = 1;

    double Seconds() const { return static_cast<double>(ticks) / timescale; }
};

/// Whether `a` is earlier than `b`; exact for all times.
inline bool IsEarlier(const MediaTime& a, const MediaTime& b) {
    const uint64_t secondsA = a.ticks / a.timescale;
    const uint64_t secondsB = b.ticks / b.timescale;
    if (secondsA != secondsB) return secondsA < secondsB;
    return a.ticks % a.timescale * b.timescale < b.ticks % b.timescale * a.timescale;
}

/// Frames of one input. An input that fails ends there: what it held before is recorded, and the
/// other inputs go on.
class TrackFeed {
public:
    explicit TrackFeed(std::string path) : m_path(std::move(path)) {}
    virtual ~TrackFeed() = default;
    TrackFeed(const TrackFeed&) = delete;
    TrackFeed& operator=(const TrackFeed&) = delete;

    /// Declares the track.
    virtual mp4_status_t Declare(FrameSink& sink) = 0;
    /// Makes the next frame ready; false when there is none any more.
    bool Prepare();
    /// When the prepared frame is decoded, as it is handed over.
    MediaTime NextTime() const {
        const MediaTime time = OwnTime();
        return {m_start + time.ticks, time.timescale};
    }
    /// By how many ticks frames are handed over later than at the input's own times.
    void StartAt(uint64_t ticks) { m_start = ticks; }
    /// Hands the prepared frame over.
    virtual mp4_status_t Write(FrameSink& sink) const = 0;
    /// The prepared frame is recorded.
    void Advance() {
        ++m_frames;
        m_ready = false;
    }

    const std::string& Path() const { return m_path; }
    /// Frames that were recorded; the index, counted from 0, of the one that comes next.
    uint64_t Frames() const { return m_frames; }
    /// Whether the input failed before its end; a warning says why.
    bool HasFailed() const { return !m_fault.empty(); }
    /// What the user should know at once, as one line each; it is told once.
    std::vector<std::string> TakeWarnings() { return std::exchange(m_warnings, {}); }

protected:
    /// When the prepared frame is decoded, from the input's beginning.
    virtual MediaTime OwnTime() const = 0;
    uint64_t Start() const { return m_start; }
    /// Reads the next frame; false at the end of the input. Throws StreamError and Interrupted.
    virtual bool ReadFrame() = 0;
    /// The frame that a failure of ReadFrame is told of.
    virtual uint64_t FrameToRead() const { return Frames(); }

    /// Makes the first frame ready. Throws RecordingError, with this reason when the input ends
    /// before, and Interrupted.
    void RequireFirst(const std::string& reason);
    /// A failure of this input at a frame.
    RecordingError Error(uint64_t frame, const std::string& reason) const {
        return RecordingError(m_path + ": frame " + std::to_string(frame) + ": " + reason);
    }
    void Warn(const std::string& text) { m_warnings.push_back(m_path + ": " + text); }

private:
    std::string m_path;
    uint64_t m_frames = 0;
    uint64_t m_start = 0;
    bool m_ready = false;
    bool m_ended = false;
    bool m_interrupted = false;
    std::string m_fault;
    std::vector<std::string> m_warnings;
};

inline bool TrackFeed::Prepare() {
    if (m_ready || m_ended) return m_ready;
    try {
        m_ready = ReadFrame();
    } catch (const StreamError& error) {
        m_fault = Error(FrameToRead(), error.what()).what();
        m_warnings.push_back(m_fault + "; its track ends there");
    } catch (const Interrupted&) {
        m_interrupted = true;
    }
    m_ended = !m_ready;
    return m_ready;
}

inline void TrackFeed::RequireFirst(const std::string& reason) {
    if (Prepare()) return;
    if (m_interrupted) throw Interrupted();
    throw m_fault.empty() ? Error(0, reason) : RecordingError(m_fault);
}

}  // namespace kxmux

#endif  // KXMUX_TRACKFEED_H
