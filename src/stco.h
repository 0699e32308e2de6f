#ifndef KX_MP4_STCO_H
#define KX_MP4_STCO_H

#include "SampleTable.h"

/// Chunk Offset Box, 'stco' - ISO/IEC 14496-12, 8.7.5 - inside 'stbl' - table
///
/// | entry offset | bytes | field                                  |
/// | 0            | 4     | position of a chunk's first byte in the file |
class CMp4StcoAtom : public kx_mp4::SampleTableAtom {
public:
    explicit CMp4StcoAtom(IBaseIO* pWriter) : SampleTableAtom(pWriter, "stco", sizeof(uint32_t)) {}

    /// Records the low 32 bits of a position; false when a reservation is full.
    bool AddChunk(int32_t nOffset);
    /// Reserves room for `num` chunks.
    void SetMaxFrame(uint32_t num) { Reserve(num, false); }
    /// Rewrites in place what came since the last time.
    void Update();
    void Write() override { WriteTable(BufferedEntries()); }

    /// Calls `visit` with every recorded position, unsigned.
    template <class Visit>
    void ForEachChunk(Visit&& visit) {
        const uint8_t* entry = m_buffer.GetBuffer();
        for (uint32_t i = 0; i < m_frameNum; ++i, entry += 4) {
            visit(uint32_t{entry[0]} << 24 | uint32_t{entry[1]} << 16 | uint32_t{entry[2]} << 8 |
                  uint32_t{entry[3]});
        }
    }
};

#endif  // KX_MP4_STCO_H
