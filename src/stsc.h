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
    explicit CMp4StscAtom(IBaseIO* pWriter) : CMp4Atom(pWriter) { m_runs.Init(nullptr); }

    /// Records a sample that opens a chunk or continues the last one. A continuing sample before
    /// the first chunk is not counted.
    void AddEntry(bool bNewChunk);
    /// Fixed-header mode: every chunk holds one sample, whatever is recorded.
    void SetFixedHeader() { m_fixedHeader = true; }

    void Write() override;
    uint32_t GetSize() override;

private:
    /// First chunk and samples per chunk of a run, as they stand in the box.
    static constexpr uint32_t kRunSize = 8;

    void CloseLastChunk();
    void PutRuns();
    /// Whether the last chunk begins a run.
    bool LastChunkOpensRun() const { return m_chunks != 0 && m_lastSamples != m_runSamples; }
    uint32_t ClosedRuns() const { return static_cast<uint32_t>(m_runs.GetSize() / kRunSize); }
    uint32_t CountRuns() const { return ClosedRuns() + (LastChunkOpensRun() ? 1 : 0); }

    CBufferIO m_runs;            // those that began before the last chunk, which may still grow
    uint32_t m_chunks = 0;       // with the last one
    uint32_t m_lastSamples = 0;  // in the last chunk
    uint32_t m_runSamples = 0;   // samples per chunk of the last run in m_runs
    bool m_fixedHeader = false;
};

#endif  // KX_MP4_STSC_H
