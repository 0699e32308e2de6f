#ifndef KX_MP4_GMHD_H
#define KX_MP4_GMHD_H

#include "Atom.h"
#include "gmin.h"
#include "tcmi.h"
#include "text.h"

/// Base Media Information Header Atom, 'gmhd' - QuickTime File Format - inside 'minf' -
/// container of 'gmin', 'text' and 'tmcd' with 'tcmi'
class CMp4GmhdAtom : public kx_mp4::ContainerAtom<CMp4GmhdAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "gmhd";

    explicit CMp4GmhdAtom(IBaseIO* pWriter)
        : ContainerAtom(pWriter), m_gmin(pWriter), m_text(pWriter), m_tcmi(pWriter) {}

    template <class F>
    void ForEachChild(F&& visit) {
        visit(m_gmin);
        visit(m_text);
        visit(m_tcmi);
    }

private:
    CMp4GminAtom m_gmin;
    CMp4TextAtom m_text;
    CMp4TcmiAtom m_tcmi;
};

#endif  // KX_MP4_GMHD_H
