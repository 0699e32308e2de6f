#include "AnnexBReader.h"

#include <string>

#include "StartCode.h"

using kx_mp4::FindStartCode;

namespace kxmux {

namespace {

constexpr size_t kStartCodeSize = 3;  // 00 00 01; a fourth byte in front is a zero_byte

}  // namespace

bool AnnexBReader::Next(NalUnit& nal) {
    if (!m_started) SkipToFirstStartCode();
    m_reader.Drop(m_unread);
    m_unread = 0;
    while (m_reader.Fill(kStartCodeSize)) {
        m_reader.Drop(kStartCodeSize);
        const size_t end = Find(kMaxNalSize);
        size_t size = end;
        while (size > 0 && m_reader.Data()[size - 1] == 0)
            --size;
        m_emptyUnit = size == 0;
        if (size > 0) {
            nal = {m_reader.Data(), size};
            m_unread = end;
            return true;
        }
        m_reader.Drop(end);
    }
    return false;
}

void AnnexBReader::SkipToFirstStartCode() {
    const size_t first = Find(kMaxGarbage);
    if (first > 0 && first == m_reader.Size()) {
        throw StreamError("no start code, so it is not an Annex-B stream");
    }
    m_skipped = first;
    while (m_skipped > 0 && m_reader.Data()[m_skipped - 1] == 0)
        --m_skipped;
    m_reader.Drop(first);
    m_started = true;
}

/// Offset of the next start code in the window, or of the end of the input.
size_t AnnexBReader::Find(size_t limit) {
    size_t from = 0;
    for (;;) {
        const uint8_t* end = m_reader.Data() + m_reader.Size();
        const auto found =
            static_cast<size_t>(FindStartCode(m_reader.Data() + from, end) - m_reader.Data());
        if (found != m_reader.Size()) return found;
        if (found > limit) {
            throw StreamError("no start code within " + std::to_string(limit >> 20) + " MiB");
        }
        // A start code may lie across the end of the window.
        from = found < 2 ? 0 : found - 2;
        if (!m_reader.FillMore()) return found;
    }
}

}  // namespace kxmux
