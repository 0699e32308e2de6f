#include "kx_mp4/buffered_io.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "BaseIO.h"
#include "Retry.h"

using kx_mp4::ConvertPath;
using kx_mp4::NarrowPath;

namespace {

struct FreeBlock {
    void operator()(uint8_t* block) const { std::free(block); }
};
using Block = std::unique_ptr<uint8_t, FreeBlock>;

/// A file that is written in large pieces.
///
/// | with the system .......... | buffer: m_start .. m_start + m_filled | room |
///
/// The buffer holds one run of bytes that is still to be written. It is emptied when it reaches a
/// multiple of its capacity in the file, when bytes elsewhere are written, and on request.
class BufferedFile {
public:
    BufferedFile(int file, Block buffer, uint32_t capacity)
        : m_file(file), m_buffer(std::move(buffer)), m_capacity(capacity) {}
    BufferedFile(const BufferedFile&) = delete;
    BufferedFile& operator=(const BufferedFile&) = delete;
    ~BufferedFile() {
        if (m_file != -1) close(m_file);
    }

    uint64_t Tell() const { return m_position; }
    void Seek(int64_t offset, int whence);
    void Flush();
    /// False with errno when it failed or when an earlier operation did.
    bool Write(const uint8_t* data, uint32_t size);
    /// Whether nothing has failed; otherwise with errno.
    bool IsGood() {
        if (m_error != 0) errno = m_error;
        return m_error == 0;
    }
    /// Writes what is left, after a failure too: the more samples a broken recording holds, the
    /// more can be repaired.
    bool Close();

private:
    uint64_t BufferEnd() const { return m_start + m_filled; }
    uint64_t End() const { return m_written > BufferEnd() ? m_written : BufferEnd(); }
    /// Bytes that still fit before the next multiple of the capacity in the file.
    uint32_t Room() const {
        return m_capacity - static_cast<uint32_t>(m_start & (m_capacity - 1)) - m_filled;
    }

    bool Append(const uint8_t* data, uint32_t size);
    bool Patch(const uint8_t* data, uint32_t size);
    void Keep(const uint8_t* data, uint32_t size);
    bool Push() { return PushWith(nullptr, 0); }
    bool PushWith(const uint8_t* data, uint32_t size);
    void DropFront(uint64_t count);
    bool Fail(int code);

