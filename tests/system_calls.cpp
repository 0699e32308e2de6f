#include "system_calls.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string_view>

// The names are the linker's: --wrap=write sends calls of write to __wrap_write.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
int __real_open(const char* path, int flags, ...);
ssize_t __real_pread(int file, void* bytes, size_t size, off_t position);
off_t __real_lseek(int file, off_t offset, int whence);
int __real_ftruncate(int file, off_t size);
int __real_fsync(int file);
int __real_close(int file);
int __real_rename(const char* from, const char* to);
int __real_link(const char* from, const char* to);
int __real_remove(const char* path);
int __real_fstatvfs(int file, struct statvfs* system);
ssize_t __real_copy_file_range(int from, off64_t* fromAt, int to, off64_t* toAt, size_t size,
                               unsigned flags);
ssize_t __real_writev(int file, const iovec* pieces, int count);
ssize_t __real_pwritev(int file, const iovec* pieces, int count, off_t position);
}

namespace {

using Of = FaultInjection::Of;

std::atomic<bool> g_active{false};
std::atomic<Of> g_of{Of::kFiles};
std::atomic<int> g_calls{0};
std::atomic<int> g_failingCall{0};
std::atomic<int> g_failure{0};
std::atomic<bool> g_forGood{false};

WriteLog* g_log = nullptr;
std::string g_logged;

/// Counts a call and answers whether it fails.
bool Fails() {
    const int call = ++g_calls;
    return g_failingCall != 0 && (g_forGood ? call >= g_failingCall : call == g_failingCall);
}

int Refuse() {
    errno = g_failure;
    return -1;
}

/// As the system names it, without memory of its own.
class PathOf {
public:
    explicit PathOf(int file) {
        char link[64];
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", file);
        const ssize_t size = readlink(link, m_path, sizeof m_path);
        m_size = size > 0 ? static_cast<size_t>(size) : 0;
    }
    operator std::string_view() const { return {m_path, m_size}; }

private:
    char m_path[PATH_MAX];
    size_t m_size;
};

bool EndsWith(std::string_view path, std::string_view end) {
    return path.size() >= end.size() && path.substr(path.size() - end.size()) == end;
}

bool WatchesFiles() {
    return g_active && !FaultPause::IsOn() && g_of != Of::kMemory;
}

bool FailsOn(std::string_view path) {
    constexpr std::string_view kRemoved = " (deleted)";
    if (EndsWith(path, kRemoved)) path.remove_suffix(kRemoved.size());
    const bool isSide = EndsWith(path, ".info");
    return (g_of == Of::kFiles || isSide == (g_of == Of::kSideFile)) && Fails();
}

enum class Verdict { kPass, kShort, kRefuse };

Verdict Judge(int file) {
    if (!WatchesFiles()) return Verdict::kPass;
    const PathOf path(file);
    if (std::string_view(path).empty() || !FailsOn(path)) return Verdict::kPass;
    return g_failure == FaultInjection::kShortWrite ? Verdict::kShort : Verdict::kRefuse;
}

bool Refuses(int file) {
    return Judge(file) == Verdict::kRefuse;
}

/// Names are changed at once, or not.
bool RefusesName(const char* path) {
    const bool atOnce = g_failure == FaultInjection::kShortWrite || g_failure == EINTR;
    return WatchesFiles() && !atOnce && FailsOn(path);
}

void Note(FileOperation::Kind kind, std::string_view path, off_t position = 0, Bytes bytes = {}) {
    if (g_log == nullptr || path.substr(0, g_logged.size()) != g_logged) return;
    g_log->operations.push_back(
        {kind, std::string(path), static_cast<uint64_t>(position), std::move(bytes)});
}

constexpr off_t kWhereItStands = -1;

ssize_t Write(int file, const iovec* pieces, int count, off_t position) {
    const Verdict verdict = Judge(file);
    if (verdict == Verdict::kRefuse) return Refuse();
    const iovec half{pieces[0].iov_base, (pieces[0].iov_len + 1) / 2};
    if (verdict == Verdict::kShort) {
        pieces = &half;
        count = 1;
    }
    const FaultPause ours;
    const bool stands = position == kWhereItStands;
    const off_t at = stands && g_log != nullptr ? __real_lseek(file, 0, SEEK_CUR) : position;
    const ssize_t written =
        stands ? __real_writev(file, pieces, count) : __real_pwritev(file, pieces, count, position);
    if (g_log == nullptr || written <= 0) return written;
    Bytes bytes;
    for (int i = 0; i < count; ++i) {
        const auto* first = static_cast<const uint8_t*>(pieces[i].iov_base);
        bytes.insert(bytes.end(), first, first + pieces[i].iov_len);
    }
    bytes.resize(static_cast<size_t>(written));
    Note(FileOperation::kWrite, PathOf(file), at, std::move(bytes));
    return written;
}

}  // namespace

