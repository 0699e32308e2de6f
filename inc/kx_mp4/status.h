/// @file
/// What the operations of kx_mp4 answer with. For C and C++.
#ifndef KX_MP4_KX_MP4_STATUS_H
#define KX_MP4_KX_MP4_STATUS_H

#include "kx_mp4/export.h"

/// Result of every public operation.
typedef enum _mp4_status_t {
    MP4_STATUS_SUCCESS = 0,                  ///< Done.
    MP4_STATUS_UNEXPECTED_ERROR = 1,         ///< A failure without a status of its own.
    MP4_STATUS_INVALID_HANDLE = 2,           ///< A null handle; only in C.
    MP4_STATUS_FILE_NAME_TOO_LONG = 3,       ///< The path does not fit 1022 bytes.
    MP4_STATUS_INVALID_PARAMETER = 4,        ///< An argument or description fails validation.
    MP4_STATUS_OPEN_FILE_FAILED = 5,         ///< Reserved; a failed open reports its error number.
    MP4_STATUS_INVALID_CODEC_TYPE = 6,       ///< The video codec is none of #mp4_video_codec.
    MP4_STATUS_INVALID_SUBTITLE_TYPE = 7,    ///< Caption packet, but no known caption codec is set.
    MP4_STATUS_INVALID_ADTS_STREAM = 8,      ///< First frame of an ADTS track without ADTS header.
    MP4_STATUS_INVALID_VIDEO_STREAM = 9,     ///< No start code in an H.264 or HEVC frame.
    MP4_STATUS_INVALID_VIDEO_TRACK = 10,     ///< Video frame before a valid video track was set.
    MP4_STATUS_UNSUPPORTED = 11,             ///< The requested mode is not available.
    MP4_STATUS_OPERATOR_NOT_PERMITTED = 12,  ///< The system said EPERM.
    MP4_STATUS_NO_SUCH_FILE_OR_DIR = 13,     ///< The system said ENOENT.
    MP4_STATUS_PERMISSION_DENIED = 14,       ///< The system said EACCES.
    MP4_STATUS_DEVICE_OR_RESOURCE_BUSY = 15,  ///< EBUSY, or Create on a muxer that is open.
    MP4_STATUS_TOO_MANY_OPEN_FILES = 16,      ///< The system said EMFILE.
    MP4_STATUS_NO_SPACE_LEFT = 17,            ///< The system said ENOSPC.
    MP4_STATUS_READONLY_FILE_SYSTEM = 18,     ///< The system said EROFS.
    MP4_STATUS_EXTERNAL_FUNC_FAILED = 19,     ///< `init` refused; Create says invalid parameter.
    MP4_STATUS_FILE_NOT_OPEN = 20,            ///< No file is open on this muxer.
    MP4_STATUS_NO_SPACE_LEFT_IN_HEADER = 21   ///< A track cannot take another sample.
} mp4_status_t;

#ifdef __cplusplus
extern "C" {
#endif

/// The name of a status, such as "MP4_STATUS_NO_SPACE_LEFT", for logs and messages.
///
/// Any thread may call it at any time.
/// @return A string that lives as long as the program, never null; "MP4_STATUS_(unknown)" for a
///         value that is none of #mp4_status_t.
KX_MP4_EXPORT const char* mp4_status_string(mp4_status_t status);

/// The version of the library that the application runs with, "MAJOR.MINOR.PATCH". With the shared
/// library it can be newer than the headers that the application was compiled with.
///
/// Any thread may call it at any time.
/// @return A string that lives as long as the program.
KX_MP4_EXPORT const char* kx_mp4_version(void);

#ifdef __cplusplus
}
#endif

#endif  // KX_MP4_KX_MP4_STATUS_H
