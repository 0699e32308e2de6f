/// @file
/// A track's chunk offsets: 32-bit ('stco') until 64-bit ones are asked for ('co64').
#ifndef KX_MP4_CHUNKOFFSETS_H
#define KX_MP4_CHUNKOFFSETS_H

#include "co64.h"
#include "stco.h"

namespace kx_mp4 {

class ChunkOffsets {
public:
    explicit ChunkOffsets(IBaseIO* pWriter) : m_stco(pWriter), m_co64(pWriter) {}

    /// Moves to 64-bit offsets and carries the recorded ones over. Does nothing once 32-bit room is
    /// reserved: it lies in the file, and what is behind it cannot move.
    void SetUse64BitSize();

    /// Records a position; false when a reservation is full or has no room for one past 4 GiB.
    bool AddChunk(int64_t nOffset) {
        if (m_bUse64BitSize) return m_co64.AddChunk(nOffset);
        if (m_stco.IsReserved() && nOffset > int64_t{UINT32_MAX})
            return m_stco.Refuse("src/ChunkOffsets", __LINE__, "AddChunk");
        return m_stco.AddChunk(static_cast<int32_t>(Low32(nOffset)));
    }
    void SetMaxFrame(uint32_t num) {
        m_bUse64BitSize ? m_co64.SetMaxFrame(num) : m_stco.SetMaxFrame(num);
    }
    void Update() { m_bUse64BitSize ? m_co64.Update() : m_stco.Update(); }
    /// The box that the movie has.
    CMp4Atom& Selected() {
        if (m_bUse64BitSize) return m_co64;
        return m_stco;
    }

private:
    bool m_bUse64BitSize = false;
    CMp4StcoAtom m_stco;
    CMp4Co64Atom m_co64;
};

inline void ChunkOffsets::SetUse64BitSize() {
    if (m_bUse64BitSize || m_stco.IsReserved()) return;
    m_bUse64BitSize = true;
    m_stco.ForEachChunk([this](uint32_t offset) { m_co64.AddChunk(offset); });
}

}  // namespace kx_mp4

#endif  // KX_MP4_CHUNKOFFSETS_H
