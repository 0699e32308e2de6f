#include "stsz.h"

using kx_mp4::Low32;

namespace {
constexpr const char* kSource = "src/stsz";
constexpr uint32_t kSizeWithoutTable = kx_mp4::kFullBoxHeaderSize + 2 * sizeof(uint32_t);
}  // namespace

bool CMp4StszAtom::AddEntry(int32_t nSize) {
    if (IsFull()) return Refuse(kSource, __LINE__, "AddEntry");
    m_buffer.WriteInt32(Low32(nSize));
    m_dataSize += static_cast<uint64_t>(int64_t{nSize});
    if (m_frameNum == 0) m_firstSize = nSize;
    m_allEqual = m_allEqual && nSize == m_firstSize;
    ++m_frameNum;
    return true;
}

bool CMp4StszAtom::IsEqual(int32_t* nSampleSize) const {
    if (m_allEqual && m_frameNum != 0) *nSampleSize = m_firstSize;
    return m_allEqual;
}

void CMp4StszAtom::Write() {
    int32_t commonSize = 0;
    const bool equal = !IsReserved() && IsEqual(&commonSize);
    if (IsReserved()) m_place.Mark(*m_pWriter);
    WriteTableHeader();
    m_pWriter->WriteInt32(equal ? Low32(commonSize) : 0);
    m_pWriter->WriteInt32(IsReserved() ? 0 : BufferedEntries());
    if (!equal) WriteEntries();
}

uint32_t CMp4StszAtom::GetSize() {
    return !IsReserved() && m_allEqual ? kSizeWithoutTable : SampleTableAtom::GetSize();
}

void CMp4StszAtom::Update() {
    if (CanUpdate(kSource, __LINE__) && m_lastUpdateOffset != BufferedBytes()) Rewrite(m_frameNum);
}
