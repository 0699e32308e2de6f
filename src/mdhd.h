#ifndef KX_MP4_MDHD_H
#define KX_MP4_MDHD_H

#include "Atom.h"

/// Media Header Box, 'mdhd' - ISO/IEC 14496-12, 8.4.2 - inside 'mdia' - leaf
///
/// | offset v0/v1 | bytes v0/v1 | field                                |
/// | 12 / 12      | 8 / 16      | creation, modification time: 0       |
/// | 20 / 28      | 4           | timescale, ticks per second          |
/// | 24 / 32      | 4 / 8       | duration, ticks of this timescale    |
/// | 28 / 40      | 2           | language "und"                       |
/// | 30 / 42      | 2           | quality 0                            |
class CMp4MdhdAtom : public CMp4LeafAtom<CMp4MdhdAtom> {
public:
    using CMp4LeafAtom::CMp4LeafAtom;

    void SetUse64bitTime() { m_b64bitTime = true; }
    /// Ticks per second.
    void SetTimeScale(int32_t nTimeScale) { m_nTimeScale = nTimeScale; }
    int32_t GetTimeScale() const { return m_nTimeScale; }
    /// Ticks of the media's timescale.
    void SetDuration(int64_t nDuration) { m_nTotallDuration = nDuration; }

    void Write() override;
    /// Rewrites the duration in the file and leaves the writer behind it.
    void Update();

    template <class Out>
    void Put(Out& out) const {
        constexpr uint16_t kUndetermined = 0x55C4;  // ISO 639-2 "und", 5 bits a letter
        PutFullBoxHeader(out, "mdhd", m_b64bitTime ? 1 : 0);
        PutTime(out, m_b64bitTime, 0);
        PutTime(out, m_b64bitTime, 0);
        out.WriteInt32(Low32(m_nTimeScale));
        PutTime(out, m_b64bitTime, m_nTotallDuration);
        out.WriteInt16(kUndetermined);
        out.WriteInt16(0);
    }

private:
    bool m_b64bitTime = false;
    int32_t m_nTimeScale = 1000;
    int64_t m_nTotallDuration = 0;
    uint64_t m_startPos = 0;
};

#endif  // KX_MP4_MDHD_H
