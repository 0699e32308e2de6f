/// @file
/// How a recording is laid out: its boxes, and where the chunks of its tracks lie in file and time.
#ifndef KXMAP_MOVIEMAP_H
#define KXMAP_MOVIEMAP_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace kxmap {

/// One box. Sizes include the header.
struct Box {
    std::string type;  ///< Four characters; those that cannot be printed are shown as '?'.
    uint64_t position = 0;
    uint64_t size = 0;
    std::vector<Box> children;
};

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

/// One track.
struct Track {
    uint64_t boxPosition = 0;  ///< Of its 'trak'.
    uint32_t id = 0;
    std::string handler;  ///< "vide", "soun" ...
    std::string entry;    ///< Type of the sample entry.
    uint64_t samples = 0;
    uint64_t chunks = 0;
    uint64_t bytes = 0;
    uint64_t syncSamples = 0;  ///< Listed ones; without a list every sample is one.
    bool hasSyncTable = false;
    double seconds = 0;
    std::vector<Extent> extents;    ///< At most #kMaxMarks.
    std::vector<SyncSample> syncs;  ///< At most #kMaxMarks, evenly taken from all.
};

/// What there is to draw.
struct MovieMap {
    std::string name;  ///< File name without directories.
    uint64_t fileSize = 0;
    std::string brand;       ///< Major brand; empty without 'ftyp'.
    std::vector<Box> boxes;  ///< Top level; they cover the file.
    std::vector<Track> tracks;
    std::vector<std::string> remarks;  ///< What is wrong with the file, a sentence each.
};

/// Marks that a track keeps at most of each kind.
constexpr size_t kMaxMarks = 1000;

/// The file cannot be read at all.
class MapError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads boxes and sample tables. Any file is accepted: what does not hold is left out and told in
/// a remark; memory is bounded by the tables that really are in the file.
/// Throws MapError when the file cannot be opened or read.
MovieMap ReadMovieMap(const std::string& path);

}  // namespace kxmap

#endif  // KXMAP_MOVIEMAP_H
