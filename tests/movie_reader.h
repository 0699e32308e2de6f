/// @file
/// A reader of ISO base media files (ISO/IEC 14496-12) and QuickTime movies that knows nothing of
/// the library: it is the tests' second opinion. It is strict, and throws std::runtime_error with
/// the box and its position when children do not fill their parent or a table lies.
#ifndef KX_MP4_TESTS_MOVIE_READER_H
#define KX_MP4_TESTS_MOVIE_READER_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "BaseIO.h"

using Bytes = std::vector<uint8_t>;

/// One box. Positions given to the accessors count from the box's first byte; reading outside the
/// box throws.
struct Box {
    std::string type;
    uint64_t offset = 0;  ///< In the file.
    uint64_t size = 0;    ///< With its header.
    uint32_t headerSize = 8;
    std::vector<Box> children;
    std::function<uint8_t(uint64_t)> byteAt;

    uint64_t Uint(uint64_t position, int width) const;
    uint8_t U8(uint64_t position) const { return static_cast<uint8_t>(Uint(position, 1)); }
    uint16_t U16(uint64_t position) const { return static_cast<uint16_t>(Uint(position, 2)); }
    uint32_t U32(uint64_t position) const { return static_cast<uint32_t>(Uint(position, 4)); }
    uint64_t U64(uint64_t position) const { return Uint(position, 8); }
    std::string Text(uint64_t position, uint64_t length) const;
    Bytes Content(uint64_t position, uint64_t length) const;

    /// A descendant by its path, such as "trak[1]/mdia/minf"; null without one.
    const Box* Find(const std::string& path) const;
    /// The same; throws without one.
    const Box& At(const std::string& path) const;
    /// The types of the children, separated by blanks.
    std::string ChildTypes() const;
    /// The box as readable text: types and sizes as a tree, contents as hexadecimal words.
    std::string Dump(int depth = 0) const;
};

struct Sample {
    uint64_t offset = 0;
    uint32_t size = 0;
    int64_t dts = 0;  ///< Media ticks from the first sample.
    int64_t cts = 0;
    bool sync = true;
};

/// What a player learns of a track.
struct Track {
    uint32_t id = 0;
    std::string handler;
    uint32_t timescale = 0;
    uint64_t duration = 0;  ///< Of the media, in its ticks.
    std::string entryType;
    uint32_t chunks = 0;
    int64_t lastDuration = 0;  ///< Of the last sample.
    std::vector<Sample> samples;
    const Box* box = nullptr;
};

class MovieReader {
public:
    explicit MovieReader(Bytes file);
    /// For outputs that are not kept whole: `byteAt` answers any position below `size`.
    MovieReader(uint64_t size, std::function<uint8_t(uint64_t)> byteAt);

    /// The file as a box whose children are the boxes of the top level.
    const Box& File() const { return m_file; }
    const Box& At(const std::string& path) const { return m_file.At(path); }
    const Box* Find(const std::string& path) const { return m_file.Find(path); }
    const std::vector<Track>& Tracks() const { return m_tracks; }
    /// The first track with this handler type; throws without one.
    const Track& TrackOf(const std::string& handler) const;
    Bytes SampleBytes(const Sample& sample) const;

private:
    Box m_file;
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
