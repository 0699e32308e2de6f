#ifndef KX_MP4_FIEL_H
#define KX_MP4_FIEL_H

#include "Atom.h"

/// Field Handling Atom, 'fiel' - QuickTime File Format - inside a visual sample entry - constant
///
/// | offset | bytes | field                         |
/// | 8      | 1     | field count: 1 progressive    |
/// | 9      | 1     | field detail: 0               |
class CMp4FielAtom : public kx_mp4::ConstantAtom<CMp4FielAtom> {
public:
    using ConstantAtom::ConstantAtom;

    template <class Out>
    void Put(Out& out) const {
        constexpr uint32_t kSize = 10;
        out.WriteInt32(kSize);
        out.WriteTag("fiel");
        out.WriteInt8(m_mode);
        out.WriteInt8(0);
    }

private:
    uint8_t m_mode = 1;
};

#endif  // KX_MP4_FIEL_H
