/// @file
/// The movie reader of kxmap, strict: it throws MovieError, which says what does not hold, when
/// children do not fill their parent or a table lies.
#ifndef KX_MP4_TESTS_MOVIE_READER_H
#define KX_MP4_TESTS_MOVIE_READER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BaseIO.h"
#include "Movie.h"

using kx_mp4::movie::Box;
using kx_mp4::movie::Bytes;
using kx_mp4::movie::Sample;

/// A track with its samples.
struct Track : kx_mp4::movie::Track {
    uint64_t chunks = 0;
    int64_t lastDuration = 0;  ///< Of the last sample.
    std::vector<Sample> samples;
};

class MovieReader {
public:
    explicit MovieReader(Bytes file);
    explicit MovieReader(std::shared_ptr<const kx_mp4::movie::BoxSource> source);
    /// For outputs that are not kept whole: `byteAt` answers any position below `size`.
    MovieReader(uint64_t size, std::function<uint8_t(uint64_t)> byteAt);

    /// The file as a box whose children are the boxes of the top level.
    const Box& File() const { return m_movie.boxes.file; }
    const Box& At(const std::string& path) const { return File().At(path); }
    const Box* Find(const std::string& path) const { return File().Find(path); }
    const std::vector<Track>& Tracks() const { return m_tracks; }
    /// The first track with this handler type; throws without one.
    const Track& TrackOf(const std::string& handler) const;
    Bytes SampleBytes(const Sample& sample) const;

private:
    kx_mp4::movie::Movie m_movie;
    std::vector<Track> m_tracks;
};

/// The whole content of a file; empty when it cannot be read.
Bytes ReadFile(const std::string& path);
/// What lies in a memory stream.
Bytes BytesOf(CBufferIO& stream);
/// Bytes from hexadecimal digits; blanks are ignored.
Bytes Hex(const std::string& digits);
Bytes operator+(Bytes left, const Bytes& right);

#endif  // KX_MP4_TESTS_MOVIE_READER_H
