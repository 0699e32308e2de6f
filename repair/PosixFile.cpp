#include "PosixFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "RepairRefused.h"
#include "defines.h"

namespace kx_mp4 {

namespace {

constexpr mode_t kNewFileMode = 0644;

void Require(bool success) {
    if (!success) throw kx_mp4_exception(errno);
}

}  // namespace

PosixFile::PosixFile(const std::string& path, int flags)
    : m_file(open(path.c_str(), flags | O_CLOEXEC, kNewFileMode)) {
    if (m_file < 0)
        throw RepairRefused("cannot open '" + path + "': " + kx_mp4_exception::error_str(errno));
}

PosixFile::~PosixFile() {
    close(m_file);
}

uint64_t PosixFile::Size() const {
    struct stat status = {};
    Require(fstat(m_file, &status) == 0);
    return static_cast<uint64_t>(status.st_size);
}

bool PosixFile::IsNamed(const std::string& path) const {
    struct stat mine = {};
    struct stat named = {};
    Require(fstat(m_file, &mine) == 0);
    if (stat(path.c_str(), &named) != 0) return false;
    return mine.st_dev == named.st_dev && mine.st_ino == named.st_ino;
}

size_t PosixFile::ReadAt(uint64_t position, void* buffer, size_t size) const {
    auto* next = static_cast<uint8_t*>(buffer);
    size_t done = 0;
    while (done < size) {
        const ssize_t count =
            pread(m_file, next + done, size - done, static_cast<off_t>(position + done));
        if (count < 0 && errno == EINTR) continue;
        Require(count >= 0);
        if (count == 0) break;
        done += static_cast<size_t>(count);
    }
    return done;
}

void PosixFile::WriteAt(uint64_t position, const void* buffer, size_t size) {
    const auto* next = static_cast<const uint8_t*>(buffer);
    size_t done = 0;
    while (done < size) {
        const ssize_t count =
            pwrite(m_file, next + done, size - done, static_cast<off_t>(position + done));
        if (count < 0 && errno == EINTR) continue;
        if (count == 0) errno = ENOSPC;
        Require(count > 0);
        done += static_cast<size_t>(count);
    }
}

void PosixFile::Truncate(uint64_t size) {
    Require(ftruncate(m_file, static_cast<off_t>(size)) == 0);
}

void PosixFile::Sync() {
    Require(fsync(m_file) == 0);
}

}  // namespace kx_mp4
