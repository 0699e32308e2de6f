#ifndef KX_MP4_MVEX_H
#define KX_MP4_MVEX_H

#include <memory>
#include <vector>

#include "Atom.h"

/// Track Extends Box, 'trex' - ISO/IEC 14496-12, 8.8.3 - inside 'mvex' - constant
///
/// | offset | bytes   | field                                              |
/// | 12     | 4       | track ID                                           |
/// | 16     | 4       | sample description index: 1                        |
/// | 20     | 4, 4, 4 | defaults of duration, size, flags: 0, none is used |
class CMp4TrexAtom : public kx_mp4::ConstantAtom<CMp4TrexAtom> {
public:
    CMp4TrexAtom(IBaseIO* pWriter, int32_t trackId) : ConstantAtom(pWriter), m_trackId(trackId) {}

    template <class Out>
    void Put(Out& out) const {
        Put(out, m_trackId);
    }
    template <class Out>
    static constexpr void Put(Out& out, int32_t trackId) {
        constexpr uint32_t kDescription = 1;
        out.WriteInt32(kSize);
        out.WriteTag("trex");
        out.WriteInt32(0);
        out.WriteInt32(kx_mp4::Low32(trackId));
        out.WriteInt32(kDescription);
        out.WriteInt32(0);
        out.WriteInt64(0);
    }

    static constexpr uint32_t kSize = 32;

private:
    int32_t m_trackId;
};
static_assert(kx_mp4::SizeOf<CMp4TrexAtom>(0) == CMp4TrexAtom::kSize);

/// Movie Extends Box, 'mvex' - ISO/IEC 14496-12, 8.8.1 - inside 'moov' of a live index - container
/// of a 'trex' for every track
///
/// It announces that the samples are listed by the movie fragments of the file.
class CMp4MvexAtom : public kx_mp4::ContainerAtom<CMp4MvexAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "mvex";

    using ContainerAtom::ContainerAtom;

    void AddTrack(int32_t trackId) {
        m_tracks.push_back(std::make_unique<CMp4TrexAtom>(m_pWriter, trackId));
    }

    template <class F>
    void ForEachChild(F&& visit) {
        for (const auto& track : m_tracks)
            visit(*track);
    }

private:
    std::vector<std::unique_ptr<CMp4TrexAtom>> m_tracks;
};

#endif  // KX_MP4_MVEX_H
