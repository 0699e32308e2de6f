#include "stts.h"

#include <algorithm>
#include <array>
#include <cstdio>

using kx_mp4::Low32;

namespace {
constexpr const char* kSource = "src/stts";
}  // namespace

bool CMp4SttsAtom::AddEntry(int64_t nDts) {
    // Unsigned, because a hostile step may wrap; only its low 32 bits are kept.
    const auto step = static_cast<uint64_t>(nDts) - static_cast<uint64_t>(m_nLastDts);
    const auto nDuration = static_cast<int32_t>(static_cast<uint32_t>(step));
    m_nLastDts = nDts;
    if (m_entry.nCount != 0) {
        if (m_entry.nDuration == nDuration) {
            ++m_entry.nCount;
            return true;
        }
        // The pending entry takes one place of a reservation.
        if (IsReserved() && uint64_t{m_frameNum} + 1 >= m_maxFrameNum)
            return Refuse(kSource, __LINE__, "AddEntry");
        m_buffer.WriteInt32(Low32(m_entry.nCount));
        m_buffer.WriteInt32(Low32(m_entry.nDuration));
        m_dataSize += 2 * sizeof(uint32_t);
        ++m_frameNum;
    } else if (m_bFirst) {
        m_bFirst = false;  // the first sample's time only starts the clock
        return true;
    }
    m_entry = {1, nDuration};
    return true;
}

void CMp4SttsAtom::PlacePendingEntry() {
    if (m_bFirst) return;
    if (m_entry.nCount == 0) m_entry.nDuration = m_nDefaultDuration;
    const auto end = static_cast<int64_t>(m_buffer.Ftell());
    m_buffer.WriteInt32(Low32(int64_t{m_entry.nCount} + 1));
    m_buffer.WriteInt32(Low32(m_entry.nDuration));
    m_buffer.Seek(end, SEEK_SET);
}

void CMp4SttsAtom::Write() {
    m_place.Mark(*m_pWriter);
    PlacePendingEntry();
    WriteTableHeader();
    m_pWriter->WriteInt32(BufferedEntries());
    if (IsReserved())
        WriteReservedRoom();
    else
        m_buffer.FlushEx();
}

void CMp4SttsAtom::WriteReservedRoom() {
    // The entries themselves come with the next Update, from the first on.
    static constexpr std::array<uint8_t, 4096> kZeros{};
    m_lastUpdateOffset = 0;
    for (uint32_t left = ReservedBytes(); left != 0;) {
        const uint32_t piece = std::min<uint32_t>(left, kZeros.size());
        m_pWriter->WriteBuf(kZeros.data(), piece);
        left -= piece;
    }
}

void CMp4SttsAtom::Update() {
    if (!CanUpdate(kSource, __LINE__)) return;
    PlacePendingEntry();
    Rewrite(BufferedEntries());
    m_lastUpdateOffset = m_dataSize;  // the pending entry is written again next time
}
