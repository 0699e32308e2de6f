/// @file
/// What a recording has done so far, for readers on other threads.
#ifndef KX_MP4_FIGURES_H
#define KX_MP4_FIGURES_H

#include <atomic>
#include <chrono>
#include <cstdint>

#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// A number that one thread at a time changes, under the muxer's lock, and any thread reads.
template <class T>
class SharedNumber {
public:
    SharedNumber(T value = 0) : m_value(value) {}
    SharedNumber(const SharedNumber& other) : m_value(T{other}) {}
    SharedNumber& operator=(const SharedNumber& other) { return *this = T{other}; }
    operator T() const { return m_value.load(std::memory_order_relaxed); }
    SharedNumber& operator=(T value) {
        m_value.store(value, std::memory_order_relaxed);
        return *this;
    }
    SharedNumber& operator+=(T value) { return *this = *this + value; }

private:
    std::atomic<T> m_value;
};

/// Counts and times of one recording. Taking note costs a few plain stores.
class Figures {
public:
    using Clock = std::chrono::steady_clock;

    /// The tracks, in the order of mp4_statistics_t.
    enum Track { kVideo, kAudio, kCaptions, kTimecode, kTracks };

    /// Forgets the recording before.
    void Reset();

    void OnSample(Track track, uint64_t bytes, int64_t time, uint32_t timescale);
    /// A frame was taken and is not in the file.
    void OnDropped(Track track) { m_tracks[track].dropped += 1; }
    /// A timestamp went back or jumped by more than an hour.
    void OnOddTime(Track track) { m_tracks[track].oddTimes += 1; }
    void OnWrite(Clock::duration took) { Take(took, m_lastWrite, m_longestWrite); }
    void OnPush(Clock::duration took) { Take(took, m_lastPush, m_longestPush); }
    /// A frame writer was called and is about to return.
    void OnCall(Clock::duration took);

    /// Fills in all but the index and the side file.
    void Fill(mp4_statistics_t& statistics) const;

private:
    struct TrackFigures {
        SharedNumber<uint64_t> samples;
        SharedNumber<uint64_t> bytes;
        SharedNumber<int64_t> firstTime;
        SharedNumber<int64_t> lastTime;
        SharedNumber<uint32_t> timescale;
        SharedNumber<uint64_t> dropped;
        SharedNumber<uint64_t> oddTimes;
    };

    static void Take(Clock::duration took, SharedNumber<uint64_t>& last,
                     SharedNumber<uint64_t>& longest);
    static void Fill(const TrackFigures& figures, mp4_track_statistics_t& statistics);

    TrackFigures m_tracks[kTracks];
    SharedNumber<uint64_t> m_lastWrite;
    SharedNumber<uint64_t> m_longestWrite;
    SharedNumber<uint64_t> m_lastPush;
    SharedNumber<uint64_t> m_longestPush;
    SharedNumber<uint64_t> m_calls[MP4_CALL_DURATIONS];
};

/// Takes note of how long it lived, also when an exception ends its scope.
class FigureTimer {
public:
    using Note = void (Figures::*)(Figures::Clock::duration);

    /// Null takes no note.
    FigureTimer(Figures* figures, Note note)
        : m_figures(figures), m_note(note), m_start(Figures::Clock::now()) {}
    ~FigureTimer() {
        if (m_figures != nullptr) (m_figures->*m_note)(Figures::Clock::now() - m_start);
    }
    FigureTimer(const FigureTimer&) = delete;
    FigureTimer& operator=(const FigureTimer&) = delete;

private:
    Figures* m_figures;
    Note m_note;
    Figures::Clock::time_point m_start;
};

/// Takes note of the time since a moment, and leaves in its place when that was.
class FigureLap {
public:
    FigureLap(Figures& figures, FigureTimer::Note note, Figures::Clock::time_point& moment)
        : m_figures(figures), m_note(note), m_moment(moment) {}
    ~FigureLap() {
        const auto now = Figures::Clock::now();
        (m_figures.*m_note)(now - m_moment);
        m_moment = now;
    }
    FigureLap(const FigureLap&) = delete;
    FigureLap& operator=(const FigureLap&) = delete;

private:
    Figures& m_figures;
    FigureTimer::Note m_note;
    Figures::Clock::time_point& m_moment;
};

}  // namespace kx_mp4

#endif  // KX_MP4_FIGURES_H
