#include "kx_mp4/kx_mp4.h"
#include "version.h"

const char* mp4_status_string(mp4_status_t status) {
    switch (status) {
        case MP4_STATUS_SUCCESS:
            return "MP4_STATUS_SUCCESS";
        case MP4_STATUS_UNEXPECTED_ERROR:
            return "MP4_STATUS_UNEXPECTED_ERROR";
        case MP4_STATUS_INVALID_HANDLE:
            return "MP4_STATUS_INVALID_HANDLE";
        case MP4_STATUS_FILE_NAME_TOO_LONG:
            return "MP4_STATUS_FILE_NAME_TOO_LONG";
        case MP4_STATUS_INVALID_PARAMETER:
            return "MP4_STATUS_INVALID_PARAMETER";
        case MP4_STATUS_OPEN_FILE_FAILED:
            return "MP4_STATUS_OPEN_FILE_FAILED";
        case MP4_STATUS_INVALID_CODEC_TYPE:
            return "MP4_STATUS_INVALID_CODEC_TYPE";
        case MP4_STATUS_INVALID_SUBTITLE_TYPE:
            return "MP4_STATUS_INVALID_SUBTITLE_TYPE";
        case MP4_STATUS_INVALID_ADTS_STREAM:
            return "MP4_STATUS_INVALID_ADTS_STREAM";
        case MP4_STATUS_INVALID_VIDEO_STREAM:
            return "MP4_STATUS_INVALID_VIDEO_STREAM";
        case MP4_STATUS_INVALID_VIDEO_TRACK:
            return "MP4_STATUS_INVALID_VIDEO_TRACK";
        case MP4_STATUS_UNSUPPORTED:
            return "MP4_STATUS_UNSUPPORTED";
        case MP4_STATUS_OPERATOR_NOT_PERMITTED:
            return "MP4_STATUS_OPERATOR_NOT_PERMITTED";
        case MP4_STATUS_NO_SUCH_FILE_OR_DIR:
            return "MP4_STATUS_NO_SUCH_FILE_OR_DIR";
        case MP4_STATUS_PERMISSION_DENIED:
            return "MP4_STATUS_PERMISSION_DENIED";
        case MP4_STATUS_DEVICE_OR_RESOURCE_BUSY:
            return "MP4_STATUS_DEVICE_OR_RESOURCE_BUSY";
        case MP4_STATUS_TOO_MANY_OPEN_FILES:
            return "MP4_STATUS_TOO_MANY_OPEN_FILES";
        case MP4_STATUS_NO_SPACE_LEFT:
            return "MP4_STATUS_NO_SPACE_LEFT";
        case MP4_STATUS_READONLY_FILE_SYSTEM:
            return "MP4_STATUS_READONLY_FILE_SYSTEM";
        case MP4_STATUS_EXTERNAL_FUNC_FAILED:
            return "MP4_STATUS_EXTERNAL_FUNC_FAILED";
        case MP4_STATUS_FILE_NOT_OPEN:
            return "MP4_STATUS_FILE_NOT_OPEN";
        case MP4_STATUS_NO_SPACE_LEFT_IN_HEADER:
            return "MP4_STATUS_NO_SPACE_LEFT_IN_HEADER";
    }
    return "MP4_STATUS_(unknown)";
}

const char* kx_mp4_version() {
    return KX_MP4_VERSION;
}
