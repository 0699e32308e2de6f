#include "Box.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

namespace kx_mp4::movie {
namespace {

constexpr uint64_t kHeader = 8;
constexpr uint64_t kLargeHeader = 16;
constexpr uint64_t kFullHeader = 12;
constexpr int kMaxDepth = 12;
constexpr size_t kMaxBoxes = size_t{1} << 20;
constexpr size_t kMaxFaults = 100;

template <size_t count>
bool IsOneOf(const std::string& type, const char* const (&types)[count]) {
    return std::any_of(std::begin(types), std::end(types),
                       [&type](const char* each) { return type == each; });
}

bool Printable(char byte) {
    return byte >= ' ' && byte <= '~';
}

[[noreturn]] void Refuse(const Box& box, const std::string& why) {
    throw MovieError("box '" + box.Name() + "' at " + std::to_string(box.offset) + ": " + why);
}

/// The entries of 'stsd' (8.5.2 of the standard).
uint64_t EntryChildren(const Box& entry) {
    static constexpr const char* kVisual[] = {"avc1", "avc3", "hvc1", "hev1", "apco",
                                              "apcs", "apcn", "apch", "ap4h", "ap4x"};
    constexpr uint64_t kVisualEntry = 86;
    constexpr uint64_t kSoundEntry = 36;
    constexpr uint64_t kSoundVersion1 = 16;  // more, in QuickTime
    if (IsOneOf(entry.type, kVisual)) return kVisualEntry;
    if (entry.type != "mp4a") return 0;
    const Bytes version = entry.Peek(16, 2);
    return kSoundEntry + (version.size() == 2 && Int16(version.data()) == 1 ? kSoundVersion1 : 0);
}

/// Where the children of a box begin in it, or 0 for a box without children.
uint64_t ChildrenStart(const Box& box, const std::string& parent) {
    static constexpr const char* kContainers[] = {"moov", "trak", "mdia", "minf", "dinf",
                                                  "stbl", "edts", "udta", "tref", "gmhd",
                                                  "wave", "ilst", "mvex", "moof", "traf"};
    static constexpr const char* kLists[] = {"stsd", "keys", "dref"};  // with a count in front
    if (IsOneOf(box.type, kContainers) || parent == "ilst") return kHeader;
    if (IsOneOf(box.type, kLists)) return kFullHeader + 4;
    if (parent == "stsd") return EntryChildren(box);
    if (box.type == "tmcd" && parent == "gmhd") return kHeader;
    // Of a timecode track in an MP4 file; elsewhere it is a full box without content.
    if (box.type == "nmhd") return box.size > kFullHeader ? kHeader : 0;
    if (box.type != "meta") return 0;
    // With version and flags, or in QuickTime's form without.
    const Bytes head = box.Peek(kFullHeader, 4);
    return std::string(head.begin(), head.end()) == "hdlr" ? kHeader : kFullHeader;
}

class TreeReader {
public:
    TreeReader(std::shared_ptr<const BoxSource> source, BoxTree& tree)
        : m_source(std::move(source)), m_tree(tree) {}

    void Read();

private:
    /// Empty when there is no room for a header.
    std::optional<Box> ReadHeader(uint64_t offset, uint64_t end) const;
    Box ReadTopBox(uint64_t offset);
    bool IsOpenMediaData(const Box& box) const;
    void ReadChildren(Box& parent, const std::string& grandparent, int depth);
    void Fault(const std::string& text) {
        if (m_tree.faults.size() < kMaxFaults) m_tree.faults.push_back(text);
    }

