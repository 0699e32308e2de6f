#include "Output.h"

#include <utility>

#include "CallbackWriter.h"
#include "Log.h"

namespace kx_mp4 {
namespace {

constexpr const char* kSource = "src/Output";

bool HasAllCallbacks(const mp4_file_io_func_t& func) {
    return func.init != nullptr && func.uninit != nullptr && func.tell != nullptr &&
           func.seek != nullptr && func.flush != nullptr && func.write != nullptr;
}

mp4_status_t OpenFile(const RecordingName& name, std::unique_ptr<IBaseIO>& writer,
                      IFileIOBase*& gathering) {
    auto file = std::make_unique<CFileWriter>();
    file->PrepareGather();
    NarrowPath path;
    mp4_status_t status = name.Convert("", path);
    if (status == MP4_STATUS_SUCCESS) status = file->Init(path.data());
    if (status != MP4_STATUS_SUCCESS) {
        LogError("init CFileWriter writer failed", kSource, __LINE__, "Create");
        return status;
    }
    gathering = file.get();
    writer = std::move(file);
    return MP4_STATUS_SUCCESS;
}

mp4_status_t RefuseCallbacks() {
    LogError("init external writer failed", kSource, __LINE__, "Create");
    return MP4_STATUS_INVALID_PARAMETER;
}

mp4_status_t OpenExternal(const wchar_t* path, mp4_file_io_func_t* func,
                          std::unique_ptr<IBaseIO>& writer) {
    if (func == nullptr) {
        LogError("error: pFunc should not be null when use external io mode", kSource, __LINE__,
                 "Create");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    auto external = std::make_unique<ExternalWriter>(func);
    if (!HasAllCallbacks(*func) || external->Init(path, 0, 0) != MP4_STATUS_SUCCESS)
        return RefuseCallbacks();
    writer = std::move(external);
    return MP4_STATUS_SUCCESS;
}

mp4_status_t OpenCallbacks(const char* path, const mp4_io_callbacks_t& callbacks,
                           std::unique_ptr<IBaseIO>& writer) {
    auto external = std::make_unique<CallbackWriter>(callbacks);
    if (!CallbackWriter::IsComplete(callbacks) || !external->Open(path)) return RefuseCallbacks();
    writer = std::move(external);
    return MP4_STATUS_SUCCESS;
}

}  // namespace

mp4_status_t OpenOutput(const OutputRequest& request, std::unique_ptr<IBaseIO>& writer,
                        IFileIOBase*& gathering) {
    if (request.callbacks != nullptr)
        return OpenCallbacks(request.name.Utf8(), *request.callbacks, writer);
    switch (request.config.io_mode) {
        case MP4_IO_FILE:
            return OpenFile(request.name, writer, gathering);
        case MP4_IO_EXTERNAL:
            return OpenExternal(request.name.Wide(), request.config.func, writer);
        case MP4_IO_DIRECT:
            LogError("mac os platform do not support direct io yet", kSource, __LINE__, "Create");
            return MP4_STATUS_UNSUPPORTED;
        case MP4_IO_SAFE_WRITE:
            LogError("mac os platform do not support safe write mode", kSource, __LINE__, "Create");
            return MP4_STATUS_UNSUPPORTED;
        default:
            return MP4_STATUS_UNSUPPORTED;
    }
}

bool IsQuickTime(const OutputRequest& request) {
    if (request.container != MP4_CONTAINER_FROM_PATH)
        return request.container == MP4_CONTAINER_QUICKTIME;
    return request.name.WideString().find(L"mov") != std::wstring::npos;
}

bool WantsFastHeaderWrite(const mp4_config_t& config) {
    return (config.flags & MP4_FLAG_FAST_HEADER_WRITE) != 0 && config.io_mode == MP4_IO_DIRECT;
}

void LogFlags(const mp4_config_t& config) {
    LogInfo("mp4 flag is %d", kSource, __LINE__, "Create", static_cast<int>(config.flags));
    if ((config.flags & MP4_FLAG_SAFE_MODE) != 0)
        LogWarn("safe mode flag already deprecated", kSource, __LINE__, "Create");
    if (WantsFastHeaderWrite(config))
        LogInfo("fast header write enabled", kSource, __LINE__, "Create");
    else if ((config.flags & MP4_FLAG_FAST_HEADER_WRITE) != 0)
        LogWarn("fast header write flag only valid in direct io mode", kSource, __LINE__, "Create");
}

}  // namespace kx_mp4
