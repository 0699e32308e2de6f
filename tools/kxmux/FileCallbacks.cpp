#include "FileCallbacks.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "WidePath.h"

namespace kxmux {
namespace {

/// What the handle points at. A failed seek or flush has no way to report itself, so its error
/// number is kept and fails the next write: nothing may be written at a position that was not
/// reached.
struct Output {
    int descriptor = -1;
    int error = 0;
};

Output& Of(kx_mp4_handle handle) {
    return *static_cast<Output*>(handle);
}

void Keep(Output& output, bool failed) {
    if (failed && output.error == 0) output.error = errno;
}

bool Open(kx_mp4_handle* handle, const wchar_t* path, uint32_t, uint32_t) {
    const auto narrow = NarrowPath(path);
    if (!narrow) return false;
    auto output = std::make_unique<Output>();
    output->descriptor = ::open(narrow->c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (output->descriptor < 0) return false;
    *handle = output.release();
    return true;
}

bool Close(kx_mp4_handle handle) {
    const std::unique_ptr<Output> output(static_cast<Output*>(handle));
    return ::close(output->descriptor) == 0;
}

uint64_t Tell(kx_mp4_handle handle) {
    const off_t position = ::lseek(Of(handle).descriptor, 0, SEEK_CUR);
    Keep(Of(handle), position < 0);
    return position < 0 ? 0 : static_cast<uint64_t>(position);
}

void Seek(kx_mp4_handle handle, int64_t offset, int whence) {
    Keep(Of(handle), ::lseek(Of(handle).descriptor, offset, whence) < 0);
}

void Flush(kx_mp4_handle handle) {
    Keep(Of(handle), ::fsync(Of(handle).descriptor) != 0);
}

/// Calls read or write until all bytes went through; 1 is success.
template <class Transfer>
int TransferAll(Output& output, Transfer transfer, uint32_t size) {
    uint32_t done = 0;
    while (done < size && output.error == 0) {
        const ssize_t count = transfer(done, size - done);
        if (count == 0) return 0;
        if (count > 0) done += static_cast<uint32_t>(count);
        Keep(output, count < 0 && errno != EINTR);
    }
    if (output.error != 0) errno = output.error;
    return output.error == 0 ? 1 : 0;
}

int Read(kx_mp4_handle handle, void* buffer, uint32_t size) {
    const auto transfer = [&](uint32_t at, uint32_t count) {
        return ::read(Of(handle).descriptor, static_cast<uint8_t*>(buffer) + at, count);
    };
    return TransferAll(Of(handle), transfer, size);
}

int Write(kx_mp4_handle handle, const void* buffer, uint32_t size) {
    const auto transfer = [&](uint32_t at, uint32_t count) {
        return ::write(Of(handle).descriptor, static_cast<const uint8_t*>(buffer) + at, count);
    };
    return TransferAll(Of(handle), transfer, size);
}

}  // namespace

mp4_file_io_func_t* FileCallbacks() {
    static mp4_file_io_func_t callbacks = {Open, Close, Tell, Seek, Flush, Read, Write};
    return &callbacks;
}

}  // namespace kxmux
