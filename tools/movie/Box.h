/// @file
/// The boxes of an ISO base media file (ISO/IEC 14496-12) or a QuickTime movie, read from wherever
/// its bytes are. Nothing here knows the library that wrote them: it is a second opinion.
#ifndef KX_MP4_MOVIE_BOX_H
#define KX_MP4_MOVIE_BOX_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kx_mp4::movie {

using Bytes = std::vector<uint8_t>;

/// A file that cannot be read, or a field that is not there.
class MovieError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Where a movie's bytes are.
class BoxSource {
public:
    BoxSource() = default;
    virtual ~BoxSource() = default;
    BoxSource(const BoxSource&) = delete;
    BoxSource& operator=(const BoxSource&) = delete;

    virtual uint64_t Size() const = 0;
    /// Reads exactly `size` bytes; false when they are not there.
    virtual bool Read(uint64_t position, uint8_t* out, size_t size) const = 0;
};

/// A regular file, open for reading. The constructor throws MovieError.
class FileSource final : public BoxSource {
public:
    explicit FileSource(const std::string& path);
    ~FileSource() override;

    uint64_t Size() const override { return m_size; }
    bool Read(uint64_t position, uint8_t* out, size_t size) const override;

private:
    int m_file;
    uint64_t m_size = 0;
};

/// Bytes in memory.
class MemorySource final : public BoxSource {
public:
    explicit MemorySource(Bytes bytes) : m_bytes(std::move(bytes)) {}

    uint64_t Size() const override { return m_bytes.size(); }
    bool Read(uint64_t position, uint8_t* out, size_t size) const override;

private:
    Bytes m_bytes;
};

/// Big-endian integers at `p`.
uint16_t Int16(const uint8_t* p);
uint32_t Int32(const uint8_t* p);
uint64_t Int64(const uint8_t* p);

/// A type in UTF-8: the copyright sign of metadata tags as such, the number of a key (in an item of
/// QuickTime's metadata) as "#1", what cannot be printed as '?'.
std::string PrintableType(const std::string& type);

/// One box. Positions given to the accessors count from the box's first byte; those that return a
/// field throw MovieError when it lies outside the box or the file.
struct Box {
    std::string type;     ///< Four bytes, as in the file.
    uint64_t offset = 0;  ///< In the file.
    uint64_t size = 0;    ///< With its header.
    uint32_t headerSize = 8;
    bool isCut = false;  ///< It claims more bytes than the file has; #size counts those it has.
    std::vector<Box> children = {};
    std::shared_ptr<const BoxSource> source = nullptr;

    uint64_t Uint(uint64_t position, uint32_t width) const;
    uint8_t U8(uint64_t position) const { return static_cast<uint8_t>(Uint(position, 1)); }
    uint16_t U16(uint64_t position) const { return static_cast<uint16_t>(Uint(position, 2)); }
    uint32_t U32(uint64_t position) const { return static_cast<uint32_t>(Uint(position, 4)); }
    uint64_t U64(uint64_t position) const { return Uint(position, 8); }
    std::string Text(uint64_t position, uint64_t length) const;
    Bytes Content(uint64_t position, uint64_t length) const;
    /// As many of these bytes as the box has; none when they cannot be read.
    Bytes Peek(uint64_t position, uint64_t most) const;
    /// The version of a full box (8.2 there); 0 when it is too short for one.
    uint8_t Version() const;

    /// A descendant by its path, such as "trak[1]/mdia/minf"; null without one.
    const Box* Find(const std::string& path) const;
    /// The same; throws without one.
    const Box& At(const std::string& path) const;
    /// The types of the children, separated by blanks.
    std::string ChildTypes() const;
    /// The type, printable.
    std::string Name() const { return PrintableType(type); }
    /// The box as readable text: types and sizes as a tree, contents as hexadecimal words.
    std::string Dump(int depth = 0) const;
};

/// What a file consists of.
struct BoxTree {
    Box file;  ///< Without a header; its children are the top level, and cover the file.
    /// The last box is media data without a size, as a recording has it that is not finished.
    bool isOpen = false;
    std::vector<std::string> faults;  ///< What does not hold, a sentence each.
};

/// Reads all boxes of a source. Whatever does not hold is left out and told among the faults. What
/// is no box at the top level becomes one of the type "????".
BoxTree ReadBoxes(std::shared_ptr<const BoxSource> source);

}  // namespace kx_mp4::movie

#endif  // KX_MP4_MOVIE_BOX_H
