#include "BoxFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kxmap {

uint16_t Int16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

uint32_t Int32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

uint64_t Int64(const uint8_t* p) {
    return uint64_t{Int32(p)} << 32 | Int32(p + 4);
}

bool Printable(uint8_t byte) {
    return byte >= 0x20 && byte < 0x7F;
}

std::string TypeText(const uint8_t* p) {
    constexpr uint8_t kCopyrightSign = 0xA9;  // in Latin-1, as metadata tags begin
    std::string type;
    for (int i = 0; i < 4; ++i) {
        if (p[i] == kCopyrightSign)
            type += "\u00A9";
        else
            type.push_back(Printable(p[i]) ? static_cast<char>(p[i]) : '?');
    }
    return type;
}

bool PlausibleType(const uint8_t* p) {
    return std::all_of(p, p + 4, Printable);
}

File::File(const std::string& path)
    : m_file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    if (m_file < 0) throw MapError(path + ": " + std::strerror(errno));
    struct stat status {};
    const bool known = fstat(m_file, &status) == 0;
    if (known && S_ISREG(status.st_mode)) {
        m_size = static_cast<uint64_t>(status.st_size);
        return;
    }
    close(m_file);
    throw MapError(path + ": not a regular file");
}

File::~File() {
    close(m_file);
}

bool File::Read(uint64_t position, uint8_t* out, size_t size) const {
    if (size > m_size || position > m_size - size) return false;
    while (size != 0) {
        const ssize_t count = pread(m_file, out, size, static_cast<off_t>(position));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        out += count;
        position += static_cast<uint64_t>(count);
        size -= static_cast<size_t>(count);
    }
    return true;
}

std::vector<uint8_t> File::Content(const Box& box, uint64_t offset, size_t most) const {
    if (box.size <= offset) return {};
    std::vector<uint8_t> bytes(static_cast<size_t>(std::min<uint64_t>(most, box.size - offset)));
    if (!Read(box.position + offset, bytes.data(), bytes.size())) bytes.clear();
    return bytes;
}

const Box* Find(const Box* parent, const char* type) {
    if (parent == nullptr) return nullptr;
    for (const Box& child : parent->children) {
        if (child.type == type) return &child;
    }
    return nullptr;
}

}  // namespace kxmap
