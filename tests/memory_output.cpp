#include "memory_output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

MemoryOutput* MemoryOutput::s_next = nullptr;

mp4_file_io_func_t* MemoryOutput::Functions() {
    s_next = this;
    m_functions = {Init, Uninit, Tell, Seek, Flush, Read, Write};
    return &m_functions;
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

bool MemoryOutput::Init(kx_mp4_handle* handle, const wchar_t* path, uint32_t blockSize,
                        uint32_t blocks) {
    MemoryOutput& output = *s_next;
    std::string call = "init ";
    for (; *path != 0; ++path)
        call += static_cast<char>(*path);
    output.calls.push_back(call + " " + std::to_string(blockSize) + " " + std::to_string(blocks));
    if (output.refuseInit) return false;
    output.open = true;
    *handle = &output;
    return true;
}

bool MemoryOutput::Uninit(kx_mp4_handle handle) {
    auto& output = *static_cast<MemoryOutput*>(handle);
    output.calls.push_back("uninit");
    output.open = false;
    return true;
}

uint64_t MemoryOutput::Tell(kx_mp4_handle handle) {
    auto& output = *static_cast<MemoryOutput*>(handle);
    output.calls.push_back("tell");
    return output.m_position;
}

void MemoryOutput::Seek(kx_mp4_handle handle, int64_t offset, int whence) {
    auto& output = *static_cast<MemoryOutput*>(handle);
    output.calls.push_back("seek " + std::to_string(offset) + " " + std::to_string(whence));
    const uint64_t base = whence == SEEK_SET   ? 0
                          : whence == SEEK_CUR ? output.m_position
                                               : output.m_size;
    output.m_position = base + static_cast<uint64_t>(offset);
}

void MemoryOutput::Flush(kx_mp4_handle handle) {
    static_cast<MemoryOutput*>(handle)->calls.push_back("flush");
}

int MemoryOutput::Read(kx_mp4_handle, void*, uint32_t) {
    return 0;
}

int MemoryOutput::Write(kx_mp4_handle handle, const void* buffer, uint32_t size) {
    auto& output = *static_cast<MemoryOutput*>(handle);
    output.calls.push_back("write " + std::to_string(size));
    if (++output.writes >= output.failingWrite && output.failingWrite != 0) {
        errno = output.failureErrno;
        return output.failureResult;
    }
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    if (output.onWrite) output.onWrite(output.m_position, bytes, size);
    for (uint64_t i = 0, piece = 0; i < size && size < output.dropFrom; i += piece) {
        const uint64_t inPage = (output.m_position + i) % kPageSize;
        piece = std::min(size - i, kPageSize - inPage);
        Bytes& page = output.m_pages[(output.m_position + i) / kPageSize];
        page.resize(kPageSize);
        std::copy_n(bytes + i, piece, page.data() + inPage);
    }
    output.m_position += size;
    output.m_size = std::max(output.m_size, output.m_position);
    return 1;
}
