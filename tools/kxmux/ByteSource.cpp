#include "ByteSource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kxmux {

FileSource::FileSource(const std::string& path)
    : m_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (m_descriptor < 0) throw StreamError(std::string("cannot be opened: ") + strerror(errno));
}

FileSource::~FileSource() {
    ::close(m_descriptor);
}

size_t FileSource::Read(uint8_t* to, size_t size) {
    ssize_t count = 0;
    do {
        count = ::read(m_descriptor, to, size);
    } while (count < 0 && errno == EINTR);
    if (count < 0) throw StreamError(std::string("cannot be read: ") + strerror(errno));
    return static_cast<size_t>(count);
}

uint64_t FileSource::Size() const {
    struct stat status {};
    const bool isFile = ::fstat(m_descriptor, &status) == 0 && S_ISREG(status.st_mode);
    return isFile ? static_cast<uint64_t>(status.st_size) : 0;
}

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
