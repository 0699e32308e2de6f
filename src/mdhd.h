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

    /// What varies.
    struct Values {
        int32_t timeScale = 1000;
    };

    using DurationAtom::DurationAtom;

    /// Ticks per second.
    void SetTimeScale(int32_t nTimeScale) { m_values.timeScale = nTimeScale; }
    int32_t GetTimeScale() const { return m_values.timeScale; }

    template <class Out>
    static constexpr void PutHead(Out& out, bool wide, const Values& values) {
        kx_mp4::PutFullBoxHeader(out, "mdhd", wide ? 1 : 0);
        kx_mp4::PutTime(out, wide, 0);
        kx_mp4::PutTime(out, wide, 0);
        out.WriteInt32(kx_mp4::Low32(values.timeScale));
    }
    template <class Out>
    static constexpr void PutTail(Out& out, bool, const Values&) {
        constexpr uint16_t kUndetermined = 0x55C4;  // ISO 639-2 "und", 5 bits a letter
        out.WriteInt16(kUndetermined);
        out.WriteInt16(0);
    }

private:
    friend DurationAtom;

    Values m_values;
};
static_assert(kx_mp4::SizeOf<CMp4MdhdAtom>(false, 0, CMp4MdhdAtom::Values{}) == 32 &&
              kx_mp4::SizeOf<CMp4MdhdAtom>(true, 0, CMp4MdhdAtom::Values{}) == 44);

#endif  // KX_MP4_MDHD_H
