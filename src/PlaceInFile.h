/// @file
/// Where a box lies that is written early and brought up to date in place (fixed-header mode).
#ifndef KX_MP4_PLACEINFILE_H
#define KX_MP4_PLACEINFILE_H

#include <cstdint>
#include <cstdio>

#include "BaseIO.h"

namespace kx_mp4 {

/// The position of a box in its writer. Position 0 stands for none: an `ftyp` is there.
class PlaceInFile {
public:
    /// The box is about to be written.
    void Mark(IBaseIO& writer) { m_start = static_cast<int64_t>(writer.Ftell()); }
    /// Whether the box lies in the file.
    bool IsKnown() const { return m_start != 0; }

    /// Writes what `put` writes over the bytes of the box from `offset` on; the writer stays behind
    /// them.
    template <class Put>
    void Rewrite(IBaseIO& writer, uint32_t offset, Put&& put) const {
        writer.Seek(m_start + offset, SEEK_SET);
        put(writer);
    }

private:
    int64_t m_start = 0;
};

}  // namespace kx_mp4

#endif  // KX_MP4_PLACEINFILE_H
