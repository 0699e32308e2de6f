#include "simulated_disk.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr uint64_t kBlock = 4096;

uint64_t InBlocks(uint64_t bytes) {
    return (bytes + kBlock - 1) / kBlock * kBlock;
}

}  // namespace

/// Belongs to the disk that made it.
class SimulatedDisk::File final : public kx_mp4::IStorageFile {
public:
    File(SimulatedDisk& disk, std::shared_ptr<Node> node, std::string path)
        : m_disk(disk), m_node(std::move(node)), m_path(std::move(path)) {}

    int WriteAt(uint64_t position, const uint8_t* bytes, size_t size) override {
        if (const int error = m_disk.Called("write", m_path)) return error;
        const std::lock_guard<std::mutex> lock(m_disk.m_lock);
        const int error = m_disk.Take(*m_node, position + size);
        if (error != 0) return error;
        if (m_node->bytes.size() < position + size) m_node->bytes.resize(position + size);
        std::copy_n(bytes, size, m_node->bytes.begin() + static_cast<std::ptrdiff_t>(position));
        return 0;
    }
    int Reserve(uint64_t, uint64_t to) override {
        if (const int error = m_disk.Called("reserve", m_path)) return error;
        if (!m_disk.canReserve) return EOPNOTSUPP;
        const std::lock_guard<std::mutex> lock(m_disk.m_lock);
        return m_disk.Take(*m_node, to);
    }
    int Trim(uint64_t size) override {
        if (const int error = m_disk.Called("trim", m_path)) return error;
        const std::lock_guard<std::mutex> lock(m_disk.m_lock);
        m_disk.m_used -= m_node->room - InBlocks(size);
        m_node->room = InBlocks(size);
        m_node->bytes.resize(size);
        return 0;
    }
    int Push() override { return m_disk.Called("push", m_path); }

private:
    SimulatedDisk& m_disk;
    std::shared_ptr<Node> m_node;
    std::string m_path;
};

int SimulatedDisk::Called(std::string_view call, const std::string& path) {
    return onCall ? onCall(call, path) : 0;
}

int SimulatedDisk::Take(Node& node, uint64_t to) {
    const uint64_t room = std::max(node.room, InBlocks(to));
    if (room - node.room > capacity - m_used) return ENOSPC;
    m_used += room - node.room;
    node.room = room;
    return 0;
}

std::unique_ptr<kx_mp4::IStorageFile> SimulatedDisk::Create(const std::string& path, int& error) {
    error = Called("create", path);
    if (error != 0) return nullptr;
    const std::lock_guard<std::mutex> lock(m_lock);
    const auto [place, isNew] = m_files.try_emplace(path, std::make_shared<Node>());
    if (!isNew) error = EEXIST;
    return isNew ? std::make_unique<File>(*this, place->second, path) : nullptr;
}

bool SimulatedDisk::Exists(const std::string& path) {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_files.count(path) != 0;
}

int SimulatedDisk::Remove(const std::string& path) {
    if (const int error = Called("remove", path)) return error;
    const std::lock_guard<std::mutex> lock(m_lock);
    const auto found = m_files.find(path);
    if (found == m_files.end()) return ENOENT;
    m_used -= found->second->room;
    found->second->room = 0;
    m_files.erase(found);
    return 0;
}

std::vector<std::string> SimulatedDisk::Names() {
    const std::lock_guard<std::mutex> lock(m_lock);
    std::vector<std::string> names;
    for (const auto& [name, node] : m_files)
        names.push_back(name);
    return names;
}

SimulatedDisk::Bytes SimulatedDisk::Content(const std::string& path) {
    const std::lock_guard<std::mutex> lock(m_lock);
    const auto found = m_files.find(path);
    return found != m_files.end() ? found->second->bytes : Bytes();
}

uint64_t SimulatedDisk::Used() {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_used;
}
