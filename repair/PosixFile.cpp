#include "PosixFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>

#include "RepairRefused.h"
#include "Retry.h"
#include "defines.h"

namespace kx_mp4 {

namespace {

void Require(bool success) {
    if (!success) throw kx_mp4_exception(errno);
}

[[noreturn]] void RefuseToOpen(const std::string& path) {
    throw RepairRefused("cannot open '" + path + "': " + kx_mp4_exception::error_str(errno));
}

struct stat StatusOf(int file) {
    struct stat status = {};
    Require(fstat(file, &status) == 0);
    return status;
}

}  // namespace

// Both constructors delegate first: from then on the destructor closes the file when they throw.

PosixFile::PosixFile(const std::string& path, int flags)
    : PosixFile(Retry([&] { return open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC); })) {
    if (m_file < 0) RefuseToOpen(path);
    if (!S_ISREG(StatusOf(m_file).st_mode))
        throw RepairRefused("'" + path + "' is not a regular file");
}

PosixFile::PosixFile(const std::string& path, const PosixFile& like, std::string& name)
    : PosixFile(-1) {
    constexpr int kTries = 1000;
    for (int i = 0; i < kTries && m_file < 0; ++i) {
        name = path + "." + std::to_string(getpid()) + "-" + std::to_string(i) + ".part";
        m_file = Retry([&] {
            return open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        });
        if (m_file < 0 && errno != EEXIST) RefuseToOpen(name);
    }
    if (m_file < 0) RefuseToOpen(name);
    TakeAfter(like);
}

/// Only root can give a file away. What the group may do goes to the same group or to nobody.
void PosixFile::TakeAfter(const PosixFile& like) {
    constexpr mode_t kPermissions = 0777;
    constexpr mode_t kOfTheGroup = 0070;
    struct stat status = {};
    if (fstat(like.m_file, &status) != 0) return;
    mode_t mode = status.st_mode & kPermissions;
    if (fchown(m_file, status.st_uid, status.st_gid) != 0 &&
        fchown(m_file, static_cast<uid_t>(-1), status.st_gid) != 0)
        mode &= static_cast<mode_t>(~kOfTheGroup);
    if (fchmod(m_file, mode) != 0) errno = 0;  // it stays the repairer's own, 0600
}

PosixFile::~PosixFile() {
    if (m_file >= 0) close(m_file);
}

uint64_t PosixFile::Size() const {
    return static_cast<uint64_t>(StatusOf(m_file).st_size);
}

uint64_t PosixFile::BytesOnDevice() const {
    constexpr uint64_t kBlock = 512;  // whatever the file system's own blocks are
    return static_cast<uint64_t>(StatusOf(m_file).st_blocks) * kBlock;
}

bool PosixFile::IsNamed(const std::string& path) const {
    const struct stat mine = StatusOf(m_file);
    struct stat named = {};
    if (stat(path.c_str(), &named) != 0) return false;
    return mine.st_dev == named.st_dev && mine.st_ino == named.st_ino;
}

size_t PosixFile::ReadAt(uint64_t position, void* buffer, size_t size) const {
    auto* next = static_cast<uint8_t*>(buffer);
    size_t done = 0;
    while (done < size) {
        const ssize_t count = Retry([&] {
            return pread(m_file, next + done, size - done, static_cast<off_t>(position + done));
        });
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
        const ssize_t count = Retry([&] {
            return pwrite(m_file, next + done, size - done, static_cast<off_t>(position + done));
        });
        if (count == 0) errno = ENOSPC;
        Require(count > 0);
        done += static_cast<size_t>(count);
    }
}

void PosixFile::Truncate(uint64_t size) {
    Require(Retry([&] { return ftruncate(m_file, static_cast<off_t>(size)); }) == 0);
}

void PosixFile::Sync() {
    Require(Retry([this] { return fsync(m_file); }) == 0);
}

void PosixFile::RequireRoom(uint64_t position, uint64_t size) {
    struct statvfs system = {};
    const uint64_t have = Size();
    const uint64_t end = position + size;
    if (end <= have || fstatvfs(m_file, &system) != 0) return;
    if (system.f_blocks == 0) return;  // a file system without a limit of its own says so
    const uint64_t need = end - have;
    const uint64_t room = uint64_t{system.f_bavail} * system.f_frsize;
    if (need <= room) return;
    throw RepairRefused("the file system has no room for the repaired file: it takes " +
                        std::to_string(need) + " bytes, " + std::to_string(need - room) +
                        " more than there are");
}

ContainingFolder::ContainingFolder(const std::string& path) {
    const size_t name = path.find_last_of('/');
    const std::string folder = name == std::string::npos ? "." : path.substr(0, name + 1);
    m_folder = Retry([&] { return open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
}

ContainingFolder::~ContainingFolder() {
    if (m_folder >= 0) close(m_folder);
}

void ContainingFolder::Sync() {
    if (m_folder >= 0) (void)Retry([this] { return fsync(m_folder); });
}

}  // namespace kx_mp4
