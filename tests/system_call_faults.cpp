// The system calls of fault_injection.h. A program that watches them otherwise leaves this file
// out.
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>

#include "fault_injection.h"

namespace {

using fault_injection::FailsOn;
using fault_injection::IsShort;
using fault_injection::Refuse;

bool FileFails(int file) {
    if (!fault_injection::WatchesFiles()) return false;
    char link[64];
    char path[PATH_MAX];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    const ssize_t size = readlink(link, path, sizeof path);
    return size > 0 && FailsOn({path, static_cast<size_t>(size)});
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
int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return FailsOn(path) && !IsShort() ? Refuse() : __real_open(path, flags, mode);
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
    const bool asks = (offset == 0 && whence == SEEK_CUR) || fault_injection::Failure() == EINTR;
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
}
// NOLINTEND(bugprone-reserved-identifier)
