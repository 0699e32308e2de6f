#include "ByteSource.h"

#include <algorithm>

namespace kxmux {

PieceReader::PieceReader(ByteSource& source, size_t pieceSize)
    : m_source(source), m_pieceSize(std::max<size_t>(pieceSize, 1)) {}

bool PieceReader::Fill(size_t size) {
    while (Size() < size) {
        const size_t wanted = std::max(size - Size(), m_pieceSize);
        MakeRoom(wanted);
        const size_t count = m_source.Read(m_bytes.data() + m_last, wanted);
        if (count == 0) return false;
        m_last += count;
    }
    return true;
}

void PieceReader::Drop(size_t size) {
    m_first += size;
    m_position += size;
}

void PieceReader::MakeRoom(size_t size) {
    if (m_bytes.size() - m_last >= size) return;
    // The window moves to the front rather than the memory growing with what was read.
    if (m_first > 0) {
        std::copy(m_bytes.begin() + static_cast<ptrdiff_t>(m_first),
                  m_bytes.begin() + static_cast<ptrdiff_t>(m_last), m_bytes.begin());
        m_last -= m_first;
        m_first = 0;
    }
    // It doubles, so that a long unit is not copied once for each of its pieces.
    if (m_bytes.size() - m_last < size) m_bytes.resize(std::max(m_last + size, 2 * m_bytes.size()));
}

}  // namespace kxmux
