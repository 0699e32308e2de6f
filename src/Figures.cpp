#include "Figures.h"

#include <cstddef>

namespace kx_mp4 {
namespace {

uint64_t Microseconds(Figures::Clock::duration duration) {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(duration).count());
}

}  // namespace

void Figures::Reset() {
    for (TrackFigures& track : m_tracks) {
        track.samples = track.bytes = 0;
        track.firstTime = track.lastTime = 0;
        track.timescale = 0;
        track.dropped = track.oddTimes = 0;
    }
    m_lastWrite = m_longestWrite = m_lastPush = m_longestPush = 0;
    for (SharedNumber<uint64_t>& calls : m_calls)
        calls = 0;
}

void Figures::OnSample(Track track, uint64_t bytes, int64_t time, uint32_t timescale) {
    TrackFigures& figures = m_tracks[track];
    if (figures.samples == 0) figures.firstTime = time;
    figures.lastTime = time;
    figures.timescale = timescale;
    figures.bytes += bytes;
    figures.samples += 1;
}

void Figures::Take(Clock::duration took, SharedNumber<uint64_t>& last,
                   SharedNumber<uint64_t>& longest) {
    last = Microseconds(took);
    if (last > longest) longest = last;
}

void Figures::OnCall(Clock::duration took) {
    size_t bucket = 0;
    for (uint64_t left = Microseconds(took); left != 0 && bucket + 1 < MP4_CALL_DURATIONS;
         left >>= 1)
        ++bucket;
    m_calls[bucket] += 1;
}

void Figures::Fill(const TrackFigures& figures, mp4_track_statistics_t& statistics) {
    statistics.samples = figures.samples;
    statistics.bytes = figures.bytes;
    statistics.first_time = figures.firstTime;
    statistics.last_time = figures.lastTime;
    statistics.timescale = figures.timescale;
    statistics.dropped = figures.dropped;
    statistics.odd_times = figures.oddTimes;
}

void Figures::Fill(mp4_statistics_t& statistics) const {
    Fill(m_tracks[kVideo], statistics.video);
    Fill(m_tracks[kAudio], statistics.audio);
    Fill(m_tracks[kCaptions], statistics.captions);
    Fill(m_tracks[kTimecode], statistics.timecode);
    statistics.last_write_us = m_lastWrite;
    statistics.longest_write_us = m_longestWrite;
    statistics.last_push_us = m_lastPush;
    statistics.longest_push_us = m_longestPush;
    for (size_t i = 0; i < MP4_CALL_DURATIONS; ++i)
        statistics.calls[i] = m_calls[i];
}

}  // namespace kx_mp4
