/// @file
/// What must hold of every file that is called finished: its boxes add up.
#ifndef KX_MP4_FUZZ_FILE_WALK_H
#define KX_MP4_FUZZ_FILE_WALK_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

/// Ends the process where `condition` does not hold, and tells where that is.
inline void Require(bool condition, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
    if (condition) return;
    std::fprintf(stderr, "%s:%d: does not hold\n", file, line);
    std::abort();
}

/// Walks the boxes of [begin, end) and into the containers (ISO/IEC 14496-12). The order at the
/// top level is `ftyp`, `free` or nothing, `mdat`, `moov`.
class FileWalk {
public:
    explicit FileWalk(const std::vector<uint8_t>& file) : m_file(file) {}

    void CheckFinished() {
        const std::string types = Walk(0, m_file.size());
        Require(types == "ftyp free mdat moov " || types == "ftyp mdat moov ");
    }

private:
    uint64_t Int(size_t at, size_t width) const {
        Require(at + width <= m_file.size());
        uint64_t value = 0;
        for (size_t i = 0; i < width; ++i)
            value = value << 8 | m_file[at + i];
        return value;
    }

    static bool IsContainer(const std::string& type) {
        for (const char* container : {"moov", "trak", "edts", "mdia", "minf", "dinf", "stbl"}) {
            if (type == container) return true;
        }
        return false;
    }

    std::string Walk(size_t begin, size_t end) {
        std::string types;
        while (begin != end) {
            constexpr size_t kHeader = 8;
            Require(end - begin >= kHeader);
            uint64_t size = Int(begin, 4);
            if (size == 1) size = Int(begin + kHeader, 8);
            Require(size >= kHeader && size <= end - begin);
            const std::string type(reinterpret_cast<const char*>(&m_file[begin + 4]), 4);
            const auto boxEnd = begin + static_cast<size_t>(size);
            if (IsContainer(type)) Walk(begin + kHeader, boxEnd);
            types += type + " ";
            begin = boxEnd;
        }
        return types;
    }

    const std::vector<uint8_t>& m_file;
};

#endif  // KX_MP4_FUZZ_FILE_WALK_H
