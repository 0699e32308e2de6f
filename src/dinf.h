#ifndef KX_MP4_DINF_H
#define KX_MP4_DINF_H

#include "Atom.h"
#include "dref.h"

/// Data Information Box, 'dinf' - ISO/IEC 14496-12, 8.7.1 - inside 'minf' - container of 'dref'
class CMp4DinfAtom : public kx_mp4::ContainerAtom<CMp4DinfAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "dinf";

    explicit CMp4DinfAtom(IBaseIO* pWriter) : ContainerAtom(pWriter), m_dref(pWriter) {}

    template <class F>
    void ForEachChild(F&& visit) {
        visit(m_dref);
    }

private:
    CMp4DrefAtom m_dref;
};

#endif  // KX_MP4_DINF_H
