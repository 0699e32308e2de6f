#ifndef KX_MP4_MDHD_H
#define KX_MP4_MDHD_H

#include "DurationAtom.h"

/// Media Header Box, 'mdhd' - ISO/IEC 14496-12, 8.4.2 - inside 'mdia' - leaf
///
/// | offset v0/v1 | bytes v0/v1 | field                                |
/// | 12 / 12      | 8 / 16      | creation, modification time: 0       |
/// | 20 / 28      | 4           | timescale, ticks per second          |
/// | 24 / 32      | 4 / 8       | duration, ticks of this timescale    |
/// | 28 / 40      | 2           | language "und"                       |
/// | 30 / 42      | 2           | quality 0                            |
class CMp4MdhdAtom : public kx_mp4::DurationAtom<CMp4MdhdAtom> {
public:
    static constexpr const char* kSource = "src/mdhd";
    static constexpr const char* kNotWritten = "logic error";
    static constexpr int DurationOffset(bool wide) { return wide ? 32 : 24; }

    using DurationAtom::DurationAtom;

    /// Ticks per second.
    void SetTimeScale(int32_t nTimeScale) { m_nTimeScale = nTimeScale; }
    int32_t GetTimeScale() const { return m_nTimeScale; }

    template <class Out>
    void Put(Out& out) const {
        constexpr uint16_t kUndetermined = 0x55C4;  // ISO 639-2 "und", 5 bits a letter
        const bool wide = Is64bit();
        kx_mp4::PutFullBoxHeader(out, "mdhd", wide ? 1 : 0);
        kx_mp4::PutTime(out, wide, 0);
        kx_mp4::PutTime(out, wide, 0);
        out.WriteInt32(kx_mp4::Low32(m_nTimeScale));
        kx_mp4::PutTime(out, wide, WrittenDuration());
        out.WriteInt16(kUndetermined);
        out.WriteInt16(0);
    }

private:
    int32_t m_nTimeScale = 1000;
};

#endif  // KX_MP4_MDHD_H
