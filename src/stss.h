#ifndef KX_MP4_STSS_H
#define KX_MP4_STSS_H

#include "SampleTable.h"

/// Sync Sample Box, 'stss' - ISO/IEC 14496-12, 8.6.2 - inside 'stbl' of the video track - table
///
/// | entry offset | bytes | field                             |
/// | 0            | 4     | number of a sync sample, from 1   |
class CMp4StssAtom : public kx_mp4::SampleTableAtom {
public:
    explicit CMp4StssAtom(IBaseIO* pWriter) : SampleTableAtom(pWriter, "stss", sizeof(uint32_t)) {}

    /// Records a sync sample; false when a reservation is full.
    bool AddSyncSample(int32_t iSampleIndex);
    /// Reserves room for `num` sync samples.
    void SetMaxFrameNum(uint32_t num) { Reserve(num, true); }
    /// Rewrites the count in place, and what came since the last time.
    void Update();
    void Write() override { WriteTable(BufferedEntries()); }
};

#endif  // KX_MP4_STSS_H
