/// @file
/// Files of the operating system.
#ifndef KX_MP4_RECORDER_POSIXSTORAGE_H
#define KX_MP4_RECORDER_POSIXSTORAGE_H

#include "Storage.h"

namespace kx_mp4 {

class PosixStorage final : public IStorage {
public:
    std::unique_ptr<IStorageFile> Create(const std::string& path, int& error) override;
    bool Exists(const std::string& path) override;
    int Push(const std::string& path) override;
    int PushFolder(const std::string& path) override;
    int Remove(const std::string& path) override;
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_POSIXSTORAGE_H
