#include "Output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "FileCallbacks.h"
#include "TrackFeed.h"
#include "WidePath.h"
#include "kx_mp4/buffered_io.h"

namespace kxmux {
namespace {

/// The muxer makes a QuickTime movie when its path contains these letters anywhere.
constexpr wchar_t kQuickTimeMark[] = L"mov";

Container ContainerOf(const std::string& path) {
    const size_t dot = path.rfind('.');
    std::string extension = dot == std::string::npos ? "" : path.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    const bool quickTime = extension == "mov" || extension == "qt";
    return quickTime ? Container::kQuickTime : Container::kMp4;
}

Container ContainerByMuxer(const std::wstring& path) {
    return path.find(kQuickTimeMark) != std::wstring::npos ? Container::kQuickTime
                                                           : Container::kMp4;
}

RecordingError Failure(const std::string& path, const std::string& reason) {
    return RecordingError(path + ": " + reason);
}

/// The words of a shell that stand for the path.
std::string Quoted(const std::string& path) {
    const bool plain = std::all_of(path.begin(), path.end(), [](unsigned char letter) {
        return std::isalnum(letter) != 0 || std::strchr("/._-+,", letter) != nullptr;
    });
    if (plain && path[0] != '-') return path;
    std::string quoted = path[0] == '-' ? "'./" : "'";
    for (const char letter : path)
        quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    return quoted + "'";
}

/// The working folder of the process, changed for as long as this lives.
class WorkingFolder {
public:
    explicit WorkingFolder(const std::string& folder) {
        if (folder.empty()) return;
        m_before = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        m_entered = m_before >= 0 && ::chdir(folder.c_str()) == 0;
    }
    ~WorkingFolder() {
        if (m_before < 0) return;
        if (::fchdir(m_before) != 0) {
            // It was there a moment ago and is held open.
        }
        ::close(m_before);
    }
    WorkingFolder(const WorkingFolder&) = delete;
    WorkingFolder& operator=(const WorkingFolder&) = delete;

    bool Entered() const { return m_entered; }

private:
    bool m_entered = true;
    int m_before = -1;
};

/// Callbacks that open one path, whatever path the muxer hands on.
class Redirection {
public:
    static mp4_file_io_func_t* To(const std::wstring& path, const mp4_file_io_func_t& callbacks) {
        State() = {path, callbacks, callbacks};
        State().redirected.init = Open;
        return &State().redirected;
    }

private:
    struct Target {
        std::wstring path;
        mp4_file_io_func_t callbacks{};
        mp4_file_io_func_t redirected{};
    };
    static Target& State() {
        static Target target;
        return target;
    }
    static bool Open(kx_mp4_handle* handle, const wchar_t*, uint32_t size, uint32_t count) {
        return State().callbacks.init(handle, State().path.c_str(), size, count);
    }
};

}  // namespace

Output::Output(OutputOptions options)
    : m_options(std::move(options)),
      m_container(m_options.container.value_or(ContainerOf(m_options.path))),
      m_repairInfo(m_options.repairInfo && m_options.callbacks == nullptr) {}

void Output::Check(const InputSet& inputs) {
    if (m_options.callbacks == nullptr) {
        CheckKind();
        if (inputs.Contains(Path())) throw Failure(Path(), "is an input and would be overwritten");
        CheckFree();
    }
    const auto wide = WidenPath(Path());
    if (!wide) throw Failure(Path(), "no locale can spell this path");
    m_widePath = m_givenPath = *wide;
    m_aliased = ContainerByMuxer(m_widePath) != m_container;
    if (!m_aliased) return;
    const size_t name = m_widePath.rfind(L'/') + 1;  // 0 without a slash
    m_folder = Path().substr(0, Path().rfind('/') + 1);
    m_widePath.erase(0, name);
    m_givenPath = L".kxmux-" + std::to_wstring(::getpid()) + (IsQuickTime() ? L".mov" : L".mp4");
}

/// Sizes are written back into the file, so it has to be one that can be gone back in.
void Output::CheckKind() {
    if (Path() == "-")
        throw Failure("-o -",
                      "the recording cannot go to standard output; it must "
                      "be a file, because sizes are written back into it");
    struct stat status {};
    if (::stat(Path().c_str(), &status) != 0) return;
    if (S_ISDIR(status.st_mode)) {
        throw Failure(Path(), "is a folder; name the file to be made in it");
    }
    if (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode)) {
        throw Failure(Path(),
                      "is a pipe; the recording must be a file, because sizes are written "
                      "back into it");
    }
    if (!S_ISREG(status.st_mode)) m_repairInfo = m_regular = false;  // none in a folder of devices
}

