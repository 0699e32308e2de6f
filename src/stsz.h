#ifndef KX_MP4_STSZ_H
#define KX_MP4_STSZ_H

#include "SampleTable.h"

/// Sample Size Box, 'stsz' - ISO/IEC 14496-12, 8.7.3.2 - inside 'stbl' - table
///
/// | offset | bytes | field                                                    |
/// | 12     | 4     | sample size that all samples have, 0 when they differ    |
/// | 16     | 4     | sample count                                             |
/// | 20     | 4 n   | size of each sample, only when they differ               |
class CMp4StszAtom : public kx_mp4::SampleTableAtom {
public:
    explicit CMp4StszAtom(IBaseIO* pWriter)
        : SampleTableAtom(pWriter, "stsz", sizeof(uint32_t), Layout::kFieldAndCount) {}

    /// Records a sample's size in bytes; false when a reservation is full.
    bool AddEntry(int32_t nSize);
    /// Reserves room for `num` samples.
    void SetMaxFrame(uint32_t num) { Reserve(num, false); }
    /// Rewrites in place what came since the last time.
    void Update();
    void Write() override;
    uint32_t GetSize() override;
    /// Sum of all sizes.
    virtual uint64_t GetDataSize() { return m_dataSize; }

protected:
    /// Whether all sizes are the same; then `nSampleSize` is set to it, unless there are none.
    bool IsEqual(int32_t* nSampleSize) const;

private:
    uint64_t m_dataSize = 0;
    int32_t m_firstSize = 0;
    bool m_allEqual = true;  // kept while recording, so that nobody has to walk the table
};

#endif  // KX_MP4_STSZ_H
