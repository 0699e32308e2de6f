#include "SampleTable.h"

#include <algorithm>
#include <cstring>

#include "Log.h"

namespace kx_mp4 {

uint32_t SampleTableAtom::GetSize() {
    return m_headerSize + (IsReserved() ? ReservedBytes() : BufferedBytes());
}

bool SampleTableAtom::Refuse(const char* file, int line, const char* function) const {
    LogError("reach the max frame num %u", file, line, function, m_maxFrameNum);
    return false;
}

void SampleTableAtom::Reserve(uint32_t num, bool precise) {
    m_maxFrameNum = num;
    if (num == 0) return;
    // A room past 4 GiB cannot be described by the box; the buffer refuses to grow that far.
    const uint64_t bytes = std::min<uint64_t>(uint64_t{m_entrySize} * num, UINT32_MAX);
    m_buffer.EnsureSize(static_cast<uint32_t>(bytes), precise);
    std::memset(m_buffer.GetBuffer(), 0, static_cast<size_t>(m_buffer.GetCapabilitySize()));
}

void SampleTableAtom::WriteTableHeader() {
    m_pWriter->WriteInt32(GetSize());
    m_pWriter->WriteTag(m_type);
    m_pWriter->WriteInt32(0);
}

void SampleTableAtom::WriteTable(uint32_t count) {
    if (IsReserved()) m_place.Mark(*m_pWriter);
    WriteTableHeader();
    m_pWriter->WriteInt32(count);
    WriteEntries();
}

void SampleTableAtom::WriteEntries() {
    if (IsReserved())
        m_pWriter->WriteBuf(m_buffer.GetBuffer(), ReservedBytes());
    else
        m_buffer.FlushEx();
}

bool SampleTableAtom::CanUpdate(const char* file, int line) const {
    if (m_place.IsKnown()) return true;
    LogError("not in safe mode, logic error", file, line, "Update");
    return false;
}

void SampleTableAtom::Rewrite(uint32_t count) {
    m_place.Rewrite(*m_pWriter, m_headerSize - uint32_t{sizeof count},
                    [count](IBaseIO& writer) { writer.WriteInt32(count); });
    m_place.Rewrite(*m_pWriter, m_headerSize + m_lastUpdateOffset, [this](IBaseIO& writer) {
        writer.WriteBuf(m_buffer.GetBuffer() + m_lastUpdateOffset,
                        BufferedBytes() - m_lastUpdateOffset);
    });
    m_lastUpdateOffset = BufferedBytes();
}

}  // namespace kx_mp4
