#ifndef KX_MP4_NMHD_H
#define KX_MP4_NMHD_H

#include "Atom.h"
#include "gmin.h"
#include "text.h"

/// Null Media Header Box, 'nmhd' - ISO/IEC 14496-12, 8.4.5.2 - inside 'minf' of an MP4 file's
/// timecode track - container of 'gmin' and 'text', without version and flags of its own
class CMp4NmhdAtom : public kx_mp4::ContainerAtom<CMp4NmhdAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "nmhd";

    explicit CMp4NmhdAtom(IBaseIO* pWriter)
        : ContainerAtom(pWriter), m_gmin(pWriter), m_text(pWriter) {}

    template <class F>
    void ForEachChild(F&& visit) {
        visit(m_gmin);
        visit(m_text);
    }

private:
    CMp4GminAtom m_gmin;
    CMp4TextAtom m_text;
};

namespace kx_mp4 {

/// Null Media Header Box in the strict form of MP4, 'nmhd' - ISO/IEC 14496-12, 8.4.5.2 - inside
/// 'minf' of tracks of captions and timecode - constant
///
/// | offset | bytes | field                |
/// | 8      | 4     | version 0, flags 0   |
class StrictNmhdAtom : public ConstantAtom<StrictNmhdAtom> {
public:
    using ConstantAtom::ConstantAtom;

    template <class Out>
    static constexpr void Put(Out& out) {
        PutBox(out, "nmhd", [](auto& content) { content.WriteInt32(0); });
    }
};
static_assert(SizeOf<StrictNmhdAtom>() == kFullBoxHeaderSize);

}  // namespace kx_mp4

#endif  // KX_MP4_NMHD_H
