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
    /// Opens the file; throws RepairRefused, which names it, when that fails.
    PosixFile(const std::string& path, int flags);
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

private:
    int m_file;
};

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_POSIXFILE_H
