// The whole road of kxmux' inputs: detection, cutters, feeds and a recording into memory. Whatever
// the bytes, it ends, with a recording that was closed or with the one kind of exception that says
// what is wrong; what was recorded has an index.
//
// The first byte chooses the codec and the options, the next two how many of the other bytes are
// video; what follows those is sound.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Recording.h"

namespace {

using namespace kxmux;

void Require(bool holds) {
    if (!holds) std::abort();
}

/// A file without a name that inputs are opened from.
class MemoryFile {
public:
    MemoryFile(const uint8_t* data, size_t size) : m_descriptor(memfd_create("input", 0)) {
        Require(m_descriptor >= 0);
        Require(write(m_descriptor, data, size) == static_cast<ssize_t>(size));
    }
    ~MemoryFile() { close(m_descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    std::string Path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

private:
    int m_descriptor;
};

/// The output of the recording that is going on.
struct MemoryOutput {
    std::vector<uint8_t> bytes;
    size_t position = 0;
};
MemoryOutput output;

mp4_file_io_func_t* MemoryCallbacks() {
    static mp4_file_io_func_t callbacks = {
        [](kx_mp4_handle* handle, const wchar_t*, uint32_t, uint32_t) {
            output = {};
            *handle = &output;
            return true;
        },
        [](kx_mp4_handle) { return true; },
        [](kx_mp4_handle) -> uint64_t { return output.position; },
        [](kx_mp4_handle, int64_t offset, int whence) {
            const size_t base = whence == SEEK_SET   ? 0
                                : whence == SEEK_CUR ? output.position
                                                     : output.bytes.size();
            output.position = base + static_cast<size_t>(offset);
        },
        [](kx_mp4_handle) {},
        nullptr,
        [](kx_mp4_handle, const void* data, uint32_t size) {
            if (output.bytes.size() < output.position + size) {
                output.bytes.resize(output.position + size);
            }
            if (size > 0) std::memcpy(output.bytes.data() + output.position, data, size);
            output.position += size;
            return 1;
        }};
    return &callbacks;
}

bool HasIndex() {
    const char type[] = {'m', 'o', 'o', 'v'};
    return std::search(output.bytes.begin(), output.bytes.end(), std::begin(type),
                       std::end(type)) != output.bytes.end();
}

RecordingOptions OptionsOf(uint8_t choice) {
    constexpr mp4_video_codec kCodecs[] = {MP4_MVC_H264, MP4_MVC_HEVC, MP4_MVC_PRORES};
    RecordingOptions options;
    options.output.path = "memory";
    options.output.callbacks = MemoryCallbacks();
    options.video.codec = kCodecs[(choice & 7) % 3];
    if ((choice & 0x08) != 0) options.video.rate = FrameRate{30000, 1001};
    options.video.deferred = (choice & 0x10) != 0;
    options.video.compositionOffsets = (choice & 0x20) == 0;
    options.use64bit = (choice & 0x40) != 0;
    if ((choice & 0x80) != 0) options.output.container = Container::kQuickTime;
    return options;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kHead = 3;
    if (size < kHead) return 0;
    RecordingOptions options = OptionsOf(data[0]);
    const size_t videoSize = std::min(size_t{data[1]} << 8 | data[2], size - kHead);
    const MemoryFile video(data + kHead, videoSize);
    const MemoryFile audio(data + kHead + videoSize, size - kHead - videoSize);
    if (videoSize > 0) options.video.path = video.Path();
    if (kHead + videoSize < size) options.audio = audio.Path();
    if (options.video.path.empty() && options.audio.empty()) return 0;
    try {
        Recording recording(options);
        recording.Run({[](const Progress&) {}, [](const std::string&) {}});
        Require(HasIndex() && !recording.Summary().empty());
    } catch (const RecordingError&) {
    }
    return 0;
}
