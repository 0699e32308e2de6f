#ifndef KX_MP4_ELST_H
#define KX_MP4_ELST_H

#include "DurationAtom.h"

/// Edit List Box, 'elst' - ISO/IEC 14496-12, 8.6.6 - inside 'edts' - leaf
///
/// | offset v0/v1 | bytes v0/v1 | field                                              |
/// | 12 / 12      | 4           | entry count: 1                                     |
/// | 16 / 16      | 4 / 8       | segment duration, milliseconds                     |
/// | 20 / 24      | 4 / 8       | media time the edit starts at, media ticks         |
/// | 24 / 32      | 4           | media rate 1.0                                     |
///
/// One edit spans the whole track; a track that starts later than the movie gets no empty edit.
class CMp4ElstAtom : public kx_mp4::DurationAtom<CMp4ElstAtom> {
public:
    static constexpr const char* kSource = "src/elst";
    static constexpr const char* kNotWritten = "logic error, start position is 0";
    static constexpr int DurationOffset(bool) { return 16; }

    using DurationAtom::DurationAtom;

    /// Composition time of the first picture shown, in media ticks from the first decode time.
    void SetMediaTime(int64_t mediaTime) { m_mediaTime = mediaTime; }
    /// A media time is a signed number.
    bool NeedsVersion1() const {
        return DurationAtom::NeedsVersion1() || m_mediaTime > int64_t{INT32_MAX};
    }

    template <class Out>
    void Put(Out& out) const {
        constexpr uint32_t kEntryCount = 1;
        constexpr uint32_t kNormalRate = 0x00010000;  // 16 bits integer, 16 bits fraction
        const bool wide = Is64bit();
        kx_mp4::PutFullBoxHeader(out, "elst", wide ? 1 : 0);
        out.WriteInt32(kEntryCount);
        kx_mp4::PutTime(out, wide, WrittenDuration());
        kx_mp4::PutTime(out, wide, m_mediaTime);
        out.WriteInt32(kNormalRate);
    }

private:
    int64_t m_mediaTime = 0;
};

#endif  // KX_MP4_ELST_H
