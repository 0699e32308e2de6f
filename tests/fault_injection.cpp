#include "fault_injection.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string_view>

namespace {

using Of = FaultInjection::Of;

std::atomic<bool> g_active{false};
std::atomic<Of> g_of{Of::kFiles};
std::atomic<int> g_calls{0};
std::atomic<int> g_failingCall{0};
std::atomic<int> g_failure{0};
std::atomic<bool> g_forGood{false};

/// Counts a call and answers whether it fails.
bool Fails() {
    const int call = ++g_calls;
    return g_failure != FaultInjection::kNone && g_failingCall != 0 &&
           (g_forGood ? call >= g_failingCall : call == g_failingCall);
}

bool IsWatched(std::string_view path) {
    constexpr std::string_view kEnd = ".info";
    constexpr std::string_view kRemoved = " (deleted)";  // as the system names it
    if (path.size() > kRemoved.size() && path.substr(path.size() - kRemoved.size()) == kRemoved)
        path.remove_suffix(kRemoved.size());
    const bool side = path.size() >= kEnd.size() && path.substr(path.size() - kEnd.size()) == kEnd;
    return g_of == Of::kFiles || side == (g_of == Of::kSideFile);
}

bool FileFails(const char* path) {
    return g_active && !FaultPause::IsOn() && g_of != Of::kMemory && IsWatched(path) && Fails();
}

bool FileFails(int file) {
    if (!g_active || FaultPause::IsOn() || g_of == Of::kMemory) return false;
    char link[64];
    char path[PATH_MAX];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    const ssize_t size = readlink(link, path, sizeof path);
    return size > 0 && IsWatched({path, static_cast<size_t>(size)}) && Fails();
}

bool MemoryFails() {
    if (!g_active || FaultPause::IsOn() || g_of != Of::kMemory || !Fails()) return false;
    errno = g_failure;
    return true;
}

int Refuse() {
    errno = g_failure;
    return -1;
}

bool IsShort() {
    return g_failure == FaultInjection::kShortWrite;
}

}  // namespace

// The names are the linker's: --wrap=write sends calls of write to __wrap_write.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int file, const void* bytes, size_t size);
ssize_t __real_writev(int file, const iovec* pieces, int count);
ssize_t __real_pwritev(int file, const iovec* pieces, int count, off_t offset);
off_t __real_lseek(int file, off_t offset, int whence);
int __real_fsync(int file);
int __real_ftruncate(int file, off_t size);
int __real_close(int file);
void* __real_malloc(size_t size);
void* __real_realloc(void* block, size_t size);
void* __real_aligned_alloc(size_t alignment, size_t size);

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return FileFails(path) && !IsShort() ? Refuse() : __real_open(path, flags, mode);
}

ssize_t __wrap_write(int file, const void* bytes, size_t size) {
    if (!FileFails(file)) return __real_write(file, bytes, size);
    return IsShort() ? __real_write(file, bytes, (size + 1) / 2) : Refuse();
}

ssize_t __wrap_writev(int file, const iovec* pieces, int count) {
    if (!FileFails(file)) return __real_writev(file, pieces, count);
    return IsShort() ? __real_write(file, pieces[0].iov_base, (pieces[0].iov_len + 1) / 2)
                     : Refuse();
}

ssize_t __wrap_pwritev(int file, const iovec* pieces, int count, off_t offset) {
    return FileFails(file) && !IsShort() ? Refuse() : __real_pwritev(file, pieces, count, offset);
}

off_t __wrap_lseek(int file, off_t offset, int whence) {
    // Asking an open file for its position cannot fail, and moving is not interrupted.
    const bool asks = (offset == 0 && whence == SEEK_CUR) || g_failure == EINTR;
    return asks || !FileFails(file) || IsShort() ? __real_lseek(file, offset, whence) : Refuse();
}

int __wrap_fsync(int file) {
    return FileFails(file) && !IsShort() ? Refuse() : __real_fsync(file);
}

int __wrap_ftruncate(int file, off_t size) {
    return FileFails(file) && !IsShort() ? Refuse() : __real_ftruncate(file, size);
}

int __wrap_close(int file) {
    const bool fails = FileFails(file) && !IsShort();
    const int result = __real_close(file);
    return fails ? Refuse() : result;
}

void* __wrap_malloc(size_t size) {
    return MemoryFails() ? nullptr : __real_malloc(size);
}

void* __wrap_realloc(void* block, size_t size) {
    return MemoryFails() ? nullptr : __real_realloc(block, size);
}

void* __wrap_aligned_alloc(size_t alignment, size_t size) {
    return MemoryFails() ? nullptr : __real_aligned_alloc(alignment, size);
}
}
// NOLINTEND(bugprone-reserved-identifier)

void* operator new(size_t size) {
    void* const block = MemoryFails() ? nullptr : __real_malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return MemoryFails() ? nullptr : __real_malloc(size == 0 ? 1 : size);
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    std::free(block);
}

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

bool FaultInjection::Hit() const {
    return g_failingCall != 0 && g_calls >= g_failingCall;
}
