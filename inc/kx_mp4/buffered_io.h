/// @file
/// A ready-made output for #MP4_IO_EXTERNAL: a file behind one large buffer.
///
/// The library's own file output hands every frame to the operating system before the frame's call
/// returns. This one trades that promise for fewer system calls: small frames are collected and
/// leave the process in large writes that end on multiples of the buffer size.
///
/// @code
/// mp4_config_t config = {};
/// config.io_mode = MP4_IO_EXTERNAL;
/// config.func = kx_mp4_buffered_io();
/// muxer.Create(L"recording.mp4", &config);
/// @endcode
///
/// What a crash can lose:
/// - When the process dies before Close has returned, the newest samples that are still in the
///   buffer are lost: up to the buffer size. Flush puts a bound on that; it empties the buffer.
/// - The repair info file, when it is on, is not buffered. After a crash its last records can
///   describe samples that never reached the output.
/// - When the machine dies, everything since the last Flush may be lost, as with any file output.
///
/// Failures:
/// - A failed write reaches the status of the muxer's operation with its error number. Because of
///   the buffer that can be a later operation than the one that wrote the sample.
/// - Seeking, and flushing with its sync, have no way to report in the callback interface. Their
///   failure is kept: every write after it fails with the same error number.
/// - Close tells the truth: a write that changes bytes already written, such as a size patch,
///   returns only when it and all that was written before are with the operating system. The last
///   write of a finished movie is the size patch of its index, so when Close returns
///   #MP4_STATUS_SUCCESS, no byte of the movie was left in the buffer.
/// - `init` refuses, and so Create fails with #MP4_STATUS_INVALID_PARAMETER, when the locale cannot
///   convert the path (errno EILSEQ), when it is longer than 1022 bytes (ENAMETOOLONG), when the
///   file cannot be opened, and when there is no memory for the buffer (ENOMEM).
/// - What the system reports only when it closes the file is not reported, nor is it by the
///   library's own file output.
#ifndef KX_MP4_BUFFERED_IO_H
#define KX_MP4_BUFFERED_IO_H

#include <cstdint>
#include <memory>

#include "kx_mp4/kx_mp4.h"

/// Bytes; the default of #kx_mp4_buffered_io.
constexpr uint32_t KX_MP4_BUFFERED_IO_SIZE = 1U << 20;
/// Bytes; the smallest buffer.
constexpr uint32_t KX_MP4_BUFFERED_IO_MIN_SIZE = 1U << 12;
/// Bytes; the largest buffer.
constexpr uint32_t KX_MP4_BUFFERED_IO_MAX_SIZE = 1U << 26;

/// The callback record of a buffered file, created or truncated, mode 0644. It is write-only: the
/// `read` callback fails with EBADF.
///
/// @param buffer_size  Bytes; rounded up to a power of two and brought into the range of
///                     #KX_MP4_BUFFERED_IO_MIN_SIZE to #KX_MP4_BUFFERED_IO_MAX_SIZE. Every open
///                     output has a buffer of its own.
/// @return A record that lives as long as the program, never null; not to be changed. Any number
///         of muxers can use it at the same time, from any threads.
KX_MP4_EXPORT mp4_file_io_func_t* kx_mp4_buffered_io(
    uint32_t buffer_size = KX_MP4_BUFFERED_IO_SIZE);

namespace kx_mp4 {

struct BufferedOutputState;

/// The same buffered file in the second form of the callbacks: paths in UTF-8, no locale, and
/// failures of seeking, flushing and closing reach the operation in which they happen.
class KX_MP4_EXPORT BufferedOutput {
public:
    /// @param buffer_size  As for #kx_mp4_buffered_io. Throws std::bad_alloc.
    explicit BufferedOutput(uint32_t buffer_size = KX_MP4_BUFFERED_IO_SIZE);
    /// Must not come before Close of the muxer has returned.
    ~BufferedOutput();
    BufferedOutput(const BufferedOutput&) = delete;
    BufferedOutput& operator=(const BufferedOutput&) = delete;

    /// For one muxer at a time, any number of files one after the other.
    mp4_io_callbacks_t Callbacks() const;

private:
    std::unique_ptr<BufferedOutputState> m_state;
};

}  // namespace kx_mp4

#endif  // KX_MP4_BUFFERED_IO_H
