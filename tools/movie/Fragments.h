/// @file
/// Samples of movie fragments (ISO/IEC 14496-12, 8.8), which no sample table lists.
#ifndef KX_MP4_MOVIE_FRAGMENTS_H
#define KX_MP4_MOVIE_FRAGMENTS_H

#include <cstdint>
#include <vector>

#include "Box.h"
#include "Movie.h"

namespace kx_mp4::movie {

/// Goes through the fragments of a movie in order.
class FragmentReader {
public:
    /// The movie is borrowed. `next` has, for each track, the sample that would follow those of
    /// its tables: its decode time and chunk.
    FragmentReader(const Movie& movie, std::vector<Sample> next);

    /// Visits the samples of one fragment. False when something in it does not hold.
    bool Visit(const Box& moof, const SampleVisitor& visit);

private:
    struct Defaults;

    bool VisitTrack(const Box& traf, uint64_t moof, uint64_t& dataEnd, const SampleVisitor& visit);
    bool VisitRun(const Box& trun, const Defaults& defaults, size_t track, uint64_t& position,
                  const SampleVisitor& visit);
    Defaults DefaultsOf(uint32_t id) const;

    const Movie& m_movie;
    std::vector<Sample> m_next;
    uint64_t m_bytesLeft;  // that samples without fields of their own may still claim
};

}  // namespace kx_mp4::movie

#endif  // KX_MP4_MOVIE_FRAGMENTS_H
