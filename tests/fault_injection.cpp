#include "fault_injection.h"

#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<bool> g_active{false};
std::atomic<int> g_calls{0};
std::atomic<int> g_failingCall{0};
std::atomic<int> g_failure{0};

/// Counts a call and answers whether it is the one that fails.
bool Fails() {
    return g_active && ++g_calls == g_failingCall && g_failure != FaultInjection::kNone;
}

}  // namespace

// The names are the linker's: --wrap=write sends calls of write to __wrap_write.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
ssize_t __real_write(int file, const void* bytes, size_t size);
ssize_t __real_writev(int file, const iovec* pieces, int count);
off_t __real_lseek(int file, off_t offset, int whence);
int __real_fsync(int file);

ssize_t __wrap_write(int file, const void* bytes, size_t size) {
    if (!Fails()) return __real_write(file, bytes, size);
    if (g_failure == FaultInjection::kShortWrite) return __real_write(file, bytes, (size + 1) / 2);
    errno = g_failure;
    return -1;
}

ssize_t __wrap_writev(int file, const iovec* pieces, int count) {
    if (!Fails()) return __real_writev(file, pieces, count);
    if (g_failure == FaultInjection::kShortWrite)
        return __real_write(file, pieces[0].iov_base, (pieces[0].iov_len + 1) / 2);
    errno = g_failure;
    return -1;
}

off_t __wrap_lseek(int file, off_t offset, int whence) {
    // Asking an open file for its position cannot fail; only moving counts.
    const bool asks = offset == 0 && whence == SEEK_CUR;
    if (asks || !Fails() || g_failure == FaultInjection::kShortWrite)
        return __real_lseek(file, offset, whence);
    errno = g_failure;
    return -1;
}

int __wrap_fsync(int file) {
    if (!Fails() || g_failure == FaultInjection::kShortWrite) return __real_fsync(file);
    errno = g_failure;
    return -1;
}
}
// NOLINTEND(bugprone-reserved-identifier)

FaultInjection::FaultInjection(int failingCall, int failure) {
    g_calls = 0;
    g_failingCall = failingCall;
    g_failure = failure;
    g_active = true;
}

FaultInjection::~FaultInjection() {
    g_active = false;
}

int FaultInjection::Calls() const {
    return g_calls;
}

bool FaultInjection::Hit() const {
    return g_calls >= g_failingCall;
}
