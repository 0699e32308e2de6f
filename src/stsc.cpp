#include "stsc.h"

namespace {

constexpr uint32_t kHeaderSize = 16;
constexpr uint32_t kEntrySize = 12;
constexpr uint32_t kDescriptionIndex = 1;

void PutRun(CBufferIO& out, uint32_t firstChunk, uint32_t samplesPerChunk) {
    out.WriteInt32(firstChunk);
    out.WriteInt32(samplesPerChunk);
}

void PutEntry(CBufferIO& out, uint32_t firstChunk, uint32_t samplesPerChunk) {
    PutRun(out, firstChunk, samplesPerChunk);
    out.WriteInt32(kDescriptionIndex);
}

}  // namespace

void CMp4StscAtom::AddEntry(bool bNewChunk) {
    if (!bNewChunk) {
        if (m_chunks != 0) ++m_lastSamples;
        return;
    }
    CloseLastChunk();
    ++m_chunks;
    m_lastSamples = 1;
}

void CMp4StscAtom::CloseLastChunk() {
    if (!LastChunkOpensRun()) return;
    PutRun(m_runs, m_chunks, m_lastSamples);
    m_runSamples = m_lastSamples;
}

void CMp4StscAtom::PutRuns() {
    m_buffer.EnsureSize(kEntrySize * CountRuns(), true);
    const uint8_t* run = m_runs.GetBuffer();
    for (uint32_t i = 0; i < ClosedRuns(); ++i, run += kRunSize) {
        m_buffer.WriteBuf(run, kRunSize);
        m_buffer.WriteInt32(kDescriptionIndex);
    }
    if (LastChunkOpensRun()) PutEntry(m_buffer, m_chunks, m_lastSamples);
}

void CMp4StscAtom::Write() {
    FillBuffer([this] {
        const auto start = static_cast<int64_t>(m_buffer.Ftell());
        PutFullBoxHeader(m_buffer, "stsc");
        m_buffer.WriteInt32(m_fixedHeader ? 1 : CountRuns());
        if (m_fixedHeader)
            PutEntry(m_buffer, 1, 1);
        else
            PutRuns();
        UpdateBufferSize(start);
    });
}

uint32_t CMp4StscAtom::GetSize() {
    return kHeaderSize + kEntrySize * (m_fixedHeader ? 1 : CountRuns());
}
