/// @file
/// Reading an input in pieces: where bytes come from, and a window that moves over them.
#ifndef KXMUX_BYTESOURCE_H
#define KXMUX_BYTESOURCE_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace kxmux {

/// What is wrong with an input, in words that the user can act on. Who catches it knows the file
/// and the frame and adds them.
class StreamError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A sequence of bytes that is read once, front to back.
class ByteSource {
public:
    ByteSource() = default;
    virtual ~ByteSource() = default;
    ByteSource(const ByteSource&) = delete;
    ByteSource& operator=(const ByteSource&) = delete;

    /// Reads at most `size` bytes; 0 only at the end. Throws StreamError.
    virtual size_t Read(uint8_t* to, size_t size) = 0;
};

/// A window over a source: the bytes that were read and not yet dropped, in one piece of memory.
class PieceReader {
public:
    /// Borrows the source. `pieceSize` is what is asked from it at a time, in bytes.
    explicit PieceReader(ByteSource& source, size_t pieceSize = size_t{256} << 10);

    /// Reads until the window holds at least `size` bytes; false when the input ends before.
    /// Pointers into the window are no longer valid after it.
    bool Fill(size_t size);
    /// Reads one more piece; false at the end of the input.
    bool FillMore() { return Fill(Size() + 1); }
    const uint8_t* Data() const { return m_bytes.data() + m_first; }
    size_t Size() const { return m_last - m_first; }
    /// Gives up the first `size` bytes of the window, which must hold them.
    void Drop(size_t size);
    /// Offset of the window's first byte in the input.
    uint64_t Position() const { return m_position; }

private:
    void MakeRoom(size_t size);

    ByteSource& m_source;
    size_t m_pieceSize;
    std::vector<uint8_t> m_bytes;
    size_t m_first = 0;
    size_t m_last = 0;
    uint64_t m_position = 0;
};

}  // namespace kxmux

#endif  // KXMUX_BYTESOURCE_H
