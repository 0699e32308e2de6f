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
    static constexpr void Put(Out& out) {
        kx_mp4::PutBox(out, "fiel", [](auto& content) {
            constexpr uint8_t kProgressive = 1;
            content.WriteInt8(kProgressive);
            content.WriteInt8(0);
        });
    }
};
static_assert(kx_mp4::SizeOf<CMp4FielAtom>() == 10);

#endif  // KX_MP4_FIEL_H
