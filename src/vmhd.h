#ifndef KX_MP4_VMHD_H
#define KX_MP4_VMHD_H

#include "Atom.h"

/// Video Media Header Box, 'vmhd' - ISO/IEC 14496-12, 12.1.2 - inside 'minf' - constant
///
/// | offset | bytes | field                                       |
/// | 8      | 4     | version 0, flags 1 (as the standard asks)   |
/// | 12     | 2 + 6 | graphics mode 0 (copy), opcolor 0, 0, 0     |
class CMp4VmhdAtom : public kx_mp4::ConstantAtom<CMp4VmhdAtom> {
public:
    using ConstantAtom::ConstantAtom;

    template <class Out>
    void Put(Out& out) const {
        constexpr uint32_t kSize = 20;
        constexpr uint32_t kFlags = 1;
        out.WriteInt32(kSize);
        out.WriteTag("vmhd");
        out.WriteInt32(kFlags);
        out.WriteInt64(0);
    }
};

#endif  // KX_MP4_VMHD_H