extern "C" {

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const bool refused =
        WatchesFiles() && FailsOn(path) && g_failure != FaultInjection::kShortWrite;
    return refused ? Refuse() : __real_open(path, flags, mode);
}

ssize_t __wrap_write(int file, const void* bytes, size_t size) {
    const iovec piece{const_cast<void*>(bytes), size};
    return Write(file, &piece, 1, kWhereItStands);
}

ssize_t __wrap_writev(int file, const iovec* pieces, int count) {
    return Write(file, pieces, count, kWhereItStands);
}

ssize_t __wrap_pwrite(int file, const void* bytes, size_t size, off_t position) {
    const iovec piece{const_cast<void*>(bytes), size};
    return Write(file, &piece, 1, position);
}

ssize_t __wrap_pwritev(int file, const iovec* pieces, int count, off_t position) {
    return Write(file, pieces, count, position);
}

ssize_t __wrap_pread(int file, void* bytes, size_t size, off_t position) {
    const Verdict verdict = Judge(file);
    if (verdict == Verdict::kRefuse) return Refuse();
    return __real_pread(file, bytes, verdict == Verdict::kShort ? (size + 1) / 2 : size, position);
}

off_t __wrap_lseek(int file, off_t offset, int whence) {
    // Asking an open file for its position cannot fail, and moving is not interrupted.
    const bool asks = (offset == 0 && whence == SEEK_CUR) || g_failure == EINTR;
    return !asks && Refuses(file) ? Refuse() : __real_lseek(file, offset, whence);
}

int __wrap_ftruncate(int file, off_t size) {
    if (Refuses(file)) return Refuse();
    const FaultPause ours;
    Note(FileOperation::kTruncate, PathOf(file), size);
    return __real_ftruncate(file, size);
}

int __wrap_fsync(int file) {
    if (Refuses(file)) return Refuse();
    const FaultPause ours;
    Note(FileOperation::kSync, PathOf(file));
    return __real_fsync(file);
}

int __wrap_close(int file) {
    const bool refused = Refuses(file);
    const int result = __real_close(file);
    return refused ? Refuse() : result;
}

int __wrap_rename(const char* from, const char* to) {
    return RefusesName(from) ? Refuse() : __real_rename(from, to);
}

int __wrap_link(const char* from, const char* to) {
    return RefusesName(from) ? Refuse() : __real_link(from, to);
}

int __wrap_remove(const char* path) {
    const FaultPause ours;
    Note(FileOperation::kRemove, path);
    return __real_remove(path);
}

int __wrap_fstatvfs(int file, struct statvfs* system) {
    const int result = __real_fstatvfs(file, system);
    if (FileSystem::room == UINT64_MAX) return result;
    system->f_frsize = 1;
    system->f_bavail = FileSystem::room;
    return result;
}

ssize_t __wrap_copy_file_range(int from, off64_t* fromAt, int to, off64_t* toAt, size_t size,
                               unsigned flags) {
    if (FileSystem::copies) return __real_copy_file_range(from, fromAt, to, toAt, size, flags);
    errno = ENOSYS;
    return -1;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

FaultInjection::FaultInjection(int failingCall, int failure, Of of, bool forGood) {
    g_calls = 0;
    g_failingCall = failingCall;
    g_failure = failure;
    g_of = of;
    g_forGood = forGood;
    g_active = true;
}

FaultInjection::~FaultInjection() {
    g_active = false;
}

int FaultInjection::Calls() const {
    return g_calls;
}

bool FaultInjection::RefusesMemory() {
    if (!g_active || FaultPause::IsOn() || g_of != Of::kMemory || !Fails()) return false;
    errno = g_failure;
    return true;
}

bool FaultInjection::Hit() const {
    return g_failingCall != 0 && g_calls >= g_failingCall;
}

void FileStates::Apply(const FileOperation& operation, size_t bytes) {
    const auto position = static_cast<size_t>(operation.position);
    if (operation.kind == FileOperation::kRemove) m_files.erase(operation.path);
    if (operation.kind == FileOperation::kTruncate) m_files[operation.path].resize(position);
    if (operation.kind != FileOperation::kWrite) return;
    Bytes& file = m_files[operation.path];
    const size_t count = std::min(bytes, operation.bytes.size());
    file.resize(std::max(file.size(), position + count));
    std::copy_n(operation.bytes.begin(), count, file.data() + position);
}

const Bytes& FileStates::Of(const std::string& path) const {
    static const Bytes kNothing;
    const auto file = m_files.find(path);
    return file == m_files.end() ? kNothing : file->second;
}

WriteLog::WriteLog(const std::string& pathBegin) {
    g_logged = pathBegin;
    g_log = this;
}

WriteLog::~WriteLog() {
    g_log = nullptr;
}

void WriteWholeFile(const std::string& path, const Bytes& content) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path);
}