void Output::CheckFree() const {
    if (m_options.overwrite) return;
    struct stat status {};
    if (::stat(Path().c_str(), &status) == 0 && !S_ISCHR(status.st_mode)) {
        throw Failure(Path(), "is there already; --overwrite replaces it");
    }
    if (m_repairInfo && ::lstat(RepairInfoPath().c_str(), &status) == 0) {
        throw Failure(RepairInfoPath(),
                      "is there already, of a recording that was not finished; "
                      "--overwrite replaces it");
    }
}

void Output::MakeFree(bool segments) const {
    if (segments || !m_options.overwrite) return;
    ::unlink(Path().c_str());
    ::unlink(RepairInfoPath().c_str());
}

/// Makes the file unless it is there, so that none that appears in the meantime is replaced.
void Output::Reserve() {
    constexpr mode_t kMode = 0644;
    const int file = ::open(Path().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
    m_made = file >= 0;
    if (m_made) {
        ::close(file);
        return;
    }
    const int error = errno;
    struct stat status {};
    const bool known = ::stat(Path().c_str(), &status) == 0;
    if (known && (m_options.overwrite || S_ISCHR(status.st_mode))) return;
    throw Failure(Path(), error == EEXIST ? "is there already; --overwrite replaces it"
                                          : std::string("cannot be created: ") + strerror(error));
}

mp4_config_t Output::Config(uint32_t flags) const {
    mp4_config_t config = {};
    config.flags = flags;
    if (m_repairInfo) config.flags |= MP4_FLAG_REPAIR_INFO;
    if (m_options.mode == OutputMode::kFile && m_options.callbacks == nullptr && !m_aliased) {
        return config;
    }
    config.io_mode = MP4_IO_EXTERNAL;
    config.func = FileCallbacks();
    if (m_options.mode == OutputMode::kBuffered) config.func = kx_mp4_buffered_io();
    if (m_options.callbacks != nullptr) config.func = m_options.callbacks;
    if (m_aliased) config.func = Redirection::To(m_widePath, *config.func);
    return config;
}

void Output::Create(CMp4Muxer& muxer, uint32_t flags) {
    if (m_options.callbacks == nullptr) Reserve();
    mp4_config_t config = Config(flags);
    const mp4_status_t status =
        m_aliased ? CreateAliased(muxer, config) : muxer.Create(m_givenPath.c_str(), &config);
    if (status == MP4_STATUS_SUCCESS) return;
    if (m_made) ::unlink(Path().c_str());
    throw Failure(Path(), std::string("cannot be created: ") + mp4_status_string(status));
}

/// The muxer decides the kind by the path, and names the repair info file after it. So it is told
/// another name in the same folder; the output is opened under its own all the same, and the
/// repair info file gets its own as soon as it is there.
mp4_status_t Output::CreateAliased(CMp4Muxer& muxer, mp4_config_t& config) {
    const WorkingFolder folder(m_folder);
    if (!folder.Entered()) return MP4_STATUS_NO_SUCH_FILE_OR_DIR;
    const mp4_status_t status = muxer.Create(m_givenPath.c_str(), &config);
    if (!m_repairInfo) return status;
    const auto alias = NarrowPath((m_givenPath + L".info").c_str());
    const auto name = NarrowPath((m_widePath + L".info").c_str());
    if (status == MP4_STATUS_SUCCESS && alias && name &&
        std::rename(alias->c_str(), name->c_str()) == 0) {
        return status;
    }
    if (alias) ::unlink(alias->c_str());
    if (status != MP4_STATUS_SUCCESS) return status;
    muxer.Close();
    return MP4_STATUS_PERMISSION_DENIED;
}

mp4_status_t Output::Close(CMp4Muxer& muxer) {
    const mp4_status_t status = muxer.Close();
    const bool finished = status == MP4_STATUS_SUCCESS;
    // The muxer does not know it under this name.
    if (finished && m_aliased && m_repairInfo) ::unlink(RepairInfoPath().c_str());
    return status;
}

bool Output::Discard() {
    if (!m_made) return false;
    m_made = false;
    if (m_repairInfo) ::unlink(RepairInfoPath().c_str());
    return ::unlink(Path().c_str()) == 0;
}

std::string Output::RepairHint() const {
    if (!m_repairInfo) return "there is no repair info file to repair it with";
    return "repair it with: kxrepair " + Quoted(Path());
}

}  // namespace kxmux