    int m_file;
    Block m_buffer;
    uint32_t m_capacity;      // a power of two
    uint32_t m_filled = 0;    // bytes in the buffer
    uint64_t m_start = 0;     // where the buffer's first byte belongs in the file
    uint64_t m_position = 0;  // where the next write goes
    uint64_t m_written = 0;   // the file's size
    int m_error = 0;          // the first failure
};

bool BufferedFile::Fail(int code) {
    if (m_error == 0) m_error = code;
    errno = m_error;
    return false;
}

void BufferedFile::Seek(int64_t offset, int whence) {
    uint64_t base = 0;
    if (whence == SEEK_CUR) base = m_position;
    if (whence == SEEK_END) base = End();
    int64_t target = 0;
    const bool known = whence == SEEK_SET || whence == SEEK_CUR || whence == SEEK_END;
    if (!known || __builtin_add_overflow(static_cast<int64_t>(base), offset, &target) ||
        target < 0) {
        Fail(EINVAL);
        return;
    }
    m_position = static_cast<uint64_t>(target);
}

void BufferedFile::Flush() {
    if (m_error != 0 || !Push()) return;
    if (kx_mp4::Retry([this] { return fsync(m_file); }) != 0) Fail(errno);
}

bool BufferedFile::Write(const uint8_t* data, uint32_t size) {
    if (m_error != 0) return Fail(m_error);
    if (size == 0) return true;
    if (m_position > static_cast<uint64_t>(INT64_MAX) - size) return Fail(EFBIG);
    return m_position < End() ? Patch(data, size) : Append(data, size);
}

bool BufferedFile::Append(const uint8_t* data, uint32_t size) {
    if (m_position != BufferEnd()) {
        if (!Push()) return false;
        m_start = m_position;
    }
    const uint32_t room = Room();
    if (size >= room) {
        // The buffer and the caller's bytes leave in one call: all of a large write, of a smaller
        // one what ends on the multiple of the capacity.
        const uint32_t direct = size >= m_capacity ? size : room;
        if (!PushWith(data, direct)) return false;
        m_position += direct;
        data += direct;
        size -= direct;
    }
    Keep(data, size);
    return true;
}

bool BufferedFile::Patch(const uint8_t* data, uint32_t size) {
    if (m_position >= m_start && m_position + size <= BufferEnd()) {
        std::memcpy(m_buffer.get() + (m_position - m_start), data, size);
        m_position += size;
        return Push();
    }
    if (!Push()) return false;
    m_start = m_position;
    if (!PushWith(data, size)) return false;
    m_position += size;
    return true;
}

void BufferedFile::Keep(const uint8_t* data, uint32_t size) {
    if (size == 0) return;
    std::memcpy(m_buffer.get() + m_filled, data, size);
    m_filled += size;
    m_position += size;
}

/// pwritev where there is one (Linux, the BSDs); elsewhere the first piece that has bytes.
ssize_t WritePieces(int file, const std::array<iovec, 2>& pieces, off_t position) {
#if defined(__linux__) || defined(__FreeBSD__) || defined(__NetBSD__) || defined(__OpenBSD__)
    return pwritev(file, pieces.data(), pieces[1].iov_len == 0 ? 1 : 2, position);
#else
    const iovec& piece = pieces[0].iov_len != 0 ? pieces[0] : pieces[1];
    return pwrite(file, piece.iov_base, piece.iov_len, position);
#endif
}

/// Writes the buffer and `data` behind it. What is left of the buffer by a failure stays in it.
bool BufferedFile::PushWith(const uint8_t* data, uint32_t size) {
    while (m_filled + static_cast<uint64_t>(size) != 0) {
        const std::array<iovec, 2> pieces = {
            {{m_buffer.get(), m_filled}, {const_cast<uint8_t*>(data), size}}};
        const ssize_t count =
            kx_mp4::Retry([&] { return WritePieces(m_file, pieces, static_cast<off_t>(m_start)); });
        if (count <= 0) return Fail(count < 0 ? errno : EIO);
        const auto written = static_cast<uint64_t>(count);
        const uint64_t buffered = written < m_filled ? written : m_filled;
        const auto direct = static_cast<uint32_t>(written - buffered);
        DropFront(buffered);
        m_start += direct;
        if (m_start > m_written) m_written = m_start;
        if (direct != 0) data += direct;
        size -= direct;
    }
    return true;
}

void BufferedFile::DropFront(uint64_t count) {
    m_start += count;
    m_filled -= static_cast<uint32_t>(count);
    if (m_filled != 0) std::memmove(m_buffer.get(), m_buffer.get() + count, m_filled);
}

bool BufferedFile::Close() {
    const bool pushed = Push();
    const bool closed = close(m_file) == 0;
    m_file = -1;
    return pushed && closed && m_error == 0;
}

BufferedFile& FileOf(kx_mp4_handle handle) {
    return *static_cast<BufferedFile*>(handle);
}

/// Null with errno when the path cannot be opened or there is no memory.
std::unique_ptr<BufferedFile> OpenFile(const char* path, uint32_t capacity) {
    constexpr size_t kAlignment = KX_MP4_BUFFERED_IO_MIN_SIZE;
    Block buffer(static_cast<uint8_t*>(std::aligned_alloc(kAlignment, capacity)));
    if (!buffer) return nullptr;
    const int file = kx_mp4::Retry(
        [&] { return open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0644); });
    if (file < 0) return nullptr;
    std::unique_ptr<BufferedFile> opened(new (std::nothrow)
                                             BufferedFile(file, std::move(buffer), capacity));
    if (!opened) {
        close(file);
        errno = ENOMEM;
    }
    return opened;
}

bool OpenBuffered(kx_mp4_handle* handle, const wchar_t* path, uint32_t capacity) {
    if (handle == nullptr || path == nullptr) {
        errno = EINVAL;
        return false;
    }
    NarrowPath narrow;
    if (ConvertPath(path, narrow) != MP4_STATUS_SUCCESS) return false;
    *handle = OpenFile(narrow.data(), capacity).release();
    return *handle != nullptr;
}

