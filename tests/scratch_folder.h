/// @file
/// A folder of its own for each test.
#ifndef KX_MP4_TESTS_SCRATCH_FOLDER_H
#define KX_MP4_TESTS_SCRATCH_FOLDER_H

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

/// Removed with its content at the end. Its path never contains "mov", which would make every
/// recording in it a QuickTime movie.
class ScratchFolder {
public:
    explicit ScratchFolder(const std::string& parent = "/tmp") {
        do {
            std::string pattern = parent + "/kx_mp4_test_XXXXXX";
            if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no folder");
            if (!m_path.empty()) std::filesystem::remove(m_path);
            m_path = pattern;
        } while (m_path.find("mov") != std::string::npos);
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    std::string Path(const std::string& name) const { return m_path + "/" + name; }
    std::wstring Wide(const std::string& name) const {
        const std::string path = Path(name);
        return std::wstring(path.begin(), path.end());
    }

private:
    std::string m_path;
};

#endif  // KX_MP4_TESTS_SCRATCH_FOLDER_H
