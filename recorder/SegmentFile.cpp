#include "SegmentFile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

namespace kx_mp4 {
namespace {

constexpr size_t kCollect = size_t{256} << 10;
/// Bytes that the ballast grows by.
constexpr size_t kZeros = size_t{64} << 10;

/// Notes the longest time of its kind.
class LongestTimer {
public:
    explicit LongestTimer(std::atomic<uint64_t>& longest)
        : m_longest(longest), m_start(std::chrono::steady_clock::now()) {}
    ~LongestTimer() {
        const auto passed = std::chrono::steady_clock::now() - m_start;
        const auto us = static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(passed).count());
        uint64_t before = m_longest.load(std::memory_order_relaxed);
        while (us > before && !m_longest.compare_exchange_weak(before, us)) {
        }
    }
    LongestTimer(const LongestTimer&) = delete;
    LongestTimer& operator=(const LongestTimer&) = delete;

private:
    std::atomic<uint64_t>& m_longest;
    std::chrono::steady_clock::time_point m_start;
};

bool CannotReserve(int error) {
    return error == EOPNOTSUPP || error == ENOSYS || error == EINVAL;
}

SegmentFile& Of(void* user) {
    return *static_cast<SegmentFile*>(user);
}

}  // namespace

SegmentFile::SegmentFile(IStorage& storage, StorageFigures& figures,
                         std::unique_ptr<IStorageFile> file, std::string path, uint64_t step)
    : m_storage(storage),
      m_figures(figures),
      m_file(std::move(file)),
      m_path(std::move(path)),
      m_step(step) {
    m_collected.reserve(kCollect);
}

SegmentFile::~SegmentFile() {
    DropBallast();
}

mp4_io_callbacks_t SegmentFile::Callbacks() {
    mp4_io_callbacks_t callbacks{};
    callbacks.user = this;
    callbacks.tell = [](void* user) { return static_cast<int64_t>(Of(user).m_position); };
    callbacks.seek = [](void* user, int64_t offset, int whence) {
        return Of(user).Seek(offset, whence) ? 1 : 0;
    };
    callbacks.flush = [](void* user) { return Of(user).FlushAndPush() == 0 ? 1 : 0; };
    callbacks.write = [](void* user, const void* buffer, uint32_t size) {
        return Of(user).Write(static_cast<const uint8_t*>(buffer), size) ? 1 : 0;
    };
    return callbacks;
}

bool SegmentFile::Seek(int64_t offset, int whence) {
    const bool patched = m_position <= m_indexStart + sizeof(uint64_t) && m_position < m_end;
    uint64_t from = 0;
    if (whence == SEEK_CUR) from = m_position;
    if (whence == SEEK_END) from = m_end;
    m_position = from + static_cast<uint64_t>(offset);
    const bool hasIndex = m_finishing && m_end > m_indexStart;
    if (!hasIndex || !patched || m_position != m_end) return true;
    return FlushAndPush() == 0;
}

bool SegmentFile::Write(const uint8_t* bytes, uint32_t size) {
    errno = m_error;
    if (m_error != 0) return false;
    const uint64_t start = m_end - m_collected.size();
    bool good = true;
    if (m_position == m_end) {
        good = Append(bytes, size);
    } else if (m_position >= start && m_position + size <= m_end) {
        std::memcpy(m_collected.data() + (m_position - start), bytes, size);
    } else {
        good = Flush() == 0 && WriteOut(m_position, bytes, size);
    }
    m_position += size;
    m_end = std::max(m_end, m_position);
    errno = m_error;
    return good;
}

bool SegmentFile::Append(const uint8_t* bytes, size_t size) {
    if (m_collected.size() + size > kCollect && Flush() != 0) return false;
    if (size >= kCollect) return WriteOut(m_end, bytes, size);
    m_collected.insert(m_collected.end(), bytes, bytes + size);
    return true;
}

int SegmentFile::Flush() {
    if (m_error != 0 || m_collected.empty()) return m_error;
    const uint64_t start = m_end - m_collected.size();
    if (WriteOut(start, m_collected.data(), m_collected.size())) m_collected.clear();
    return m_error;
}

/// A write for which there is no room gets that of the ballast.
bool SegmentFile::WriteOut(uint64_t position, const uint8_t* bytes, size_t size) {
    const LongestTimer timer(m_figures.longestWriteUs);
    m_error = m_file->WriteAt(position, bytes, size);
    if (m_error == ENOSPC || m_error == EDQUOT) {
        m_ranOut = true;
        if (m_ballast != nullptr) {
            DropBallast();
            m_error = m_file->WriteAt(position, bytes, size);
        }
    }
    if (m_error == 0) m_figures.bytes.fetch_add(size, std::memory_order_relaxed);
    return m_error == 0;
}

int SegmentFile::FlushAndPush() {
    const int error = Flush();
    return error != 0 ? error : Push();
}

int SegmentFile::Push() {
    const LongestTimer timer(m_figures.longestPushUs);
    const int error = m_file->Push();
    int none = 0;
    if (error != 0) m_pushError.compare_exchange_strong(none, error);
    errno = m_pushError.load();
    return errno;
}

int SegmentFile::Ensure(uint64_t bytes) {
    if (m_ranOut) return ENOSPC;
    if (m_usesBallast) return GrowBallast(bytes);
    const uint64_t to = m_end + bytes;
    if (to <= m_reserved) return 0;
    int error = m_file->Reserve(m_reserved, to + m_step);
    // The last step may be a shorter one.
    if (error == ENOSPC || error == EDQUOT) {
        error = m_file->Reserve(m_reserved, to);
        if (error == 0) m_reserved = to;
        return error;
    }
    if (error == 0) m_reserved = to + m_step;
    if (!CannotReserve(error)) return error;
    m_usesBallast = true;
    return GrowBallast(bytes);
}

int SegmentFile::GrowBallast(uint64_t bytes) {
    int error = 0;
    if (m_ballast == nullptr) {
        m_storage.Remove(BallastPath());  // of a recording that was cut off
        m_ballast = m_storage.Create(BallastPath(), error);
    }
    if (m_ballast == nullptr) return error;
    const std::vector<uint8_t> zeros(m_ballastSize < bytes ? kZeros : 0);
    while (m_ballastSize < bytes && error == 0) {
        error = m_ballast->WriteAt(m_ballastSize, zeros.data(), zeros.size());
        if (error == 0) m_ballastSize += zeros.size();
    }
    return error;
}

void SegmentFile::DropBallast() {
    if (m_ballast == nullptr) return;
    m_ballast = nullptr;
    m_ballastSize = 0;
    m_storage.Remove(BallastPath());
}

void SegmentFile::BeginFinish() {
    m_indexStart = m_end;
    m_finishing = true;
    DropBallast();
}

int SegmentFile::EndFinish() {
    const int error = Flush();
    if (error != 0) return error;
    return m_reserved > m_end ? m_file->Trim(m_end) : 0;
}

}  // namespace kx_mp4
