#include "RepairOutput.h"

#if defined(__linux__)
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "defines.h"

namespace kx_mp4 {

void RepairOutput::Seek(int64_t offset, int origin) {
    const uint64_t base = origin == SEEK_SET ? 0 : origin == SEEK_CUR ? m_position : m_end;
    m_position = base + static_cast<uint64_t>(offset);
}

void RepairOutput::Flush() {
    WritePending();
    if (m_file != nullptr) m_file->Sync();
}

void RepairOutput::Read(void*, uint32_t) {
    FailRead(__LINE__);
}

void RepairOutput::Write(const void* pbBuf, uint32_t cbBuf) {
    const auto* bytes = static_cast<const uint8_t*>(pbBuf);
    if (m_file != nullptr && cbBuf != 0) {
        if (m_pendingEnd != m_position || m_pending.size() + cbBuf > kMaxPending) WritePending();
        if (cbBuf > kMaxPending) {
            m_file->WriteAt(m_position, bytes, cbBuf);
        } else {
            m_pending.insert(m_pending.end(), bytes, bytes + cbBuf);
            m_pendingEnd = m_position + cbBuf;
        }
    }
    if (m_file == nullptr) Keep(bytes, cbBuf);
    m_position += cbBuf;
    m_end = std::max(m_end, m_position);
}

void RepairOutput::Keep(const uint8_t* bytes, size_t size) {
    if (m_position < m_keepFrom) return;
    const auto at = static_cast<size_t>(m_position - m_keepFrom);
    if (m_kept.size() < at + size) m_kept.resize(at + size);
    std::copy_n(bytes, size, m_kept.begin() + static_cast<std::ptrdiff_t>(at));
}

void RepairOutput::WritePending() {
    if (m_pending.empty()) return;
    m_file->WriteAt(m_pendingEnd - m_pending.size(), m_pending.data(), m_pending.size());
    m_pending.clear();
}

namespace {

constexpr size_t kPlainPiece = size_t{1} << 20;
constexpr size_t kSystemPiece = size_t{64} << 20;

/// Whether the file system could let both files share their storage; Linux.
bool Clone([[maybe_unused]] const PosixFile& from, [[maybe_unused]] PosixFile& to,
           [[maybe_unused]] uint64_t size) {
#if defined(__linux__) && defined(FICLONE)
    if (ioctl(to.Descriptor(), FICLONE, from.Descriptor()) == 0) {
        to.Truncate(size);
        return true;
    }
#endif
    return false;
}

/// Bytes copied inside the system; 0 when it cannot do that between these files. Linux.
size_t CopyInSystem([[maybe_unused]] const PosixFile& from, [[maybe_unused]] PosixFile& to,
                    [[maybe_unused]] uint64_t position, [[maybe_unused]] size_t size) {
#if defined(__linux__)
    auto fromOffset = static_cast<off_t>(position);
    auto toOffset = fromOffset;
    const ssize_t count =
        copy_file_range(from.Descriptor(), &fromOffset, to.Descriptor(), &toOffset, size, 0);
    return count > 0 ? static_cast<size_t>(count) : 0;
#else
    return 0;
#endif
}

size_t CopyPlain(const PosixFile& from, PosixFile& to, uint64_t position,
                 std::vector<uint8_t>& buffer) {
    const size_t count = from.ReadAt(position, buffer.data(), buffer.size());
    if (count == 0) throw kx_mp4_exception(EIO);  // the recording became shorter meanwhile
    to.WriteAt(position, buffer.data(), count);
    return count;
}

}  // namespace

void CopyBeginning(const PosixFile& from, PosixFile& to, uint64_t size, uint64_t room,
                   const CopyProgress& progress) {
    if (Clone(from, to, size)) {
        to.RequireRoom(size, room);
        progress(size);
        return;
    }
    to.RequireRoom(0, size + room);
    std::vector<uint8_t> buffer;
    for (uint64_t done = 0; done < size;) {
        progress(done);
        const uint64_t left = size - done;
        size_t copied = 0;
        if (buffer.empty())
            copied = CopyInSystem(from, to, done,
                                  static_cast<size_t>(std::min<uint64_t>(left, kSystemPiece)));
        if (copied == 0) {
            buffer.resize(static_cast<size_t>(std::min<uint64_t>(left, kPlainPiece)));
            copied = CopyPlain(from, to, done, buffer);
        }
        done += copied;
    }
    progress(size);
}

}  // namespace kx_mp4
