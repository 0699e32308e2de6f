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
    static constexpr void Put(Out& out) {
        kx_mp4::PutBox(out, "vmhd", [](auto& content) {
            constexpr uint32_t kFlags = 1;
            content.WriteInt32(kFlags);
            content.WriteInt64(0);
        });
    }
};
static_assert(kx_mp4::SizeOf<CMp4VmhdAtom>() == 20);

#endif  // KX_MP4_VMHD_H
