#ifndef KX_MP4_STTS_H
#define KX_MP4_STTS_H

#include "SampleTable.h"

/// Decoding Time to Sample Box, 'stts' - ISO/IEC 14496-12, 8.6.1.2 - inside 'stbl' - table
///
/// | entry offset | bytes | field                                      |
/// | 0            | 4     | number of consecutive samples              |
/// | 4            | 4     | duration of each, ticks of the media       |
///
/// A sample's duration is known when the next one arrives. The run in progress is kept apart; when
/// the box is written, it is placed behind the finished runs with the last sample in it (the
/// pending entry), and the next finished run overwrites it there.
class CMp4SttsAtom : public kx_mp4::SampleTableAtom {
public:
    explicit CMp4SttsAtom(IBaseIO* pWriter)
        : SampleTableAtom(pWriter, "stts", 2 * sizeof(uint32_t)) {}

    /// Duration of the only sample of a track with a single sample, ticks; 1 when not set.
    void SetFrameDuration(int32_t nDuration) { m_nDefaultDuration = nDuration; }
    /// Records the decode time of the next sample, ticks; false when a reservation is full.
    bool AddEntry(int64_t nDts);
    /// Enters the fixed-header mode with room for `num` runs. Reserves no memory, only file.
    void SetMaxFrame(uint32_t num) { m_maxFrameNum = num; }
    /// Rewrites in place the count, the runs that came since the last time and the pending one.
    void Update();
    void Write() override;

private:
    struct ENTRY {
        int32_t nCount;
        int32_t nDuration;
    };

    void PlacePendingEntry();
    void WriteReservedRoom();

    ENTRY m_entry{};
    bool m_bFirst = true;
    int64_t m_nLastDts = 0;
    int32_t m_nDefaultDuration = 1;
    uint32_t m_dataSize = 0;  // bytes of finished runs in the buffer
};

#endif  // KX_MP4_STTS_H
