/// @file
/// An output in memory behind the caller's callbacks, which can fail on demand.
#ifndef KX_MP4_TESTS_MEMORY_OUTPUT_H
#define KX_MP4_TESTS_MEMORY_OUTPUT_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "kx_mp4/kx_mp4.h"
#include "movie_reader.h"

class MemoryOutput {
public:
    /// The callbacks; the next `init` opens this output.
    mp4_file_io_func_t* Functions();
    /// Those with an argument.
    mp4_io_callbacks_t Callbacks();

    /// The `failingWrite`-th write (from 1) and every later one fails with this error number.
    int failingWrite = 0;
    int failureErrno = 28;  // ENOSPC
    /// What a failing write returns; anything but 1 is a failure.
    int failureResult = 0;
    /// Writes of at least this size only move the position: their bytes read as zeros.
    uint32_t dropFrom = UINT32_MAX;

    /// Comes before each callback ("init", "uninit", "tell", "seek", "flush", "write"): may wait,
    /// throw, or answer that it fails.
    std::function<bool(std::string_view callback)> onCall;
    /// Sees every write that succeeds: position and bytes.
    std::function<void(uint64_t position, const uint8_t* bytes, uint32_t size)> onWrite;

    /// "init path", "write 4", "seek 0 0", "tell", "flush", "uninit", in order.
    std::vector<std::string> calls;
    int writes = 0;
    bool open = false;

    uint64_t Size() const { return m_size; }
    uint8_t ByteAt(uint64_t position) const;
    Bytes Content() const;
    MovieReader Movie() const;

private:
    static constexpr uint64_t kPageSize = 4096;

    bool Called(const std::string& call);
    bool Init(const std::string& arguments);
    bool Uninit();
    bool Seek(int64_t offset, int whence);
    int Write(const void* buffer, uint32_t size);

    static MemoryOutput* s_next;

    mp4_file_io_func_t m_functions{};
    uint64_t m_position = 0;
    uint64_t m_size = 0;
    std::map<uint64_t, Bytes> m_pages;
};

#endif  // KX_MP4_TESTS_MEMORY_OUTPUT_H
