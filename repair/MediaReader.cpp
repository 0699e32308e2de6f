#include "MediaReader.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>

namespace kx_mp4 {

namespace {

constexpr size_t kWindowBytes = 64 * kPageBytes;

size_t ZerosFrom(const uint8_t* begin, const uint8_t* end) {
    return static_cast<size_t>(std::find_if(begin, end, [](uint8_t byte) { return byte != 0; }) -
                               begin);
}

size_t ZerosUpTo(const uint8_t* begin, const uint8_t* end) {
    const uint8_t* p = end;
    while (p != begin && p[-1] == 0)
        --p;
    return static_cast<size_t>(end - p);
}

}  // namespace

MediaReader::MediaReader(const PosixFile& file, uint64_t limit) : m_file(file), m_limit(limit) {
#ifdef POSIX_FADV_SEQUENTIAL
    // Only advice: without it the reading is slower, not wrong.
    (void)posix_fadvise(file.Descriptor(), 0, 0, POSIX_FADV_SEQUENTIAL);
#endif
}

// The window begins at a page, so that no page is ever cut by it.
bool MediaReader::Fill(uint64_t position) {
    if (position >= m_limit) return false;
    if (position >= m_windowStart && position - m_windowStart < m_window.size()) return true;
    m_windowStart = position / kPageBytes * kPageBytes;
    const uint64_t left = m_limit - m_windowStart;
    m_window.resize(static_cast<size_t>(std::min<uint64_t>(left, kWindowBytes)));
    m_window.resize(m_file.ReadAt(m_windowStart, m_window.data(), m_window.size()));
    return position - m_windowStart < m_window.size();
}

bool MediaReader::Read(uint64_t position, void* out, size_t size) {
    auto* next = static_cast<uint8_t*>(out);
    while (size != 0) {
        if (!Fill(position)) return false;
        const size_t offset = static_cast<size_t>(position - m_windowStart);
        const size_t count = std::min(size, m_window.size() - offset);
        std::memcpy(next, m_window.data() + offset, count);
        next += count;
        position += count;
        size -= count;
    }
    return true;
}

MediaReader::Bytes MediaReader::Page(uint64_t position) {
    if (!Fill(position)) return {nullptr, 0};
    const size_t offset = static_cast<size_t>(position / kPageBytes * kPageBytes - m_windowStart);
    return {m_window.data() + offset, std::min<size_t>(kPageBytes, m_window.size() - offset)};
}

bool MediaReader::LooksUnwritten(uint64_t begin, uint64_t end, size_t run) {
    for (uint64_t start = begin / kPageBytes * kPageBytes; start < end; start += kPageBytes) {
        const Bytes page = Page(std::max(start, begin));
        if (page.size < run) continue;
        const uint8_t* const pageEnd = page.data + page.size;
        const size_t head = ZerosFrom(page.data, pageEnd);
        if (head >= run && begin < start + head) return true;
        const size_t tail = ZerosUpTo(page.data, pageEnd);
        if (tail >= run && end > start + page.size - tail) return true;
    }
    return false;
}

}  // namespace kx_mp4
