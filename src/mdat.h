#ifndef KX_MP4_MDAT_H
#define KX_MP4_MDAT_H

#include "Atom.h"

/// Media Data Box, 'mdat' - ISO/IEC 14496-12, 8.1.1 - in the file - direct
///
/// | offset | bytes  | 32-bit form            | 64-bit form                |
/// | 0      | 4      | size, 8 while recording | 1: a 64-bit size follows  |
/// | 4      | 4      | "mdat"                 | "mdat"                     |
/// | 8      | 0 / 8  |                        | size, 1 while recording    |
///
/// The samples follow as they come; the size is only known when recording stops. Sizes include the
/// header.
class CMp4MdatAtom : public CMp4Atom {
public:
    CMp4MdatAtom(IBaseIO* pWriter, bool use64BitSize)
        : CMp4Atom(pWriter), m_bUse64bitSize(use64BitSize) {}

    /// Writes the header.
    void Write() override;
    /// 0: media data never counts into the size of the index.
    uint32_t GetSize() override { return 0; }

    /// Writer position of the header.
    int64_t GetStartPos() const { return m_nStartPos; }

    /// Says that an empty `free` box lies right before this box, so that the 16-byte header has
    /// room when the media data turns out too large for a 32-bit size.
    void SetFreeBoxBefore(bool freeBoxBefore) { m_freeBoxBefore = freeBoxBefore; }
    /// Whether the header can describe media data that ends at this position of the file.
    bool CanEndAt(int64_t end) const;

    /// Sets the size to the data written so far and returns the writer to the end.
    void Update();
    /// Sets the final size and leaves the writer at the end of the data.
    void Finish(const wchar_t* pFileName);

private:
    void WriteLargeHeader(int64_t start, int64_t size);

    int64_t m_nStartPos = 0;
    bool m_bUse64bitSize;
    bool m_freeBoxBefore = false;
};

#endif  // KX_MP4_MDAT_H
