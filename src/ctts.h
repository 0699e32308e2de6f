#ifndef KX_MP4_CTTS_H
#define KX_MP4_CTTS_H

#include "Atom.h"

/// Composition Time to Sample Box, 'ctts' - ISO/IEC 14496-12, 8.6.1.3 - inside 'stbl' of a video
/// track with reordered frames - table
///
/// | offset | bytes | field                                                   |
/// | 8      | 1     | version: 0 when no offset is negative, else 1           |
/// | 12     | 4     | entry count                                             |
/// | 16     | 8 n   | entries: number of consecutive samples, offset of each  |
///
/// An offset is presentation time minus decode time, in ticks of the media. Without an offset
/// other than 0 the box is not written.
class CMp4CttsAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    /// Records the next sample's times, ticks. The difference must fit, see OffsetFits.
    void AddEntry(int64_t nPts, int64_t nDts);
    /// Whether an offset fits the 32 bits that the box has for it.
    static bool OffsetFits(int64_t nPts, int64_t nDts);
    /// Whether any offset is not 0, so that the box is written.
    bool HasOffsets() const { return m_hasOffsets; }

    void Write() override;
    uint32_t GetSize() override;

private:
    struct ENTRY {
        int32_t nCount;
        int32_t nOffset;
    };

    void PutEntry();

    ENTRY m_entry{};
    bool m_hasOffsets = false;
    bool m_hasNegative = false;
};

#endif  // KX_MP4_CTTS_H
