/// @file
/// How a recording is laid out: its boxes, and where the chunks of its tracks lie in file and time.
#ifndef KXMAP_MOVIEMAP_H
#define KXMAP_MOVIEMAP_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Box.h"

namespace kxmap {

using kx_mp4::movie::Box;
using kx_mp4::movie::Bytes;
using kx_mp4::movie::MovieError;

/// A chunk of a track, or a run of neighbouring ones when a track has very many.
struct Extent {
    uint64_t position = 0;  ///< Of the first byte in the file.
    uint64_t end = 0;       ///< Behind the last byte.
    double start = 0;       ///< Decode time of the first sample, seconds.
    double stop = 0;        ///< Decode time at which the last sample ends.
};

/// A sample that decoding can start at.
struct SyncSample {
    uint64_t position = 0;
    double time = 0;  ///< Seconds.
};

/// An entry of an edit list.
struct Edit {
    double seconds = 0;
    int64_t mediaTime = 0;  ///< Ticks of the track; -1 of an empty edit.
};

/// One track.
struct Track {
    uint64_t boxPosition = 0;  ///< Of its 'trak'.
    uint32_t id = 0;
    std::string handler;  ///< "vide", "soun" ...
    std::string entry;    ///< Type of the sample entry.
    uint64_t samples = 0;
    uint64_t chunks = 0;
    uint64_t bytes = 0;
    uint64_t syncSamples = 0;
    uint64_t smallestSyncDistance = 0;  ///< Samples; 0 with fewer than two.
    uint64_t largestSyncDistance = 0;
    std::string codec;  ///< RFC 6381, such as "avc1.640028"; the entry's type when there is none.
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t sampleRate = 0;  ///< Hz, of sound.
    uint32_t channels = 0;
    uint32_t framesPerSecond = 0;  ///< Of timecode, as counted.
    bool dropFrame = false;
    uint32_t timescale = 0;
    double headerSeconds = 0;  ///< By 'tkhd'.
    double mediaSeconds = 0;   ///< By 'mdhd'.
    double seconds = 0;        ///< Of all samples.
    std::vector<Edit> edits;
    std::vector<Extent> extents;    ///< At most #kMaxMarks.
    std::vector<SyncSample> syncs;  ///< At most #kMaxMarks, evenly taken from all.

    bool EverySampleIsSync() const { return syncSamples == samples; }
};

/// What there is to draw.
struct MovieMap {
    std::string name;  ///< File name without directories.
    uint64_t fileSize = 0;
    std::string brand;  ///< Major brand; empty without 'ftyp'.
    std::vector<std::string> compatibleBrands;
    uint32_t movieTimescale = 0;
    double movieSeconds = 0;  ///< By 'mvhd'.
    uint64_t fragments = 0;   ///< 'moof' boxes of the movie.
    std::string timecode;     ///< Of the first timecode sample, such as "01:00:00;00".
    double interleaving =
        0;  ///< Largest distance in time between neighbours of two tracks, seconds.
    std::vector<std::pair<std::string, std::string>> metadata;  ///< Keys and values.
    std::vector<Box> boxes;  ///< Top level, without children; they cover the file.
    Box index;               ///< The 'moov' that counts; without a size when there is none.
    std::vector<Track> tracks;
    std::vector<std::string> remarks;  ///< What is wrong with the file, a sentence each.

    /// Whether it has a box that only such files have.
    bool IsMovie() const;
};

/// The largest difference in time between neighbours in the file that belong to different tracks,
/// as far as the extents tell.
double LargestDistance(const std::vector<Track>& tracks);

/// Marks that a track keeps at most of each kind.
constexpr size_t kMaxMarks = 1000;

/// Reads boxes, sample tables and fragments. Any file is accepted: what does not hold is left out
/// and told in a remark; memory is bounded by the tables that really are in the file.
/// Throws MovieError when the file cannot be opened or read.
MovieMap ReadMovieMap(const std::string& path);

}  // namespace kxmap

#endif  // KXMAP_MOVIEMAP_H
