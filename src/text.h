#ifndef KX_MP4_TEXT_H
#define KX_MP4_TEXT_H

#include "Atom.h"

/// Text Media Information Atom, 'text' - QuickTime File Format - inside 'gmhd', 'nmhd' - leaf
///
/// | offset | bytes | field         |
/// | 8      | 36    | unity matrix  |
class CMp4TextAtom : public kx_mp4::LeafAtom<CMp4TextAtom> {
public:
    using LeafAtom::LeafAtom;

    template <class Out>
    static constexpr void Put(Out& out) {
        kx_mp4::PutBoxHeader(out, "text");
        kx_mp4::PutUnityMatrix(out);
    }
};
static_assert(kx_mp4::SizeOf<CMp4TextAtom>() == 44);

#endif  // KX_MP4_TEXT_H
