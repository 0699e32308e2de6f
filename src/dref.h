#ifndef KX_MP4_DREF_H
#define KX_MP4_DREF_H

#include "Atom.h"

/// Data Reference Box, 'dref' - ISO/IEC 14496-12, 8.7.2 - inside 'dinf' - leaf
///
/// | offset | bytes | field                                                            |
/// | 12     | 4     | entry count: 1                                                   |
/// | 16     | 12    | one 'url ' entry of flags 1: the media data is in this file      |
class CMp4DrefAtom : public kx_mp4::LeafAtom<CMp4DrefAtom> {
public:
    using LeafAtom::LeafAtom;

    template <class Out>
    void Put(Out& out) const {
        constexpr uint32_t kEntryCount = 1;
        constexpr uint32_t kInThisFile = 1;
        kx_mp4::PutFullBoxHeader(out, "dref");
        out.WriteInt32(kEntryCount);
        out.WriteInt32(kx_mp4::kFullBoxHeaderSize);
        out.WriteTag("url ");
        out.WriteInt32(kInThisFile);
    }
};

#endif  // KX_MP4_DREF_H
