#ifndef KX_MP4_SMHD_H
#define KX_MP4_SMHD_H

#include "Atom.h"

/// Sound Media Header Box, 'smhd' - ISO/IEC 14496-12, 12.2.2 - inside 'minf' - constant
///
/// | offset | bytes | field                    |
/// | 8      | 4     | version 0, flags 0       |
/// | 12     | 2 + 2 | balance 0, reserved      |
class CMp4SmhdAtom : public kx_mp4::ConstantAtom<CMp4SmhdAtom> {
public:
    using ConstantAtom::ConstantAtom;

    template <class Out>
    void Put(Out& out) const {
        constexpr uint32_t kSize = 16;
        out.WriteInt32(kSize);
        out.WriteTag("smhd");
        out.WriteInt32(0);
        out.WriteInt16(0);
        out.WriteInt16(0);
    }
};

#endif  // KX_MP4_SMHD_H
