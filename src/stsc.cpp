#include "stsc.h"

#include <cstdio>

using kx_mp4::Low32;
using kx_mp4::PutFullBoxHeader;

namespace {

constexpr uint32_t kCountPosition = 12;
constexpr uint32_t kHeaderSize = kx_mp4::kFullBoxHeaderSize + sizeof(uint32_t);
constexpr uint32_t kEntrySize = 12;

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
    if (m_closedRuns == 0) StartTable();
    PutEntry(m_chunks, m_lastSamples);
    ++m_closedRuns;
    m_runSamples = m_lastSamples;
}

void CMp4StscAtom::StartTable() {
    m_buffer.Clear();
    PutFullBoxHeader(m_buffer, "stsc");
    m_buffer.WriteInt32(0);
}

void CMp4StscAtom::PutEntry(uint32_t firstChunk, uint32_t samplesPerChunk) {
    constexpr uint32_t kDescriptionIndex = 1;
    m_buffer.WriteInt32(firstChunk);
    m_buffer.WriteInt32(samplesPerChunk);
    m_buffer.WriteInt32(kDescriptionIndex);
}

void CMp4StscAtom::Write() {
    if (m_fixedHeader)
        WriteFixedHeader();
    else
        WriteRuns();
}

/// The run of the last chunk stands behind the others for this write only.
void CMp4StscAtom::WriteRuns() {
    if (m_closedRuns == 0) StartTable();
    const auto closedEnd = static_cast<int64_t>(m_buffer.Ftell());
    if (LastChunkOpensRun()) PutEntry(m_chunks, m_lastSamples);
    const auto end = static_cast<int64_t>(m_buffer.Ftell());
    m_buffer.Seek(kCountPosition, SEEK_SET);
    m_buffer.WriteInt32(CountRuns());
    m_buffer.Seek(end, SEEK_SET);
    UpdateBufferSize(0);
    m_buffer.Seek(closedEnd, SEEK_SET);
    m_pWriter->WriteBuf(m_buffer.GetBuffer(), Low32(end));
}

void CMp4StscAtom::WriteFixedHeader() {
    FillBuffer([this] {
        m_buffer.Clear();
        PutFullBoxHeader(m_buffer, "stsc");
        m_buffer.WriteInt32(1);
        PutEntry(1, 1);
        UpdateBufferSize(0);
    });
}

uint32_t CMp4StscAtom::GetSize() {
    return kHeaderSize + kEntrySize * (m_fixedHeader ? 1 : CountRuns());
}
