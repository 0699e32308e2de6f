#ifndef KX_MP4_FREE_H
#define KX_MP4_FREE_H

#include "Atom.h"

/// Free Space Box, 'free' - ISO/IEC 14496-12, 8.1.2 - in the file, MP4 only - constant
///
/// Empty. It stands in front of the media data box, whose header can grow over it when the media
/// data passes 4 GiB.
class CMp4FreeAtom : public kx_mp4::ConstantAtom<CMp4FreeAtom> {
public:
    using ConstantAtom::ConstantAtom;

    template <class Out>
    static constexpr void Put(Out& out) {
        kx_mp4::PutBoxHeader(out, "free");
    }
};
static_assert(kx_mp4::SizeOf<CMp4FreeAtom>() == 8);

#endif  // KX_MP4_FREE_H
