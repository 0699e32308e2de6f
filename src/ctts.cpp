#include "ctts.h"

#include <cstdio>

using kx_mp4::Low32;

namespace {
constexpr uint32_t kHeaderSize = kx_mp4::kFullBoxHeaderSize + sizeof(uint32_t);
constexpr uint32_t kEntrySize = 8;
}  // namespace

bool CMp4CttsAtom::OffsetFits(int64_t nPts, int64_t nDts) {
    int64_t offset = 0;
    return !__builtin_sub_overflow(nPts, nDts, &offset) && offset >= INT32_MIN &&
           offset <= INT32_MAX;
}

void CMp4CttsAtom::AddEntry(int64_t nPts, int64_t nDts) {
    const auto difference = static_cast<uint64_t>(nPts) - static_cast<uint64_t>(nDts);
    const auto offset = static_cast<int32_t>(static_cast<uint32_t>(difference));
    m_hasOffsets = m_hasOffsets || offset != 0;
    m_hasNegative = m_hasNegative || offset < 0;
    if (m_entry.nCount != 0 && m_entry.nOffset == offset) {
        ++m_entry.nCount;
        return;
    }
    if (m_entry.nCount != 0) PutEntry();
    m_entry = {1, offset};
}

void CMp4CttsAtom::PutEntry() {
    m_buffer.WriteInt32(Low32(m_entry.nCount));
    m_buffer.WriteInt32(Low32(m_entry.nOffset));
}

uint32_t CMp4CttsAtom::GetSize() {
    if (!m_hasOffsets) return 0;
    // The run in progress is not in the buffer (its place behind the end is overwritten).
    return kHeaderSize + Low32(static_cast<int64_t>(m_buffer.Ftell())) + kEntrySize;
}

void CMp4CttsAtom::Write() {
    if (!m_hasOffsets) return;
    const auto end = static_cast<int64_t>(m_buffer.Ftell());
    PutEntry();
    m_buffer.Seek(end, SEEK_SET);
    m_pWriter->WriteInt32(GetSize());
    m_pWriter->WriteTag("ctts");
    m_pWriter->WriteInt8(m_hasNegative ? 1 : 0);
    m_pWriter->WriteInt24(0);
    m_pWriter->WriteInt32((GetSize() - kHeaderSize) / kEntrySize);
    m_buffer.FlushEx();
}
