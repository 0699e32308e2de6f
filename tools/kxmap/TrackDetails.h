/// @file
/// What the headers and sample entries of a movie say: formats, durations, edits, metadata,
/// timecode.
#ifndef KXMAP_TRACKDETAILS_H
#define KXMAP_TRACKDETAILS_H

#include "BoxFile.h"
#include "MovieMap.h"

namespace kxmap {

/// Timescale, duration and metadata from the children of 'moov'.
void ReadMovieDetails(const File& file, const Box& moov, MovieMap& map);
/// Format, durations and edit list of a track, whose handler and entry are known.
void ReadTrackDetails(const File& file, const Box& trak, uint32_t movieTimescale, Track& track);
/// The first counter of the timecode track, when there is one.
void ReadTimecode(const File& file, MovieMap& map);

}  // namespace kxmap

#endif  // KXMAP_TRACKDETAILS_H
