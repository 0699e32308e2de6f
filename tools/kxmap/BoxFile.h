/// @file
/// Reading of boxes from a file.
#ifndef KXMAP_BOXFILE_H
#define KXMAP_BOXFILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "MovieMap.h"

namespace kxmap {

/// Bytes of a box's size and type.
constexpr uint64_t kHeader = 8;

uint16_t Int16(const uint8_t* p);
uint32_t Int32(const uint8_t* p);
uint64_t Int64(const uint8_t* p);
bool Printable(uint8_t byte);
/// The four characters; the copyright sign of metadata tags in UTF-8, others that cannot be printed
/// as '?'.
std::string TypeText(const uint8_t* p);
/// Whether a box at the top level could have that type.
bool PlausibleType(const uint8_t* p);

/// A regular file, open for reading. The constructor throws MapError.
class File {
public:
    explicit File(const std::string& path);
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    uint64_t Size() const { return m_size; }
    /// Reads exactly `size` bytes; false when they are not there.
    bool Read(uint64_t position, uint8_t* out, size_t size) const;
    /// Up to `most` bytes of a box, from `offset` in it on.
    std::vector<uint8_t> Content(const Box& box, uint64_t offset, size_t most) const;

private:
    int m_file;
    uint64_t m_size = 0;
};

/// The first child of that type; null without one, or without a parent.
const Box* Find(const Box* parent, const char* type);

}  // namespace kxmap

#endif  // KXMAP_BOXFILE_H