    const std::shared_ptr<const BoxSource> m_source;
    BoxTree& m_tree;
    size_t m_boxes = 0;
};

std::optional<Box> TreeReader::ReadHeader(uint64_t offset, uint64_t end) const {
    std::array<uint8_t, kLargeHeader> head{};
    if (end - offset < kHeader || !m_source->Read(offset, head.data(), kHeader))
        return std::nullopt;
    Box box;
    box.type.assign(head.begin() + 4, head.begin() + kHeader);
    box.offset = offset;
    box.source = m_source;
    box.size = Int32(head.data());
    if (box.size == 1) {
        if (end - offset < kLargeHeader || !m_source->Read(offset, head.data(), kLargeHeader))
            return std::nullopt;
        box.size = Int64(head.data() + kHeader);
        box.headerSize = kLargeHeader;
        // While a recording runs, the 64-bit size of its media data is 1.
        if (box.size == 1 && box.type == "mdat") box.size = kLargeHeader;
    } else if (box.size == 0) {
        box.size = end - offset;
    }
    if (box.size < box.headerSize) return std::nullopt;
    box.isCut = box.size > end - offset;
    if (box.isCut) box.size = end - offset;
    return box;
}

/// Media data of a recording that has not been finished: a header that claims no content, and
/// behind it something else than a box of the top level (a ProRes frame looks like a box).
bool TreeReader::IsOpenMediaData(const Box& box) const {
    static constexpr const char* kTopLevel[] = {"moov", "free", "skip", "wide", "mdat",
                                                "meta", "udta", "uuid", "moof", "mfra"};
    if (box.type != "mdat" || box.size != box.headerSize) return false;
    const uint64_t end = box.offset + box.size;
    if (end == m_source->Size()) return false;
    std::array<uint8_t, kHeader> next{};
    if (!m_source->Read(end, next.data(), next.size())) return true;
    return !IsOneOf(std::string(next.begin() + 4, next.end()), kTopLevel);
}

Box TreeReader::ReadTopBox(uint64_t offset) {
    const uint64_t end = m_source->Size();
    std::optional<Box> box = ReadHeader(offset, end);
    if (!box || !std::all_of(box->type.begin(), box->type.end(), Printable) ||
        m_boxes == kMaxBoxes) {
        Fault("From byte " + std::to_string(offset) + " on there is no box.");
        box = Box{"????", offset, end - offset, 0, false, {}, m_source};
    } else if (box->isCut) {
        Fault("The box '" + box->Name() + "' at byte " + std::to_string(offset) + " is cut off.");
    } else if (IsOpenMediaData(*box)) {
        m_tree.isOpen = true;
        box->size = end - offset;
    } else {
        ReadChildren(*box, "file", 0);
    }
    ++m_boxes;
    return std::move(*box);
}

void TreeReader::ReadChildren(Box& parent, const std::string& grandparent, int depth) {
    uint64_t start = ChildrenStart(parent, grandparent);
    if (start == 0) return;
    start += parent.headerSize - kHeader;
    const uint64_t end = parent.offset + parent.size;
    uint64_t offset = parent.offset + std::min(start, parent.size);
    while (offset < end) {
        std::optional<Box> child = ReadHeader(offset, end);
        if (!child || child->isCut || depth == kMaxDepth || m_boxes == kMaxBoxes) {
            // QuickTime ends a list of user data with four zeros.
            const Bytes rest = parent.Peek(offset - parent.offset, kHeader);
            if (parent.type == "udta" && rest == Bytes(4)) return;
            Fault("The box '" + parent.Name() + "' at byte " + std::to_string(parent.offset) +
                  " holds something else than boxes from byte " + std::to_string(offset) + " on.");
            return;
        }
        ++m_boxes;
        ReadChildren(*child, parent.type, depth + 1);
        offset += child->size;
        parent.children.push_back(std::move(*child));
    }
}

void TreeReader::Read() {
    Box& file = m_tree.file;
    file.type = "file";
    file.size = m_source->Size();
    file.headerSize = 0;
    file.source = m_source;
    for (uint64_t offset = 0; offset < file.size;) {
        file.children.push_back(ReadTopBox(offset));
        offset += file.children.back().size;
    }
}

}  // namespace

FileSource::FileSource(const std::string& path)
    : m_file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    if (m_file < 0) throw MovieError(path + ": " + std::strerror(errno));
    struct stat status {};
    if (fstat(m_file, &status) == 0 && S_ISREG(status.st_mode)) {
        m_size = static_cast<uint64_t>(status.st_size);
        return;
    }
    close(m_file);
    throw MovieError(path + ": not a regular file");
}

FileSource::~FileSource() {
    close(m_file);
}

