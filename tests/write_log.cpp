#include "write_log.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

#include "fault_injection.h"

// Names given by the linker's --wrap.
extern "C" {
ssize_t __real_write(int file, const void* bytes, size_t size);
ssize_t __real_writev(int file, const iovec* pieces, int count);
ssize_t __real_pwrite(int file, const void* bytes, size_t size, off_t position);
int __real_ftruncate(int file, off_t size);
int __real_fsync(int file);
int __real_remove(const char* path);
int __real_rename(const char* from, const char* to);
int __real_link(const char* from, const char* to);
ssize_t __real_pread(int file, void* bytes, size_t size, off_t position);
}

namespace {

WriteLog* g_log = nullptr;
std::string g_folder;

std::string PathOf(int file) {
    std::array<char, 4096> path{};
    const std::string link = "/proc/self/fd/" + std::to_string(file);
    const ssize_t length = readlink(link.c_str(), path.data(), path.size());
    return length > 0 ? std::string(path.data(), static_cast<size_t>(length)) : std::string();
}

bool IsWatched(const std::string& path) {
    return g_log != nullptr && path.compare(0, g_folder.size(), g_folder) == 0;
}

bool Fails(int file) {
    return fault_injection::WatchesFiles() && fault_injection::FailsOn(PathOf(file));
}

/// Names are changed at once, or not.
bool RefusesName(const char* path) {
    const bool atOnce = fault_injection::IsShort() || fault_injection::Failure() == EINTR;
    return !atOnce && fault_injection::FailsOn(path);
}

void NoteWrite(int file, off_t position, const void* bytes, ssize_t size) {
    const std::string path = PathOf(file);
    if (size <= 0 || !IsWatched(path)) return;
    const auto* first = static_cast<const uint8_t*>(bytes);
    g_log->operations.push_back(
        {FileOperation::kWrite, path, static_cast<uint64_t>(position), Bytes(first, first + size)});
}

void Note(FileOperation::Kind kind, const std::string& path, uint64_t size = 0) {
    if (IsWatched(path)) g_log->operations.push_back({kind, path, size, {}});
}

}  // namespace

extern "C" {

ssize_t __wrap_write(int file, const void* bytes, size_t size) {
    const FaultPause ours;
    const off_t position = lseek(file, 0, SEEK_CUR);
    const ssize_t written = __real_write(file, bytes, size);
    NoteWrite(file, position, bytes, written);
    return written;
}

ssize_t __wrap_writev(int file, const iovec* pieces, int count) {
    const FaultPause ours;
    Bytes whole;
    for (int i = 0; i < count; ++i) {
        const auto* first = static_cast<const uint8_t*>(pieces[i].iov_base);
        whole.insert(whole.end(), first, first + pieces[i].iov_len);
    }
    const off_t position = lseek(file, 0, SEEK_CUR);
    const ssize_t written = __real_writev(file, pieces, count);
    NoteWrite(file, position, whole.data(), written);
    return written;
}

ssize_t __wrap_pread(int file, void* bytes, size_t size, off_t position) {
    const bool fails = Fails(file);
    if (fails && !fault_injection::IsShort()) return fault_injection::Refuse();
    return __real_pread(file, bytes, fails ? (size + 1) / 2 : size, position);
}

ssize_t __wrap_pwrite(int file, const void* bytes, size_t size, off_t position) {
    const bool fails = Fails(file);
    if (fails && !fault_injection::IsShort()) return fault_injection::Refuse();
    if (fails) size = (size + 1) / 2;
    const FaultPause ours;
    const ssize_t written = __real_pwrite(file, bytes, size, position);
    NoteWrite(file, position, bytes, written);
    return written;
}

int __wrap_ftruncate(int file, off_t size) {
    if (Fails(file) && !fault_injection::IsShort()) return fault_injection::Refuse();
    const FaultPause ours;
    Note(FileOperation::kTruncate, PathOf(file), static_cast<uint64_t>(size));
    return __real_ftruncate(file, size);
}

int __wrap_fsync(int file) {
    if (Fails(file) && !fault_injection::IsShort()) return fault_injection::Refuse();
    const FaultPause ours;
    Note(FileOperation::kSync, PathOf(file));
    return __real_fsync(file);
}

int __wrap_rename(const char* from, const char* to) {
    return RefusesName(from) ? fault_injection::Refuse() : __real_rename(from, to);
}

int __wrap_link(const char* from, const char* to) {
    return RefusesName(from) ? fault_injection::Refuse() : __real_link(from, to);
}

int __wrap_remove(const char* path) {
    const FaultPause ours;
    Note(FileOperation::kRemove, path);
    return __real_remove(path);
}

}  // extern "C"

void FileStates::Apply(const FileOperation& operation, size_t bytes) {
    switch (operation.kind) {
        case FileOperation::kWrite: {
            Bytes& file = m_files[operation.path];
            const size_t count = std::min(bytes, operation.bytes.size());
            const auto position = static_cast<size_t>(operation.position);
            file.resize(std::max(file.size(), position + count));
            std::copy_n(operation.bytes.begin(), count,
                        file.begin() + static_cast<std::ptrdiff_t>(position));
            break;
        }
        case FileOperation::kTruncate:
            m_files[operation.path].resize(static_cast<size_t>(operation.position));
            break;
        case FileOperation::kRemove:
            m_files.erase(operation.path);
            break;
        case FileOperation::kSync:
        case FileOperation::kMark:
            break;
    }
}

const Bytes& FileStates::Of(const std::string& path) const {
    static const Bytes kNothing;
    const auto file = m_files.find(path);
    return file == m_files.end() ? kNothing : file->second;
}

WriteLog::WriteLog(const std::string& folder) {
    g_folder = folder;
    g_log = this;
}

WriteLog::~WriteLog() {
    g_log = nullptr;
}

void WriteLog::Mark() {
    operations.push_back({FileOperation::kMark, {}, 0, {}});
}

void WriteWholeFile(const std::string& path, const Bytes& content) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const bool written = file >= 0 && __real_write(file, content.data(), content.size()) ==
                                          static_cast<ssize_t>(content.size());
    if (file >= 0) close(file);
    if (!written) throw std::runtime_error("cannot write " + path);
}
