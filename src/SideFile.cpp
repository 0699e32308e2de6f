#include "SideFile.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <iterator>

#include "FileLock.h"
#include "Log.h"
#include "defines.h"

namespace kx_mp4 {
namespace {

constexpr char kExtension[] = ".info";
/// Room for the name of a file, with its terminator.
constexpr size_t kNameRoom = 1024;

/// The path as seen from the root, so that it means the same file for good. Throws when the working
/// directory has no name.
std::string AbsolutePath(const char* path) {
    if (path[0] == '/') return path;
    std::array<char, PATH_MAX> folder{};
    if (getcwd(folder.data(), folder.size()) == nullptr) throw kx_mp4_exception(errno);
    return std::string(folder.data()) + "/" + path;
}

}  // namespace

void SideFile::Reset() {
    m_path.clear();
    m_untold = MP4_STATUS_SUCCESS;
}

mp4_status_t SideFile::SetName(const RecordingName& recording) {
    if (recording.WideString().size() + std::size(kExtension) > kNameRoom)
        return MP4_STATUS_INVALID_PARAMETER;
    NarrowPath path;
    const mp4_status_t status = recording.Convert(kExtension, path);
    if (status != MP4_STATUS_SUCCESS) return status;
    m_path = AbsolutePath(path.data());
    if (!FileLock::IsHeld(m_path.c_str())) return MP4_STATUS_SUCCESS;
    LogError("'%s' belongs to a recording that is running, or to a repair", "src/SideFile",
             __LINE__, "Create", m_path.c_str());
    return MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
}

mp4_status_t SideFile::Open(uint32_t flags) {
    mp4_status_t status = m_writer.Create(m_path.c_str());
    if (status != MP4_STATUS_SUCCESS) return status;
    status = m_writer.WriteFlag(static_cast<uint8_t>(flags & 0xFF));
    if (status == MP4_STATUS_SUCCESS) return status;
    m_writer.Close();
    Remove();
    return status;
}

void SideFile::Remove() {
    if (IsWanted()) std::remove(m_path.c_str());
}

}  // namespace kx_mp4
