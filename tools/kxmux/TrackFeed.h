/// @file
/// An input and the track that it becomes: what the recording loop sees of it.
#ifndef KXMUX_TRACKFEED_H
#define KXMUX_TRACKFEED_H

#include <cstdint>
#include <stdexcept>
#include <string>

#include "ByteSource.h"
#include "Mp4Muxer.h"

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

class TrackFeed {
public:
    explicit TrackFeed(std::string path) : m_path(std::move(path)) {}
    virtual ~TrackFeed() = default;
    TrackFeed(const TrackFeed&) = delete;
    TrackFeed& operator=(const TrackFeed&) = delete;

    /// Declares the track to the muxer.
    virtual mp4_status_t Declare(CMp4Muxer& muxer) = 0;
    /// Makes the next frame ready; false at the end of the input. Throws RecordingError.
    bool Prepare();
    /// When the prepared frame is decoded.
    virtual MediaTime NextTime() const = 0;
    /// Writes the prepared frame.
    virtual mp4_status_t Write(CMp4Muxer& muxer) = 0;

    const std::string& Path() const { return m_path; }
    /// Frames that were written; the index, counted from 0, of the one that comes next.
    uint64_t Frames() const { return m_frames; }
    uint64_t Bytes() const { return m_bytes; }

protected:
    /// Reads the next frame; false at the end of the input. Throws StreamError.
    virtual bool ReadFrame() = 0;
    /// The frame that a failure of ReadFrame is told of.
    virtual uint64_t FrameToRead() const { return Frames(); }

    /// The prepared frame was written.
    void CountFrame(size_t bytes) {
        ++m_frames;
        m_bytes += bytes;
        m_ready = false;
    }
    /// A failure of this input at a frame.
    RecordingError Error(uint64_t frame, const std::string& reason) const {
        return RecordingError(m_path + ": frame " + std::to_string(frame) + ": " + reason);
    }

private:
    std::string m_path;
    uint64_t m_frames = 0;
    uint64_t m_bytes = 0;
    bool m_ready = false;
};

inline bool TrackFeed::Prepare() {
    try {
        m_ready = m_ready || ReadFrame();
    } catch (const StreamError& error) {
        throw Error(FrameToRead(), error.what());
    }
    return m_ready;
}

}  // namespace kxmux

#endif  // KXMUX_TRACKFEED_H
