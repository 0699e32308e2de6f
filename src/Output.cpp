#include "Output.h"

#include <utility>

#include "zv_log.h"

namespace kx_mp4 {
namespace {

constexpr const char* kSource = "src/Output";

bool HasAllCallbacks(const mp4_file_io_func_t& func) {
    return func.init != nullptr && func.uninit != nullptr && func.tell != nullptr &&
           func.seek != nullptr && func.flush != nullptr && func.write != nullptr;
}

mp4_status_t OpenFile(const wchar_t* path, std::unique_ptr<IBaseIO>& writer,
                      IFileIOBase*& gathering) {
    auto file = std::make_unique<CFileWriter>();
    file->PrepareGather();
    const mp4_status_t status = file->Init(path, 0, 0);
    if (status != MP4_STATUS_SUCCESS) {
        zv_log_error("init CFileWriter writer failed", kSource, __LINE__, "Create");
        return status;
    }
    gathering = file.get();
    writer = std::move(file);
    return MP4_STATUS_SUCCESS;
}

mp4_status_t OpenCallbacks(const wchar_t* path, mp4_file_io_func_t* func,
                           std::unique_ptr<IBaseIO>& writer) {
    if (func == nullptr) {
        zv_log_error("error: pFunc should not be null when use external io mode", kSource, __LINE__,
                     "Create");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    auto external = std::make_unique<ExternalWriter>(func);
    if (!HasAllCallbacks(*func) || external->Init(path, 0, 0) != MP4_STATUS_SUCCESS) {
        zv_log_error("init external writer failed", kSource, __LINE__, "Create");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    writer = std::move(external);
    return MP4_STATUS_SUCCESS;
}

}  // namespace

mp4_status_t OpenOutput(const wchar_t* path, const mp4_config_t& config,
                        std::unique_ptr<IBaseIO>& writer, IFileIOBase*& gathering) {
    switch (config.io_mode) {
        case MP4_IO_FILE:
            return OpenFile(path, writer, gathering);
        case MP4_IO_EXTERNAL:
            return OpenCallbacks(path, config.func, writer);
        case MP4_IO_DIRECT:
            zv_log_error("mac os platform do not support direct io yet", kSource, __LINE__,
                         "Create");
            return MP4_STATUS_UNSUPPORTED;
        case MP4_IO_SAFE_WRITE:
            zv_log_error("mac os platform do not support safe write mode", kSource, __LINE__,
                         "Create");
            return MP4_STATUS_UNSUPPORTED;
        default:
            return MP4_STATUS_UNSUPPORTED;
    }
}

bool WantsFastHeaderWrite(const mp4_config_t& config) {
    return (config.flags & MP4_FLAG_FAST_HEADER_WRITE) != 0 && config.io_mode == MP4_IO_DIRECT;
}

void LogFlags(const mp4_config_t& config) {
    zv_log_info("mp4 flag is %d", kSource, __LINE__, "Create", static_cast<int>(config.flags));
    if ((config.flags & MP4_FLAG_SAFE_MODE) != 0)
        zv_log_warn("safe mode flag already deprecated", kSource, __LINE__, "Create");
    if (WantsFastHeaderWrite(config))
        zv_log_info("fast header write enabled", kSource, __LINE__, "Create");
    else if ((config.flags & MP4_FLAG_FAST_HEADER_WRITE) != 0)
        zv_log_warn("fast header write flag only valid in direct io mode", kSource, __LINE__,
                    "Create");
}

}  // namespace kx_mp4
