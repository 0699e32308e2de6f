/// @file
/// Samples by the tables of 'stbl' (ISO/IEC 14496-12, 8.6 and 8.7).
#ifndef KX_MP4_MOVIE_SAMPLETABLES_H
#define KX_MP4_MOVIE_SAMPLETABLES_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Box.h"
#include "Movie.h"

namespace kx_mp4::movie {

/// Reads tables, as long as their bytes together do not pass `room`, which they use up.
class TableReader {
public:
    explicit TableReader(uint64_t room) : m_room(room) {}

    /// Visits the samples that a track's tables list. What does not hold is added to `faults`.
    void Visit(const Track& track, const std::function<void(const Sample&)>& visit,
               std::vector<std::string>& faults);

private:
    uint64_t m_room;
};

}  // namespace kx_mp4::movie

#endif  // KX_MP4_MOVIE_SAMPLETABLES_H
