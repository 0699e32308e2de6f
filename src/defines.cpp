#include "defines.h"

#include <cerrno>
#include <cstring>

namespace {
/// Pseudo-code that means success.
constexpr int kNoError = 1000;
}  // namespace

mp4_status_t kx_mp4_exception::convert_error(int code) {
    switch (code) {
        case EPERM:
            return MP4_STATUS_OPERATOR_NOT_PERMITTED;
        case ENOENT:
            return MP4_STATUS_NO_SUCH_FILE_OR_DIR;
        case EACCES:
            return MP4_STATUS_PERMISSION_DENIED;
        case EBUSY:
            return MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
        case EMFILE:
            return MP4_STATUS_TOO_MANY_OPEN_FILES;
        case ENOSPC:
            return MP4_STATUS_NO_SPACE_LEFT;
        case EROFS:
            return MP4_STATUS_READONLY_FILE_SYSTEM;
        case kNoError:
            return MP4_STATUS_SUCCESS;
        default:
            return MP4_STATUS_UNEXPECTED_ERROR;
    }
}

const char* kx_mp4_exception::error_str(int code) {
    return std::strerror(code);
}
