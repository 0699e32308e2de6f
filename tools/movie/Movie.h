/// @file
/// The tracks of a movie and their samples, whether sample tables list them or fragments
/// (ISO/IEC 14496-12, 8.7 and 8.8).
#ifndef KX_MP4_MOVIE_MOVIE_H
#define KX_MP4_MOVIE_MOVIE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Box.h"

namespace kx_mp4::movie {

struct Sample {
    uint64_t offset = 0;  ///< In the file.
    uint32_t size = 0;
    int64_t dts = 0;  ///< Media ticks from the track's beginning; by 'tfdt' in a fragment.
    int64_t cts = 0;
    int64_t duration = 0;
    bool sync = true;
    uint32_t description = 1;  ///< The entry of 'stsd', from 1.
    uint64_t chunk = 0;        ///< From 0; a run is the chunk of a fragment.
};

/// What a player learns of a track.
struct Track {
    uint32_t id = 0;
    std::string handler;
    uint32_t timescale = 0;
    uint64_t duration = 0;     ///< Of the media by its header, in its ticks.
    std::string entryType;     ///< Of the first sample entry; empty without one.
    const Box* box = nullptr;  ///< Its 'trak', in the movie.
};

/// A file and what its index says. Not copied: tracks point to boxes.
struct Movie {
    Movie() = default;
    Movie(Movie&&) = default;
    Movie& operator=(Movie&&) = default;

    BoxTree boxes;
    /// The last movie box that is whole; null without one.
    const Box* moov = nullptr;
    /// The fragments that belong to it, in order: none unless it announces them ('mvex').
    std::vector<const Box*> fragments;
    std::vector<Track> tracks;
};

/// Reads the boxes and the tracks' headers. What does not hold is told among `boxes.faults`.
Movie ReadMovie(std::shared_ptr<const BoxSource> source);

using SampleVisitor = std::function<void(size_t track, const Sample& sample)>;

/// Visits all samples of all tracks, which may lie outside the file: first those of the sample
/// tables, track by track, then those of the fragments. Tables are read whole, but no more than
/// 256 MiB of them; no count is believed that the file has no bytes for.
/// @return what does not hold, a sentence each.
std::vector<std::string> VisitSamples(const Movie& movie, const SampleVisitor& visit);

}  // namespace kx_mp4::movie

#endif  // KX_MP4_MOVIE_MOVIE_H
