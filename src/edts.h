#ifndef KX_MP4_EDTS_H
#define KX_MP4_EDTS_H

#include "Atom.h"
#include "elst.h"

/// Edit Box, 'edts' - ISO/IEC 14496-12, 8.6.5 - inside 'trak' - container of 'elst'
class CMp4EdtsAtom : public kx_mp4::ContainerAtom<CMp4EdtsAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "edts";

    explicit CMp4EdtsAtom(IBaseIO* pWriter) : ContainerAtom(pWriter), m_elst(pWriter) {}

    void SetUse64bitTime() { m_elst.SetUse64bitTime(); }
    /// See DurationAtom.
    void SetFixedHeaderMode(bool mode) { m_elst.SetFixedHeaderMode(mode); }
    void Update() { m_elst.Update(); }
    void SetDuration(int64_t nDuration) { m_elst.SetDuration(nDuration); }
    void SetEmptyDuration(int64_t duration) { m_elst.SetEmptyDuration(duration); }
    void SetMediaTime(int64_t mediaTime) { m_elst.SetMediaTime(mediaTime); }

    template <class F>
    void ForEachChild(F&& visit) {
        visit(m_elst);
    }

private:
    CMp4ElstAtom m_elst;
};

#endif  // KX_MP4_EDTS_H
