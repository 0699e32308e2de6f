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
    static constexpr void Put(Out& out) {
        constexpr uint32_t kEntryCount = 1;
        kx_mp4::PutFullBoxHeader(out, "dref");
        out.WriteInt32(kEntryCount);
        kx_mp4::PutBox(out, "url ", [](auto& entry) {
            constexpr uint32_t kInThisFile = 1;
            entry.WriteInt32(kInThisFile);
        });
    }
};
static_assert(kx_mp4::SizeOf<CMp4DrefAtom>() == 28);

#endif  // KX_MP4_DREF_H
