/// @file
/// The times of a recording as its files have them: pauses, jumps and wraps of the caller's clock
/// are taken out.
#ifndef KX_MP4_RECORDER_TIMELINE_H
#define KX_MP4_RECORDER_TIMELINE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "FrameRing.h"

namespace kx_mp4 {

/// Times of a frame on the recording's timeline, ticks of its track.
struct FrameTimes {
    int64_t pts = 0;
    int64_t dts = 0;
};

/// Takes the times of all tracks in the order in which they are written.
///
/// A frame whose time goes back, or whose step differs from what has passed between the calls by
/// more than a limit, tells of a jump: it follows the one before by its usual step, and all later
/// ones are moved by as much. Another track that meets the same jump is moved by the same, so that
/// picture and sound stay together. Captions are far apart by nature: a long step of theirs is none
/// of their own. A time that goes back and would not with 2^32 or 2^33 ticks
/// more is a wrap, and no jump.
class Timeline {
public:
    /// Milliseconds.
    explicit Timeline(uint32_t jumpMs) : m_jumpMs(jumpMs) {}

    /// A track begins, or begins anew. `usualStep` is 0 when it is not known.
    void Declare(FrameKind kind, uint32_t timescale, uint64_t usualStep);
    bool HasVideo() const { return Of(FrameKind::kVideo).declared; }
    /// Ticks per second.
    int64_t Timescale(FrameKind kind) const { return Of(kind).timescale; }
    /// The recording goes on after a pause at the next frame of the leading track that `Place` is
    /// asked for with `key`; nothing has a place until then.
    void Resume() { m_resuming = true; }
    /// Where the frame goes; nowhere when it belongs to a pause.
    std::optional<FrameTimes> Place(const FrameHeader& frame);
    /// Where the next frame of the track is expected; nothing before its first.
    std::optional<int64_t> End(FrameKind kind) const;
    /// How long the last sample of the track is, ticks.
    int64_t LastStep(FrameKind kind) const { return Of(kind).step; }

    uint64_t Jumps() const { return m_jumps.load(std::memory_order_relaxed); }
    uint64_t Wraps() const { return m_wraps.load(std::memory_order_relaxed); }

private:
    struct Track {
        bool declared = false;
        bool started = false;
        int64_t timescale = 1;
        int64_t wrapped = 0;    // added to the caller's times
        int64_t moved = 0;      // added to that
        uint64_t moves = 0;     // how many of the recording's are in `moved`
        int64_t last = 0;       // on the timeline
        int64_t step = 0;       // the last one that was none of a jump
        int64_t arrival = 0;    // of the last frame, nanoseconds
        int64_t notBefore = 0;  // caller's time, without wraps, at which it resumes
        bool waits = false;     // for that time
    };
    /// The newest move, in ticks of the track that met it first.
    struct Move {
        int64_t ticks = 0;
        int64_t timescale = 1;
        uint64_t number = 0;
    };

    static constexpr size_t kTracks = 3;
    static size_t IndexOf(FrameKind kind) { return static_cast<size_t>(kind) % kTracks; }
    Track& Of(FrameKind kind) { return m_tracks[IndexOf(kind)]; }
    const Track& Of(FrameKind kind) const { return m_tracks[IndexOf(kind)]; }
    bool Leads(FrameKind kind) const;
    bool IsJump(const Track& track, int64_t time, int64_t arrival) const;
    int64_t Unwrap(Track& track, int64_t dts, int64_t arrival);
    void Follow(Track& track, int64_t time);
    bool EndPause(const FrameHeader& frame);
    static int64_t Offset(const Track& track, const FrameHeader& frame);

    int64_t m_jumpMs;
    std::array<Track, kTracks> m_tracks;
    Move m_move;
    bool m_resuming = false;
    std::atomic<uint64_t> m_jumps{0};
    std::atomic<uint64_t> m_wraps{0};
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_TIMELINE_H
