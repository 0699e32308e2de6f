/// @file
/// Four-character codes: the type of a box, of a sample entry, of a handler, of a brand.
#ifndef KX_MP4_FOURCC_H
#define KX_MP4_FOURCC_H

#include <cstdint>
#include <cstring>

namespace kx_mp4 {

/// Four bytes that are written as they stand. Made from a literal of four characters at compile
/// time; without one, four zero bytes.
class FourCC {
public:
    /// Four zero bytes.
    constexpr FourCC() = default;
    /// The characters of a literal. Implicit on purpose: such a literal is a code.
    constexpr FourCC(const char (&text)[5]) : m_bytes{text[0], text[1], text[2], text[3]} {}

    /// The four bytes, not terminated.
    const char* data() const { return m_bytes; }
    /// A byte, by its place from 0.
    constexpr char operator[](int index) const { return m_bytes[index]; }

    /// Whether all four bytes are the same.
    friend constexpr bool operator==(FourCC a, FourCC b) {
        return a[0] == b[0] && a[1] == b[1] && a[2] == b[2] && a[3] == b[3];
    }
    /// Whether any byte differs.
    friend constexpr bool operator!=(FourCC a, FourCC b) { return !(a == b); }

private:
    char m_bytes[4] = {};
};

static_assert(sizeof(FourCC) == 4, "a four-character code is its four bytes");

}  // namespace kx_mp4

#endif  // KX_MP4_FOURCC_H
