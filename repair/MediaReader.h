/// @file
/// Sequential reading of the media data, and whether bytes of it look as if never written.
#ifndef KX_MP4_REPAIR_MEDIAREADER_H
#define KX_MP4_REPAIR_MEDIAREADER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "PosixFile.h"

namespace kx_mp4 {

/// The unit in which systems write files to disk.
constexpr uint64_t kPageBytes = 4096;

// Zeros in a row that are taken for bytes that were never written. Emulation prevention keeps three
// of them out of NAL units, and the length before one has up to three; a caption or a counter has
// few as well. Coefficients and padding, of AAC and ProRes, have no such rule.
constexpr size_t kZerosOfNoMarkedSample = 8;
constexpr size_t kZerosOfNoSample = 64;

/// Reads a file through one window that follows the reading.
class MediaReader {
public:
    /// Bytes from `limit` on do not exist for this reader. The file is borrowed.
    MediaReader(const PosixFile& file, uint64_t limit);

    uint64_t Limit() const { return m_limit; }
    /// Reads exactly `size` bytes; false when they are not all there.
    bool Read(uint64_t position, void* out, size_t size);
    /// Whether [begin, end) touches bytes that look as if they had never been written: at least
    /// `run` zeros up to the end, or from the beginning, of one of its pages.
    bool LooksUnwritten(uint64_t begin, uint64_t end, size_t run);

private:
    struct Bytes {
        const uint8_t* data;
        size_t size;
    };
    Bytes Page(uint64_t position);
    bool Fill(uint64_t position);

    const PosixFile& m_file;
    uint64_t m_limit;
    uint64_t m_windowStart = 0;
    std::vector<uint8_t> m_window;
};

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_MEDIAREADER_H
