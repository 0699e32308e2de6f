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
    static constexpr void Put(Out& out) {
        kx_mp4::PutBox(out, "smhd", [](auto& content) {
            content.WriteInt32(0);
            content.WriteInt16(0);
            content.WriteInt16(0);
        });
    }
};
static_assert(kx_mp4::SizeOf<CMp4SmhdAtom>() == 16);

#endif  // KX_MP4_SMHD_H
