#include "FileLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "Retry.h"

namespace kx_mp4 {

int FileLock::Take(int file) {
    Release();
    m_file = fcntl(file, F_DUPFD_CLOEXEC, 0);
    if (m_file >= 0 && Retry([this] { return flock(m_file, LOCK_EX | LOCK_NB); }) == 0) return 0;
    const int code = errno;
    Release();
    return code;
}

void FileLock::Release() {
    if (m_file < 0) return;
    close(m_file);
    m_file = -1;
}

bool FileLock::IsHeld(const char* path) {
    // For writing, as file systems of a network want it for an exclusive lock.
    const int file = Retry([path] { return open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC); });
    if (file < 0) return false;
    FileLock lock;
    const bool held = lock.Take(file) == EWOULDBLOCK;
    close(file);
    return held;
}

}  // namespace kx_mp4
