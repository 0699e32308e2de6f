#ifndef KX_MP4_FIEL_H
#define KX_MP4_FIEL_H

#include "Atom.h"
#include "kx_mp4/presentation.h"

/// Field Handling Atom, 'fiel' - QuickTime File Format - inside a visual sample entry - constant
///
/// | offset | bytes | field                                                |
/// | 8      | 1     | field count: 1 progressive, 2                        |
/// | 9      | 1     | the one that comes first: 0 none, 1 top, 6 bottom    |
class CMp4FielAtom : public kx_mp4::ConstantAtom<CMp4FielAtom> {
public:
    using ConstantAtom::ConstantAtom;

    template <class Out>
    static constexpr void Put(Out& out, uint32_t order = MP4_FIELDS_PROGRESSIVE) {
        kx_mp4::PutBox(out, "fiel", [order](auto& content) {
            constexpr uint8_t kTopFieldFirst = 1;
            constexpr uint8_t kBottomFieldFirst = 6;
            const bool top = order == MP4_FIELDS_TOP_FIRST;
            const bool bottom = order == MP4_FIELDS_BOTTOM_FIRST;
            content.WriteInt8(top || bottom ? 2 : 1);
            content.WriteInt8(top ? kTopFieldFirst : bottom ? kBottomFieldFirst : uint8_t{0});
        });
    }
};
static_assert(kx_mp4::SizeOf<CMp4FielAtom>() == 10);

#endif  // KX_MP4_FIEL_H
