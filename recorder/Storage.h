/// @file
/// Where a recorder's files live. Every failure is an errno value, 0 is success.
#ifndef KX_MP4_RECORDER_STORAGE_H
#define KX_MP4_RECORDER_STORAGE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kx_mp4 {

/// An open file. Push may run beside the others; it is closed by the destructor.
class IStorageFile {
public:
    IStorageFile() = default;
    virtual ~IStorageFile() = default;
    IStorageFile(const IStorageFile&) = delete;
    IStorageFile& operator=(const IStorageFile&) = delete;

    /// Writes all of it.
    virtual int WriteAt(uint64_t position, const uint8_t* bytes, size_t size) = 0;
    /// Takes room for the bytes [from, to) without changing the file's size. EOPNOTSUPP where that
    /// cannot be done.
    virtual int Reserve(uint64_t from, uint64_t to) = 0;
    /// Gives back the room behind the file's size.
    virtual int Trim(uint64_t size) = 0;
    /// Returns when what was written is on the device.
    virtual int Push() = 0;
};

/// Files by their paths. Any thread.
class IStorage {
public:
    IStorage() = default;
    virtual ~IStorage() = default;
    IStorage(const IStorage&) = delete;
    IStorage& operator=(const IStorage&) = delete;

    /// Creates a file that is not there yet; EEXIST when it is. Null with `error` set.
    virtual std::unique_ptr<IStorageFile> Create(const std::string& path, int& error) = 0;
    virtual bool Exists(const std::string& path) = 0;
    /// Pushes a file that somebody else has open.
    virtual int Push(const std::string& path) = 0;
    /// Pushes the names in the folder that the file lies in.
    virtual int PushFolder(const std::string& path) = 0;
    virtual int Remove(const std::string& path) = 0;
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_STORAGE_H
