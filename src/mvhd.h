#ifndef KX_MP4_MVHD_H
#define KX_MP4_MVHD_H

#include "DurationAtom.h"

/// Movie Header Box, 'mvhd' - ISO/IEC 14496-12, 8.2.2 - inside 'moov' - leaf
///
/// | offset v0/v1 | bytes v0/v1 | field                                        |
/// | 12 / 12      | 8 / 16      | creation, modification time: 0               |
/// | 20 / 28      | 4           | timescale: 1000, or one that fits all tracks |
/// | 24 / 32      | 4 / 8       | duration, ticks of this timescale            |
/// | 28 / 40      | 4, 2        | rate 1.0, volume 1.0                         |
/// | 34 / 46      | 10          | reserved                                     |
/// | 44 / 56      | 36          | unity matrix                                 |
/// | 80 / 92      | 24          | pre-defined                                  |
/// | 104 / 116    | 4           | next track ID                                |
class CMp4MvhdAtom : public kx_mp4::DurationAtom<CMp4MvhdAtom> {
public:
    static constexpr const char* kSource = "src/mvhd";
    static constexpr const char* kNotWritten = "logic error";

    /// What varies.
    struct Values {
        int32_t maxTrackId = 1;
        uint32_t timeScale = 1000;
    };

    using DurationAtom::DurationAtom;

    void SetMaxTrakId(int32_t nId) { m_values.maxTrackId = nId; }
    /// Ticks per second of all durations at the movie's level.
    void SetTimeScale(uint32_t timeScale) { m_values.timeScale = timeScale; }
    uint32_t GetTimeScale() const { return m_values.timeScale; }

    template <class Out>
    static constexpr void PutHead(Out& out, bool wide, const Values& values) {
        kx_mp4::PutFullBoxHeader(out, "mvhd", wide ? 1 : 0);
        kx_mp4::PutTime(out, wide, 0);
        kx_mp4::PutTime(out, wide, 0);
        out.WriteInt32(values.timeScale);
    }
    template <class Out>
    static constexpr void PutTail(Out& out, bool, const Values& values) {
        constexpr uint32_t kNormalRate = 0x00010000;  // 16.16
        constexpr uint16_t kFullVolume = 0x0100;      // 8.8
        out.WriteInt32(kNormalRate);
        out.WriteInt16(kFullVolume);
        out.WriteInt16(0);
        out.WriteInt64(0);
        kx_mp4::PutUnityMatrix(out);
        for (int i = 0; i < 6; ++i)
            out.WriteInt32(0);
        out.WriteInt32(kx_mp4::Low32(int64_t{values.maxTrackId} + 1));
    }

private:
    friend DurationAtom;

    Values m_values;
};
static_assert(kx_mp4::SizeOf<CMp4MvhdAtom>(false, 0, CMp4MvhdAtom::Values{}) == 108 &&
              kx_mp4::SizeOf<CMp4MvhdAtom>(true, 0, CMp4MvhdAtom::Values{}) == 120);

#endif  // KX_MP4_MVHD_H
