#ifndef KX_MP4_TREF_H
#define KX_MP4_TREF_H

#include <memory>
#include <utility>
#include <vector>

#include "Atom.h"
#include "ReferenceTrackType.h"

/// Track Reference Box, 'tref' - ISO/IEC 14496-12, 8.3.3 - inside 'trak' - container
class CMp4RefTrakAtom : public kx_mp4::ContainerAtom<CMp4RefTrakAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "tref";

    using ContainerAtom::ContainerAtom;

    void AddRefTrackType(std::shared_ptr<CMp4RefTrackTypeAtom> refTrackType) {
        m_arrRefTrackTypes.push_back(std::move(refTrackType));
    }

    template <class F>
    void ForEachChild(F&& visit) {
        for (const auto& child : m_arrRefTrackTypes)
            visit(*child);
    }

private:
    std::vector<std::shared_ptr<CMp4RefTrackTypeAtom>> m_arrRefTrackTypes;
};

#endif  // KX_MP4_TREF_H
