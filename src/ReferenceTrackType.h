#ifndef KX_MP4_REFERENCETRACKTYPE_H
#define KX_MP4_REFERENCETRACKTYPE_H

#include <cstdint>

#include "Atom.h"

/// How one track refers to others.
enum REFERENCE_TRACK_TYPE {
    REFERENCE_TRACK_CDSC = 0,
    REFERENCE_TRACK_CHAP = 1,
    REFERENCE_TRACK_CLCP = 2,
    REFERENCE_TRACK_FALL = 3,
    REFERENCE_TRACK_FOLW = 4,
    REFERENCE_TRACK_FORC = 5,
    REFERENCE_TRACK_HINT = 6,
    REFERENCE_TRACK_SCPT = 7,
    REFERENCE_TRACK_SSRC = 8,
    REFERENCE_TRACK_SYNC = 9,
    REFERENCE_TRACK_TMCD = 10,
    REFERENCE_TRACK_LEN = 11,  ///< Count, not a type.
};

/// Track Reference Type Box - ISO/IEC 14496-12, 8.3.3.2 - inside 'tref' - direct
///
/// | offset | bytes | field                                                  |
/// | 4      | 4     | "tmcd" for a timecode reference, else four zero bytes  |
/// | 8      | 4 n   | IDs of the tracks referred to                          |
class CMp4RefTrackTypeAtom : public kx_mp4::DirectAtom<CMp4RefTrackTypeAtom> {
public:
    using DirectAtom::DirectAtom;

    /// Takes a REFERENCE_TRACK_TYPE; anything else leaves the type as it was.
    void SetRefType(int nType) {
        if (nType >= 0 && nType < REFERENCE_TRACK_LEN)
            m_refType = static_cast<REFERENCE_TRACK_TYPE>(nType);
    }
    bool IsRefTrack(int nTrackID) const {
        for (int32_t i = 0; i < m_nIDCount; ++i) {
            if (m_nIDs[i] == nTrackID) return true;
        }
        return false;
    }
    /// Adds an ID unless it is there already; past eight IDs it is ignored.
    void SetRefTrack(int nTrackID) {
        if (m_nIDCount < kMaxIds && !IsRefTrack(nTrackID)) m_nIDs[m_nIDCount++] = nTrackID;
    }

    template <class Out>
    void Put(Out& out) const {
        kx_mp4::PutBoxHeader(
            out, m_refType == REFERENCE_TRACK_TMCD ? kx_mp4::FourCC("tmcd") : kx_mp4::FourCC());
        for (int32_t i = 0; i < m_nIDCount; ++i)
            out.WriteInt32(kx_mp4::Low32(m_nIDs[i]));
    }

private:
    static constexpr int32_t kMaxIds = 8;

    REFERENCE_TRACK_TYPE m_refType = REFERENCE_TRACK_TMCD;
    int32_t m_nIDs[kMaxIds] = {};
    int32_t m_nIDCount = 0;
};

#endif  // KX_MP4_REFERENCETRACKTYPE_H
