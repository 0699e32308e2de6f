/// @file
/// A disk in memory for the recorder: it stalls, fills up and fails on demand.
#ifndef KX_MP4_TESTS_SIMULATED_DISK_H
#define KX_MP4_TESTS_SIMULATED_DISK_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Storage.h"

class SimulatedDisk final : public kx_mp4::IStorage {
public:
    using Bytes = std::vector<uint8_t>;

    /// Comes before each call ("create", "write", "reserve", "trim", "push", "push folder",
    /// "remove"), outside of the disk's lock: may wait, or answer with an errno value.
    std::function<int(std::string_view call, const std::string& path)> onCall;
    /// Bytes, in blocks of 4096; names take none.
    uint64_t capacity = UINT64_MAX;
    /// Whether room can be taken without writing.
    bool canReserve = true;

    std::unique_ptr<kx_mp4::IStorageFile> Create(const std::string& path, int& error) override;
    bool Exists(const std::string& path) override;
    int Push(const std::string& path) override { return Called("push", path); }
    int PushFolder(const std::string& path) override { return Called("push folder", path); }
    int Remove(const std::string& path) override;

    /// In the order of their names.
    std::vector<std::string> Names();
    /// Empty when there is no such file.
    Bytes Content(const std::string& path);
    uint64_t Used();

private:
    class File;
    struct Node {
        Bytes bytes;
        uint64_t room = 0;  // taken, whatever of it is written
    };

    int Called(std::string_view call, const std::string& path);
    int Take(Node& node, uint64_t to);

    std::mutex m_lock;
    std::map<std::string, std::shared_ptr<Node>> m_files;
    uint64_t m_used = 0;
};

#endif  // KX_MP4_TESTS_SIMULATED_DISK_H