bool CloseBuffered(kx_mp4_handle handle) {
    const std::unique_ptr<BufferedFile> file(&FileOf(handle));
    return file->Close();
}

uint64_t TellBuffered(kx_mp4_handle handle) {
    return FileOf(handle).Tell();
}

void SeekBuffered(kx_mp4_handle handle, int64_t offset, int whence) {
    FileOf(handle).Seek(offset, whence);
}

void FlushBuffered(kx_mp4_handle handle) {
    FileOf(handle).Flush();
}

int ReadBuffered(kx_mp4_handle, void*, uint32_t) {
    errno = EBADF;
    return 0;
}

int WriteBuffered(kx_mp4_handle handle, const void* data, uint32_t size) {
    return FileOf(handle).Write(static_cast<const uint8_t*>(data), size) ? 1 : 0;
}

constexpr uint32_t kSizes = 15;
static_assert(KX_MP4_BUFFERED_IO_MIN_SIZE << (kSizes - 1) == KX_MP4_BUFFERED_IO_MAX_SIZE);

/// `init` has no argument that could carry the buffer size: every size has an `init` of its own.
template <uint32_t Size>
bool InitBuffered(kx_mp4_handle* handle, const wchar_t* path, uint32_t, uint32_t) {
    return OpenBuffered(handle, path, Size);
}

template <size_t... Index>
std::array<mp4_file_io_func_t, sizeof...(Index)> MakeRecords(std::index_sequence<Index...>) {
    return {{{InitBuffered<(KX_MP4_BUFFERED_IO_MIN_SIZE << Index)>, CloseBuffered, TellBuffered,
              SeekBuffered, FlushBuffered, ReadBuffered, WriteBuffered}...}};
}

/// The smallest of the sizes that holds `wanted` bytes, or the largest.
size_t SizeIndex(uint32_t wanted) {
    size_t index = 0;
    while (index + 1 < kSizes && KX_MP4_BUFFERED_IO_MIN_SIZE << index < wanted)
        ++index;
    return index;
}

}  // namespace

mp4_file_io_func_t* kx_mp4_buffered_io(uint32_t buffer_size) {
    static auto records = MakeRecords(std::make_index_sequence<kSizes>());
    return &records[SizeIndex(buffer_size)];
}

struct kx_mp4::BufferedOutputState {
    uint32_t capacity;
    std::unique_ptr<BufferedFile> file;
};

namespace {

using OutputState = kx_mp4::BufferedOutputState;

OutputState& StateOf(void* user) {
    return *static_cast<OutputState*>(user);
}

int OpenOutput(void* user, const char* path) {
    OutputState& state = StateOf(user);
    state.file = OpenFile(path, state.capacity);
    return state.file ? 1 : 0;
}

int CloseOutput(void* user) {
    const std::unique_ptr<BufferedFile> file = std::move(StateOf(user).file);
    return file->Close() ? 1 : 0;
}

int64_t TellOutput(void* user) {
    return static_cast<int64_t>(StateOf(user).file->Tell());
}

int SeekOutput(void* user, int64_t offset, int whence) {
    BufferedFile& file = *StateOf(user).file;
    file.Seek(offset, whence);
    return file.IsGood() ? 1 : 0;
}

int FlushOutput(void* user) {
    BufferedFile& file = *StateOf(user).file;
    file.Flush();
    return file.IsGood() ? 1 : 0;
}

int WriteOutput(void* user, const void* data, uint32_t size) {
    return WriteBuffered(StateOf(user).file.get(), data, size);
}

}  // namespace

namespace kx_mp4 {

BufferedOutput::BufferedOutput(uint32_t buffer_size)
    : m_state(new BufferedOutputState{KX_MP4_BUFFERED_IO_MIN_SIZE << SizeIndex(buffer_size),
                                      nullptr}) {}

BufferedOutput::~BufferedOutput() = default;

mp4_io_callbacks_t BufferedOutput::Callbacks() const {
    return {m_state.get(), OpenOutput,  CloseOutput, TellOutput,
            SeekOutput,    FlushOutput, WriteOutput};
}

}  // namespace kx_mp4
