#ifndef KX_MP4_STSC_H
#define KX_MP4_STSC_H

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
    void CloseLastChunk();
    void StartTable();
    void PutEntry(uint32_t firstChunk, uint32_t samplesPerChunk);
    void WriteRuns();
    void WriteFixedHeader();
    /// Whether the last chunk begins a run.
    bool LastChunkOpensRun() const { return m_chunks != 0 && m_lastSamples != m_runSamples; }
    uint32_t CountRuns() const { return m_closedRuns + (LastChunkOpensRun() ? 1 : 0); }

    // m_buffer holds the box with the runs that began before the last chunk, which may still grow:
    // closing the file then needs no memory, and the size is known without a walk over the chunks.
    uint32_t m_closedRuns = 0;
    uint32_t m_runSamples = 0;   // samples per chunk of the last of them
    uint32_t m_chunks = 0;       // with the last one
    uint32_t m_lastSamples = 0;  // in the last chunk
    bool m_fixedHeader = false;
};

#endif  // KX_MP4_STSC_H
