#include "memory_output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

MemoryOutput* MemoryOutput::s_next = nullptr;

namespace {

MemoryOutput& Of(void* output) {
    return *static_cast<MemoryOutput*>(output);
}

}  // namespace

mp4_file_io_func_t* MemoryOutput::Functions() {
    s_next = this;
    m_functions.init = [](kx_mp4_handle* handle, const wchar_t* path, uint32_t blockSize,
                          uint32_t blocks) {
        *handle = s_next;
        const std::wstring wide(path);
        return s_next->Init(std::string(wide.begin(), wide.end()) + " " +
                            std::to_string(blockSize) + " " + std::to_string(blocks));
    };
    m_functions.uninit = [](kx_mp4_handle out) { return Of(out).Uninit(); };
    m_functions.tell = [](kx_mp4_handle out) {
        Of(out).Called("tell");
        return Of(out).m_position;
    };
    m_functions.seek = [](kx_mp4_handle out, int64_t offset, int whence) {
        Of(out).Seek(offset, whence);
    };
    m_functions.flush = [](kx_mp4_handle out) { Of(out).Called("flush"); };
    m_functions.read = [](kx_mp4_handle, void*, uint32_t) { return 0; };
    m_functions.write = [](kx_mp4_handle out, const void* buffer, uint32_t size) {
        return Of(out).Write(buffer, size);
    };
    return &m_functions;
}

mp4_io_callbacks_t MemoryOutput::Callbacks() {
    mp4_io_callbacks_t callbacks{};
    callbacks.user = this;
    callbacks.open = [](void* out, const char* path) { return Of(out).Init(path) ? 1 : 0; };
    callbacks.close = [](void* out) { return Of(out).Uninit() ? 1 : 0; };
    callbacks.tell = [](void* out) {
        return Of(out).Called("tell") ? static_cast<int64_t>(Of(out).m_position) : -1;
    };
    callbacks.seek = [](void* out, int64_t offset, int whence) {
        return Of(out).Seek(offset, whence) ? 1 : 0;
    };
    callbacks.flush = [](void* out) { return Of(out).Called("flush") ? 1 : 0; };
    callbacks.write = [](void* out, const void* buffer, uint32_t size) {
        return Of(out).Write(buffer, size);
    };
    return callbacks;
}

uint8_t MemoryOutput::ByteAt(uint64_t position) const {
    const auto page = m_pages.find(position / kPageSize);
    return page == m_pages.end() ? uint8_t{0} : page->second[position % kPageSize];
}

Bytes MemoryOutput::Content() const {
    Bytes content(m_size);
    for (const auto& [number, page] : m_pages) {
        const uint64_t at = number * kPageSize;
        std::copy_n(page.begin(), std::min(kPageSize, m_size - at), content.data() + at);
    }
    return content;
}

MovieReader MemoryOutput::Movie() const {
    return MovieReader(m_size, [this](uint64_t position) { return ByteAt(position); });
}

bool MemoryOutput::Called(const std::string& call) {
    calls.push_back(call);
    if (!onCall || onCall(std::string_view(call).substr(0, call.find(' ')))) return true;
    errno = failureErrno;
    return false;
}

bool MemoryOutput::Init(const std::string& arguments) {
    open = Called("init " + arguments);
    return open;
}

bool MemoryOutput::Uninit() {
    open = false;
    return Called("uninit");
}

bool MemoryOutput::Seek(int64_t offset, int whence) {
    const uint64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? m_position : m_size;
    m_position = base + static_cast<uint64_t>(offset);
    return Called("seek " + std::to_string(offset) + " " + std::to_string(whence));
}

int MemoryOutput::Write(const void* buffer, uint32_t size) {
    const bool good = Called("write " + std::to_string(size));
    if (!good || (++writes >= failingWrite && failingWrite != 0)) {
        errno = failureErrno;
        return failureResult;
    }
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    if (onWrite) onWrite(m_position, bytes, size);
    for (uint64_t i = 0, piece = 0; i < size && size < dropFrom; i += piece) {
        const uint64_t inPage = (m_position + i) % kPageSize;
        piece = std::min(size - i, kPageSize - inPage);
        Bytes& page = m_pages[(m_position + i) / kPageSize];
        page.resize(kPageSize);
        std::copy_n(bytes + i, piece, page.data() + inPage);
    }
    m_position += size;
    m_size = std::max(m_size, m_position);
    return 1;
}
