#ifndef KX_MP4_GMIN_H
#define KX_MP4_GMIN_H

#include "Atom.h"

/// Base Media Info Atom, 'gmin' - QuickTime File Format - inside 'gmhd', 'nmhd' - direct
///
/// | offset | bytes | field                                              |
/// | 12     | 2 + 6 | graphics mode 0x0040 (dither copy), grey opcolor   |
/// | 20     | 2 + 2 | balance 0, reserved                                |
class CMp4GminAtom : public kx_mp4::DirectAtom<CMp4GminAtom> {
public:
    using DirectAtom::DirectAtom;

    template <class Out>
    static constexpr void Put(Out& out) {
        constexpr uint16_t kDitherCopy = 0x0040;
        constexpr uint16_t kHalf = 0x8000;
        out.WriteInt32(kx_mp4::kBoxHeaderSize);
        out.WriteTag("gmin");
        out.WriteInt8(0);
        out.WriteInt24(0);
        out.WriteInt16(kDitherCopy);
        out.WriteInt16(kHalf);
        out.WriteInt16(kHalf);
        out.WriteInt16(kHalf);
        out.WriteInt16(0);
        out.WriteInt16(0);
    }
};
static_assert(kx_mp4::SizeOf<CMp4GminAtom>() == 24);

#endif  // KX_MP4_GMIN_H
