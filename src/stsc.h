#ifndef KX_MP4_STSC_H
#define KX_MP4_STSC_H

#include <vector>

#include "Atom.h"

/// Sample To Chunk Box, 'stsc' - ISO/IEC 14496-12, 8.7.4 - inside 'stbl' - leaf
///
/// | offset | bytes | field                                                   |
/// | 12     | 4     | entry count                                             |
/// | 16     | 12 n  | entries: a run of chunks with the same number of samples |
///
/// | entry offset | bytes | field                             |
/// | 0            | 4     | first chunk of the run, from 1    |
/// | 4            | 4     | samples per chunk                 |
/// | 8            | 4     | sample description index: 1       |
class CMp4StscAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    /// Records a sample that opens a chunk or continues the last one. A continuing sample before
    /// the first chunk is not counted.
    void AddEntry(bool bNewChunk);
    /// Fixed-header mode: every chunk holds one sample, whatever is recorded.
    void SetFixedHeader() { m_fixedHeader = true; }

    void Write() override;
    uint32_t GetSize() override;

private:
    typedef std::vector<int> ARR_SAMPLES_PER_CHUNK;

    void PutEntry(uint32_t firstChunk, uint32_t samplesPerChunk);
    void PutRuns();
    uint32_t CountRuns() const;

    ARR_SAMPLES_PER_CHUNK m_arrChunks;
    bool m_fixedHeader = false;
    // Runs among the chunks before the last one, which may still grow: kept while recording, so
    // that the box's size is known without a walk over the chunks.
    uint32_t m_closedRuns = 0;
    int m_lastRun = 0;  // samples per chunk of the last of them
};

#endif  // KX_MP4_STSC_H
