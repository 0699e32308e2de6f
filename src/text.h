#ifndef KX_MP4_TEXT_H
#define KX_MP4_TEXT_H

#include "Atom.h"

/// Text Media Information Atom, 'text' - QuickTime File Format - inside 'gmhd', 'nmhd' - leaf
///
/// | offset | bytes | field         |
/// | 8      | 36    | unity matrix  |
class CMp4TextAtom : public CMp4LeafAtom<CMp4TextAtom> {
public:
    using CMp4LeafAtom::CMp4LeafAtom;

    template <class Out>
    void Put(Out& out) const {
        PutBoxHeader(out, "text");
        PutUnityMatrix(out);
    }
};

#endif  // KX_MP4_TEXT_H
