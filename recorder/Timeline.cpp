#include "Timeline.h"

#include <cstdlib>

#include "Ticks.h"

namespace kx_mp4 {
namespace {

constexpr std::array<int64_t, 2> kWraps = {int64_t{1} << 32, int64_t{1} << 33};
/// Times beyond it are none; sums of two stay within 64 bits.
constexpr int64_t kFarthest = int64_t{1} << 61;

int64_t Sane(int64_t time) {
    return time > kFarthest || time < -kFarthest ? 0 : time;
}

}  // namespace

void Timeline::Declare(FrameKind kind, uint32_t timescale, uint64_t usualStep) {
    Track& track = Of(kind);
    if (track.declared && track.timescale == timescale) return;
    track = {};
    track.declared = true;
    track.timescale = timescale;
    track.step = usualStep < timescale * uint64_t{60} ? static_cast<int64_t>(usualStep) : 0;
}

bool Timeline::Leads(FrameKind kind) const {
    return kind == FrameKind::kVideo || (!HasVideo() && kind == FrameKind::kAudio);
}

std::optional<int64_t> Timeline::End(FrameKind kind) const {
    const Track& track = Of(kind);
    if (!track.started) return {};
    return track.last + track.step;
}

bool Timeline::IsJump(const Track& track, int64_t time, int64_t arrival) const {
    if (!track.started) return false;
    const int64_t step = time - track.last;
    if (step < 0) return true;
    const int64_t stepMs = step / track.timescale * kMilliseconds +
                           step % track.timescale * kMilliseconds / track.timescale;
    const int64_t passedMs = (arrival - track.arrival) / (kNanoseconds / kMilliseconds);
    return stepMs > passedMs + m_jumpMs;
}

int64_t Timeline::Unwrap(Track& track, int64_t dts, int64_t arrival) {
    if (!IsJump(track, dts + track.wrapped + track.moved, arrival)) return dts + track.wrapped;
    for (const int64_t wrap : kWraps) {
        if (IsJump(track, dts + track.wrapped + wrap + track.moved, arrival)) continue;
        track.wrapped += wrap;
        m_wraps.fetch_add(1, std::memory_order_relaxed);
        break;
    }
    return dts + track.wrapped;
}

/// A jump: that of another track, or a new one.
void Timeline::Follow(Track& track, int64_t time) {
    track.moved = track.last + track.step - time;
    m_move = {track.moved, track.timescale, m_move.number + 1};
    track.moves = m_move.number;
}

bool Timeline::EndPause(const FrameHeader& frame) {
    if (!Leads(frame.kind) || !frame.key) return false;
    m_resuming = false;
    Track& leader = Of(frame.kind);
    const int64_t resumed = Sane(frame.dts) + leader.wrapped;
    if (leader.started) Follow(leader, resumed);
    for (Track& track : m_tracks) {
        if (&track == &leader || !track.declared) continue;
        track.waits = true;
        track.notBefore = Rescaled(resumed, leader.timescale, track.timescale);
    }
    return true;
}

/// What picture order adds to the decode time; times of a wrapped clock differ by a wrap as well.
int64_t Timeline::Offset(const Track& track, const FrameHeader& frame) {
    const int64_t offset = Sane(frame.pts) - Sane(frame.dts);
    const int64_t most = 60 * track.timescale;
    for (const int64_t wrap : {int64_t{0}, kWraps[0], kWraps[1], -kWraps[0], -kWraps[1]})
        if (std::abs(offset + wrap) <= most) return offset + wrap;
    return offset;
}

std::optional<FrameTimes> Timeline::Place(const FrameHeader& frame) {
    if (m_resuming && !EndPause(frame)) return {};
    Track& track = Of(frame.kind);
    if (track.waits) {
        const int64_t time = Sane(frame.dts) + track.wrapped;
        if (time < track.notBefore) return {};
        track.moved = Rescaled(m_move.ticks, m_move.timescale, track.timescale);
        track.moves = m_move.number;
        // Sound that reached past the last picture is not said twice.
        if (track.started && time + track.moved < track.last + track.step) return {};
        track.waits = false;
        track.arrival = frame.arrival;
    }
    const int64_t time = Unwrap(track, Sane(frame.dts), frame.arrival);
    if (!track.started && track.moves != m_move.number) {
        track.moved = Rescaled(m_move.ticks, m_move.timescale, track.timescale);
        track.moves = m_move.number;
    }
    if (IsJump(track, time + track.moved, frame.arrival)) {
        const int64_t shared = Rescaled(m_move.ticks, m_move.timescale, track.timescale);
        if (track.moves != m_move.number && !IsJump(track, time + shared, frame.arrival)) {
            track.moved = shared;
            track.moves = m_move.number;
        } else if (frame.kind != FrameKind::kCaption || time + track.moved < track.last) {
            Follow(track, time);
            m_jumps.fetch_add(1, std::memory_order_relaxed);
        }
    }
    const int64_t dts = time + track.moved;
    if (track.started && dts > track.last) track.step = dts - track.last;
    track.started = true;
    track.last = dts;
    track.arrival = frame.arrival;
    return FrameTimes{dts + Offset(track, frame), dts};
}

}  // namespace kx_mp4