bool FileSource::Read(uint64_t position, uint8_t* out, size_t size) const {
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

bool MemorySource::Read(uint64_t position, uint8_t* out, size_t size) const {
    if (size > m_bytes.size() || position > m_bytes.size() - size) return false;
    std::copy_n(m_bytes.data() + position, size, out);
    return true;
}

uint16_t Int16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

uint32_t Int32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

uint64_t Int64(const uint8_t* p) {
    return uint64_t{Int32(p)} << 32 | Int32(p + 4);
}

uint64_t Box::Uint(uint64_t position, uint32_t width) const {
    uint64_t value = 0;
    for (const uint8_t byte : Content(position, width))
        value = value << 8 | byte;
    return value;
}

Bytes Box::Content(uint64_t position, uint64_t length) const {
    if (position > size || length > size - position) Refuse(*this, "read past its end");
    Bytes content(static_cast<size_t>(length));
    if (!source->Read(offset + position, content.data(), content.size()))
        Refuse(*this, "cannot be read");
    return content;
}

Bytes Box::Peek(uint64_t position, uint64_t most) const {
    if (position >= size) return {};
    Bytes content(static_cast<size_t>(std::min(most, size - position)));
    if (!source->Read(offset + position, content.data(), content.size())) content.clear();
    return content;
}

std::string Box::Text(uint64_t position, uint64_t length) const {
    const Bytes content = Content(position, length);
    return {content.begin(), content.end()};
}

uint8_t Box::Version() const {
    const Bytes version = Peek(headerSize, 1);
    return version.empty() ? uint8_t{0} : version[0];
}

const Box* Box::Find(const std::string& path) const {
    const size_t slash = path.find('/');
    std::string name = path.substr(0, slash);
    size_t skip = 0;
    if (const size_t bracket = name.find('['); bracket != std::string::npos) {
        skip = std::stoul(name.substr(bracket + 1));
        name.resize(bracket);
    }
    for (const Box& child : children) {
        if (child.type != name || skip-- != 0) continue;
        return slash == std::string::npos ? &child : child.Find(path.substr(slash + 1));
    }
    return nullptr;
}

const Box& Box::At(const std::string& path) const {
    const Box* const box = Find(path);
    if (box == nullptr) Refuse(*this, "no '" + path + "' in it");
    return *box;
}

std::string Box::ChildTypes() const {
    std::string types;
    for (const Box& child : children)
        types += (types.empty() ? "" : " ") + child.type;
    return types;
}

std::string PrintableType(const std::string& type) {
    constexpr char kCopyrightSign = '\xA9';  // in Latin-1, as metadata tags begin
    if (type.size() == 4 && type[0] == 0)
        return '#' + std::to_string(Int32(reinterpret_cast<const uint8_t*>(type.data())));
    std::string name;
    for (const char byte : type)
        name += byte == kCopyrightSign ? "\u00A9" : std::string(1, Printable(byte) ? byte : '?');
    return name;
}

std::string Box::Dump(int depth) const {
    const std::string indent(static_cast<size_t>(depth) * 2, ' ');
    std::string name;
    std::array<char, 8> piece{};
    for (const char c : type) {
        std::snprintf(piece.data(), piece.size(), Printable(c) ? "%c" : "\\x%02x",
                      static_cast<unsigned char>(c));
        name += piece.data();
    }
    std::string text = indent + name + " " + std::to_string(size) + "\n";
    const uint64_t end = children.empty() ? size : children[0].offset - offset;
    for (uint64_t row = headerSize; row < end; row += 16) {
        std::string words;
        std::string letters;
        for (uint64_t i = row; i < row + 16 && i < end; ++i) {
            const uint8_t byte = U8(i);
            std::snprintf(piece.data(), piece.size(), (i - row) % 4 == 0 ? " %02x" : "%02x", byte);
            words += piece.data();
            letters += Printable(static_cast<char>(byte)) ? static_cast<char>(byte) : '.';
        }
        words.resize(36, ' ');
        text.append(indent).append(" ").append(words).append("  ").append(letters).append("\n");
    }
    for (const Box& child : children)
        text += child.Dump(depth + 1);
    return text;
}

BoxTree ReadBoxes(std::shared_ptr<const BoxSource> source) {
    BoxTree tree;
    TreeReader(std::move(source), tree).Read();
    return tree;
}

}  // namespace kx_mp4::movie
