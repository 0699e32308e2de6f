#ifndef KX_MP4_ELST_H
#define KX_MP4_ELST_H

#include "DurationAtom.h"

/// Edit List Box, 'elst' - ISO/IEC 14496-12, 8.6.6 - inside 'edts' - leaf
///
/// | offset v0/v1 | bytes v0/v1 | field                                              |
/// | 12 / 12      | 4           | entry count: 1, with an empty edit 2               |
/// | 16 / 16      | 12 / 20     | an empty edit: duration, media time -1, rate 1.0   |
/// | ... / ...    | 4 / 8       | segment duration, ticks of the movie               |
/// | ... / ...    | 4 / 8       | media time the edit starts at, media ticks         |
/// | ... / ...    | 4           | media rate 1.0                                     |
///
/// One edit spans the whole track. A track that starts later than the movie has an empty one before
/// it where start times are kept.
class CMp4ElstAtom : public kx_mp4::DurationAtom<CMp4ElstAtom> {
public:
    static constexpr const char* kSource = "src/elst";
    static constexpr const char* kNotWritten = "logic error, start position is 0";

    /// What varies.
    struct Values {
        int64_t mediaTime = 0;
        int64_t emptyDuration = 0;  // ticks of the movie; 0 for no empty edit
    };

    using DurationAtom::DurationAtom;

    /// Composition time of the first picture shown, in media ticks from the first decode time.
    void SetMediaTime(int64_t mediaTime) { m_values.mediaTime = mediaTime; }
    /// For how long nothing is shown before, in ticks of the movie.
    void SetEmptyDuration(int64_t duration) { m_values.emptyDuration = duration; }
    /// A media time is a signed number.
    bool NeedsVersion1() const {
        return DurationAtom::NeedsVersion1() || m_values.mediaTime > int64_t{INT32_MAX} ||
               m_values.emptyDuration > int64_t{UINT32_MAX};
    }

    template <class Out>
    static constexpr void PutHead(Out& out, bool wide, const Values& values) {
        constexpr int64_t kNothing = -1;
        const bool startsLater = values.emptyDuration > 0;
        kx_mp4::PutFullBoxHeader(out, "elst", wide ? 1 : 0);
        out.WriteInt32(startsLater ? 2 : 1);
        if (!startsLater) return;
        kx_mp4::PutTime(out, wide, values.emptyDuration);
        kx_mp4::PutTime(out, wide, kNothing);
        out.WriteInt32(kNormalRate);
    }
    template <class Out>
    static constexpr void PutTail(Out& out, bool wide, const Values& values) {
        kx_mp4::PutTime(out, wide, values.mediaTime);
        out.WriteInt32(kNormalRate);
    }

private:
    friend DurationAtom;

    static constexpr uint32_t kNormalRate = 0x00010000;  // 16 bits integer, 16 bits fraction

    Values m_values;
};
static_assert(kx_mp4::SizeOf<CMp4ElstAtom>(false, 0, CMp4ElstAtom::Values{}) == 28 &&
              kx_mp4::SizeOf<CMp4ElstAtom>(true, 0, CMp4ElstAtom::Values{}) == 36 &&
              kx_mp4::SizeOf<CMp4ElstAtom>(false, 0, CMp4ElstAtom::Values{0, 1}) == 40);

#endif  // KX_MP4_ELST_H
