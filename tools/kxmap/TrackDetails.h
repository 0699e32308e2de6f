/// @file
/// What the headers and sample entries of a movie say: formats, durations, edits, metadata,
/// timecode.
#ifndef KXMAP_TRACKDETAILS_H
#define KXMAP_TRACKDETAILS_H

#include <cstdint>

#include "MovieMap.h"

namespace kxmap {

/// Timescale, duration and metadata from the children of 'moov'.
void ReadMovieDetails(const Box& moov, MovieMap& map);
/// Format, durations and edit list of a track, whose handler, entry and timescale are known.
/// `duration` is that of the media, in its ticks.
void ReadTrackDetails(const Box& trak, uint64_t duration, uint32_t movieTimescale, Track& track);
/// The first counter of the timecode track, when there is one.
void ReadTimecode(const Box& file, MovieMap& map);

}  // namespace kxmap

#endif  // KXMAP_TRACKDETAILS_H
