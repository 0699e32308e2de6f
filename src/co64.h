#ifndef KX_MP4_CO64_H
#define KX_MP4_CO64_H

#include "SampleTable.h"

/// Chunk Large Offset Box, 'co64' - ISO/IEC 14496-12, 8.7.5 - inside 'stbl' - table
///
/// | entry offset | bytes | field                                  |
/// | 0            | 8     | position of a chunk's first byte in the file |
class CMp4Co64Atom : public kx_mp4::SampleTableAtom {
public:
    explicit CMp4Co64Atom(IBaseIO* pWriter) : SampleTableAtom(pWriter, "co64", sizeof(uint64_t)) {}

    /// Records a position; false when a reservation is full.
    bool AddChunk(int64_t nOffset);
    /// Reserves room for `num` chunks.
    void SetMaxFrame(uint32_t num);
    /// Rewrites in place what came since the last time.
    void Update();
    void Write() override { WriteTable(m_frameNum); }
};

#endif  // KX_MP4_CO64_H
