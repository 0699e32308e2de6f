// Output through callbacks: the recording is made in memory and written to a file at the end.
//
// What it shows: with MP4_IO_EXTERNAL the library opens no file. It calls seven functions, on the
// thread that is inside one of the muxer's operations and one at a time. The output has to be
// seekable, because sizes are patched when they are known; `read` is never called; `write` must
// answer exactly 1 for success, not a count, and sets errno to say why it failed.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include "kx_mp4/Mp4Muxer.h"
#include "test_pattern.h"

namespace {

struct MemoryFile {
    std::vector<char> bytes;
    size_t position = 0;
};

/// `init` gets only the path, so an application finds its own object by it, or, as here, makes it.
bool Open(kx_mp4_handle* handle, const wchar_t*, uint32_t, uint32_t) {
    static MemoryFile file;
    file = {};
    *handle = &file;
    return true;
}

MemoryFile& File(kx_mp4_handle handle) {
    return *static_cast<MemoryFile*>(handle);
}

/// The muxer is done with the handle: what is in memory is the whole file.
bool Close(kx_mp4_handle handle);

uint64_t Tell(kx_mp4_handle handle) {
    return File(handle).position;
}

void Seek(kx_mp4_handle handle, int64_t offset, int whence) {
    MemoryFile& file = File(handle);
    size_t base = 0;
    if (whence == SEEK_CUR) base = file.position;
    if (whence == SEEK_END) base = file.bytes.size();
    file.position = base + static_cast<size_t>(offset);
}

void Flush(kx_mp4_handle) {}

int Read(kx_mp4_handle, void*, uint32_t) {
    return 0;
}

int Write(kx_mp4_handle handle, const void* buffer, uint32_t size) {
    MemoryFile& file = File(handle);
    try {
        file.bytes.resize(std::max(file.bytes.size(), file.position + size));
    } catch (const std::bad_alloc&) {
        errno = ENOSPC;  // the muxer will answer MP4_STATUS_NO_SPACE_LEFT from now on
        return 0;
    }
    std::copy_n(static_cast<const char*>(buffer), size,
                file.bytes.begin() + static_cast<std::ptrdiff_t>(file.position));
    file.position += size;
    return 1;
}

std::string g_path;

bool Close(kx_mp4_handle handle) {
    const MemoryFile& file = File(handle);
    std::ofstream out(g_path, std::ios::binary);
    out.write(file.bytes.data(), static_cast<std::streamsize>(file.bytes.size()));
    return out.good();
}

mp4_status_t Record(CMp4Muxer& muxer) {
    mp4_video_track_info_t video{};
    video.timescale = 25;
    video.frame_duration = 1;
    video.codec = MP4_MVC_H264;
    video.width = test_pattern::kWidth;
    video.height = test_pattern::kHeight;
    mp4_status_t status = muxer.SetVideoTrack(&video);
    for (uint32_t picture = 0; picture < 50 && status == MP4_STATUS_SUCCESS; ++picture) {
        const auto frame = test_pattern::Picture(picture);
        status = muxer.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()), picture,
                                       picture);
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    g_path = argc > 1 ? argv[1] : "callbacks.mp4";
    mp4_file_io_func_t functions{Open, Close, Tell, Seek, Flush, Read, Write};
    mp4_config_t config{};
    config.io_mode = MP4_IO_EXTERNAL;
    config.func = &functions;  // has to live until the muxer's Close has returned

    CMp4Muxer muxer;
    // The path still decides between MP4 and QuickTime; the library opens nothing there.
    mp4_status_t status = muxer.Create(std::wstring(g_path.begin(), g_path.end()).c_str(), &config);
    if (status == MP4_STATUS_SUCCESS) status = Record(muxer);
    const mp4_status_t closed = muxer.Close();
    if (status == MP4_STATUS_SUCCESS && closed == MP4_STATUS_SUCCESS) return EXIT_SUCCESS;
    std::fprintf(stderr, "recording %d, Close %d\n", status, closed);
    return EXIT_FAILURE;
}
