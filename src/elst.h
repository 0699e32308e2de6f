#ifndef KX_MP4_ELST_H
#define KX_MP4_ELST_H

#include "Atom.h"

/// Edit List Box, 'elst' - ISO/IEC 14496-12, 8.6.6 - inside 'edts' - leaf
///
/// | offset v0/v1 | bytes v0/v1 | field                                              |
/// | 12 / 12      | 4           | entry count: 1                                     |
/// | 16 / 16      | 4 / 8       | segment duration, milliseconds                     |
/// | 20 / 24      | 4 / 8       | media time the edit starts at, media ticks         |
/// | 24 / 32      | 4           | media rate 1.0                                     |
///
/// One edit spans the whole track; a track that starts later than the movie gets no empty edit.
class CMp4ElstAtom : public CMp4LeafAtom<CMp4ElstAtom> {
public:
    using CMp4LeafAtom::CMp4LeafAtom;

    void SetUse64bitTime() { m_b64bitTime = true; }
    /// Milliseconds.
    void SetDuration(int64_t nDuration) { m_nTotallDuration = nDuration; }
    /// Composition time of the first picture shown, in media ticks from the first decode time.
    void SetMediaTime(int64_t mediaTime) { m_mediaTime = mediaTime; }

    void Write() override;
    /// Rewrites the segment duration in the file and leaves the writer behind it.
    void Update();

    template <class Out>
    void Put(Out& out) const {
        constexpr uint32_t kEntryCount = 1;
        constexpr uint32_t kNormalRate = 0x00010000;  // 16 bits integer, 16 bits fraction
        PutFullBoxHeader(out, "elst", m_b64bitTime ? 1 : 0);
        out.WriteInt32(kEntryCount);
        PutTime(out, m_b64bitTime, m_nTotallDuration);
        PutTime(out, m_b64bitTime, m_mediaTime);
        out.WriteInt32(kNormalRate);
    }

private:
    bool m_b64bitTime = false;
    int64_t m_nTotallDuration = 0;
    uint64_t m_startPos = 0;
    int64_t m_mediaTime = 0;
};

#endif  // KX_MP4_ELST_H
