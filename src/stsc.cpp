#include "stsc.h"

#include <cstdio>

namespace {
constexpr uint32_t kHeaderSize = 16;
constexpr uint32_t kEntrySize = 12;
}  // namespace

void CMp4StscAtom::AddEntry(bool bNewChunk) {
    if (!bNewChunk) {
        if (!m_arrChunks.empty()) ++m_arrChunks.back();
        return;
    }
    m_closedRuns = CountRuns();
    if (!m_arrChunks.empty()) m_lastRun = m_arrChunks.back();
    m_arrChunks.push_back(1);
}

uint32_t CMp4StscAtom::CountRuns() const {
    const bool lastOpensRun = !m_arrChunks.empty() && m_arrChunks.back() != m_lastRun;
    return m_closedRuns + (lastOpensRun ? 1 : 0);
}

void CMp4StscAtom::PutEntry(uint32_t firstChunk, uint32_t samplesPerChunk) {
    constexpr uint32_t kDescriptionIndex = 1;
    m_buffer.WriteInt32(firstChunk);
    m_buffer.WriteInt32(samplesPerChunk);
    m_buffer.WriteInt32(kDescriptionIndex);
}

void CMp4StscAtom::PutRuns() {
    int run = 0;
    uint32_t chunk = 0;
    for (const int samples : m_arrChunks) {
        ++chunk;
        if (samples == run) continue;
        PutEntry(chunk, Low32(samples));
        run = samples;
    }
}

void CMp4StscAtom::Write() {
    FillBuffer([this] {
        const auto start = static_cast<int64_t>(m_buffer.Ftell());
        PutFullBoxHeader(m_buffer, "stsc");
        m_buffer.WriteInt32(m_fixedHeader ? 1 : CountRuns());
        if (m_fixedHeader)
            PutEntry(1, 1);
        else
            PutRuns();
        UpdateBufferSize(start);
    });
}

uint32_t CMp4StscAtom::GetSize() {
    return kHeaderSize + kEntrySize * (m_fixedHeader ? 1 : CountRuns());
}
