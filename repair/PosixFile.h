/// @file
/// A file descriptor with an owner.
#ifndef KX_MP4_REPAIR_POSIXFILE_H
#define KX_MP4_REPAIR_POSIXFILE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace kx_mp4 {

/// Closes its descriptor. Failures of the operations throw kx_mp4_exception with the error number.
class PosixFile {
public:
    /// Opens a regular file that is there; throws RepairRefused, which names it, when that fails or
    /// the path names something else.
    PosixFile(const std::string& path, int flags);
    /// Creates a file for reading and writing beside `path`, under a free name that begins with it
    /// and is stored in `name`: nothing that is there is opened, and no link is followed. It gets
    /// the permissions of `like` and, as far as the system allows, its owner and group.
    PosixFile(const std::string& path, const PosixFile& like, std::string& name);
    ~PosixFile();
    PosixFile(const PosixFile&) = delete;
    PosixFile& operator=(const PosixFile&) = delete;

    int Descriptor() const { return m_file; }
    uint64_t Size() const;
    /// Whether the path is a name of this file.
    bool IsNamed(const std::string& path) const;
    /// Reads up to `size` bytes at `position`; fewer only at the file's end.
    size_t ReadAt(uint64_t position, void* buffer, size_t size) const;
    void WriteAt(uint64_t position, const void* buffer, size_t size);
    void Truncate(uint64_t size);
    void Sync();
    /// Makes sure that `size` bytes can be written at `position`: throws RepairRefused, which says
    /// how much is missing, when the file system has no room for what the file does not have yet.
    void RequireRoom(uint64_t position, uint64_t size);
    /// Bytes that the file takes on the device; fewer than its size when it has holes.
    uint64_t BytesOnDevice() const;

private:
    explicit PosixFile(int file) : m_file(file) {}
    void TakeAfter(const PosixFile& like);

    int m_file;
};

/// The folder that holds a path, opened in time: what follows needs no memory.
class ContainingFolder {
public:
    explicit ContainingFolder(const std::string& path);
    ~ContainingFolder();
    ContainingFolder(const ContainingFolder&) = delete;
    ContainingFolder& operator=(const ContainingFolder&) = delete;

    /// Pushes the names in it to the storage device. A file system that cannot do that is no
    /// failure.
    void Sync();

private:
    int m_folder;
};

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_POSIXFILE_H
