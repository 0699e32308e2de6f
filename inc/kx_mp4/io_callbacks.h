/// @file
/// An output of the caller's own. For C and C++.
#ifndef KX_MP4_KX_MP4_IO_CALLBACKS_H
#define KX_MP4_KX_MP4_IO_CALLBACKS_H

#include <stdint.h>

/// The caller's output with an argument of the caller's, the second form of #mp4_file_io_func_t.
///
/// The output must be seekable: sizes are patched in place. Callbacks run on the thread that is
/// inside the muxer's operation, one at a time, under the muxer's lock; they must not call back
/// into the muxer. The record is copied; what `user` points to must live until Close has returned.
/// Those that return an int say 1 for success; anything else is a failure that the operation
/// answers with, by the errno that the callback leaves.
typedef struct mp4_io_callbacks {
    void* user;  ///< The first argument of every callback; not looked at.
    /// Opens the output; the path is UTF-8. May be null. A failure refuses Create.
    int (*open)(void* user, const char* path);
    /// Closes the output; called once. May be null. Close answers with its failure.
    int (*close)(void* user);
    /// The current write position in bytes; negative is a failure.
    int64_t (*tell)(void* user);
    /// Moves the position; `whence` is SEEK_SET, SEEK_CUR or SEEK_END.
    int (*seek)(void* user, int64_t offset, int whence);
    /// Pushes what was written to storage. May be null.
    int (*flush)(void* user);
    /// Writes exactly `size` bytes, never 0.
    int (*write)(void* user, const void* buffer, uint32_t size);
} mp4_io_callbacks_t;

#endif  // KX_MP4_KX_MP4_IO_CALLBACKS_H
