#include "RecordingLayout.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "Atom.h"
#include "LiveIndex.h"
#include "RepairRefused.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

namespace {

constexpr uint64_t kHeader = kBoxHeaderSize;
constexpr uint64_t kLargeHeader = 16;
/// In the 32-bit size field: a 64-bit size follows the type.
constexpr uint32_t kLargeSizeFollows = 1;
/// In the 64-bit size field while the recording runs.
constexpr uint64_t kLargePlaceholder = 1;
/// `ftyp` with one compatible brand, and with more than any muxer would list.
constexpr uint64_t kMinFtyp = 16;
constexpr uint64_t kMaxFtyp = 1024;

class BoxHeader {
public:
    BoxHeader(const PosixFile& file, uint64_t position) {
        m_read = file.ReadAt(position, m_bytes.data(), m_bytes.size());
    }
    bool Is(FourCC type) const {
        return m_read >= kHeader && std::memcmp(m_bytes.data() + 4, type.data(), 4) == 0;
    }
    uint64_t Size() const { return Int(0, 4); }
    uint64_t LargeSize() const { return m_read == m_bytes.size() ? Int(8, 8) : 0; }
    bool BeginsContentWith(FourCC tag) const {
        return m_read >= 12 && std::memcmp(m_bytes.data() + 8, tag.data(), 4) == 0;
    }

private:
    uint64_t Int(size_t at, size_t width) const {
        uint64_t value = 0;
        for (size_t i = 0; i < width; ++i)
            value = value << 8 | m_bytes[at + i];
        return value;
    }

    std::array<uint8_t, kLargeHeader> m_bytes{};
    size_t m_read = 0;
};

/// Kind of the file; returns the position after `ftyp`.
uint64_t ReadFileType(const PosixFile& file, RecordingLayout& layout) {
    const BoxHeader ftyp(file, 0);
    if (!ftyp.Is("ftyp") || ftyp.Size() < kMinFtyp || ftyp.Size() > kMaxFtyp)
        throw RepairRefused("the recording does not begin with a file type box");
    layout.quicktime = ftyp.BeginsContentWith("qt  ");
    if (!layout.quicktime && !ftyp.BeginsContentWith("isom"))
        throw RepairRefused("the recording is of a kind that this library does not write");
    return ftyp.Size();
}

/// End of the media data by its header; the file's end while the header has its placeholder.
uint64_t MediaEnd(const PosixFile& file, const RecordingLayout& layout) {
    const uint64_t position = layout.mdatPosition;
    const uint64_t fileEnd = file.Size();
    const BoxHeader mdat(file, position);
    if (mdat.Is("mdat")) {
        if (layout.largeMdat != (mdat.Size() == kLargeSizeFollows))
            throw RepairRefused("the media data's header has another form than the flags say");
        const uint64_t size = layout.largeMdat ? mdat.LargeSize() : mdat.Size();
        const uint64_t placeholder = layout.largeMdat ? kLargePlaceholder : kHeader;
        // A movie without a frame is closed with the size that is also the placeholder.
        const bool empty = BoxHeader(file, layout.mediaBegin).Is("moov");
        if (size == placeholder) return empty ? layout.mediaBegin : fileEnd;
        if (size >= layout.mediaBegin - position && size <= UINT64_MAX - position)
            return position + size;
    }
    // | ftyp | free 8 | mdat 8 | ...   grew into   | ftyp | mdat 16 | ...
    const BoxHeader grown(file, position - kHeader);
    if (!layout.quicktime && !layout.largeMdat && grown.Is("mdat") &&
        grown.Size() == kLargeSizeFollows && grown.LargeSize() >= kLargeHeader)
        return position - kHeader + std::min(grown.LargeSize(), fileEnd);
    throw RepairRefused("no media data box lies where the repair info file says");
}

/// Whether what lies from `position` to the file's end may be the beginning of a movie box. Its
/// header is written with the size of an empty box first.
bool BeginsMovieBox(const PosixFile& file, uint64_t position) {
    constexpr std::array<uint8_t, kHeader> kFirst = {0, 0, 0, kHeader, 'm', 'o', 'o', 'v'};
    std::array<uint8_t, kHeader> head{};
    const size_t size = file.ReadAt(position, head.data(), head.size());
    if (size == head.size()) return std::equal(head.begin() + 4, head.end(), kFirst.begin() + 4);
    return std::equal(head.begin(), head.begin() + size, kFirst.begin());
}

/// Whether [begin, end) is one complete movie box. Its size and its children's sizes are written
/// last, so half a box does not add up.
bool IsMovieBox(const PosixFile& file, uint64_t begin, uint64_t end) {
    const BoxHeader moov(file, begin);
    if (!moov.Is("moov") || begin + moov.Size() != end) return false;
    uint64_t position = begin + kHeader;
    if (!BoxHeader(file, position).Is("mvhd")) return false;
    while (position < end) {
        const uint64_t size = BoxHeader(file, position).Size();
        if (size < kHeader || size > end - position) return false;
        position += size;
    }
    return true;
}

/// | free | mdat | moov | moof | mdat | moof | mdat (open) ...
///          ^ position
void ReadLiveLayout(const PosixFile& file, RecordingLayout& layout, uint64_t position) {
    layout.live = true;
    layout.mdatPosition = position;
    layout.liveHeader = position - LiveIndex::kFreeSize;
    layout.mediaBegin = position + LiveIndex::kMdatHeaderSize;
    uint64_t end = file.Size();
    if (end < layout.mediaBegin) throw RepairRefused("the recording ends before its media data");
    if (!BoxHeader(file, position).Is("mdat"))
        throw RepairRefused("no media data box lies where the repair info file says");
    // Closed: the header of the whole recording is no longer hidden in the 'free' box.
    if (BoxHeader(file, layout.liveHeader).Size() == kHeader) {
        const uint64_t size = BoxHeader(file, layout.liveHeader + kHeader).LargeSize();
        end = std::min(end, layout.liveHeader + kHeader + std::min(size, end));
        layout.hasMovieBox = IsMovieBox(file, end, file.Size());
    }
    layout.mediaLimit = end;
}

bool HoldsOnlyZeros(const PosixFile& file, uint64_t begin, uint64_t end) {
    std::array<uint8_t, 65536> bytes{};
    while (begin < end) {
        const size_t read =
            file.ReadAt(begin, bytes.data(), std::min<uint64_t>(bytes.size(), end - begin));
        if (read == 0) return true;
        const auto first = bytes.begin();
        if (std::any_of(first, first + read, [](uint8_t byte) { return byte != 0; })) return false;
        begin += read;
    }
    return true;
}

/// A movie box has the size of an empty one until it is complete, and may have got some bytes of
/// its own, from the highest on.
bool IsMovieSize(uint64_t size, uint64_t complete) {
    for (const int shift : {8, 16, 24, 32}) {
        if (size == ((complete >> shift << shift) | kHeader)) return true;
    }
    return size == complete;
}

/// Whether the boxes from `begin` on are those of an index and the last one ends at `end`, or
/// would end behind it.
bool HoldsUnfinishedIndex(const PosixFile& file, uint64_t begin, uint64_t end) {
    while (end - begin >= kHeader) {
        const BoxHeader box(file, begin);
        if (box.Is("moov") && IsMovieSize(box.Size(), end - begin)) return true;
        const bool known = box.Is("moov") || box.Is("moof") || box.Is("mdat");
        const uint64_t size = box.Is("mdat") ? LiveIndex::kMdatHeaderSize : box.Size();
        if (!known || size < kHeader) return false;
        if (size >= end - begin) return true;
        begin += size;
    }
    return true;
}

}  // namespace

MediaExtent ReadMediaExtent(const PosixFile& file, uint64_t begin, uint64_t limit) {
    const uint64_t position = begin - LiveIndex::kMdatHeaderSize;
    const BoxHeader mdat(file, position);
    const uint64_t size = mdat.LargeSize();
    const bool closed =
        mdat.Is("mdat") && mdat.Size() == kLargeSizeFollows && size >= LiveIndex::kMdatHeaderSize;
    return {begin, closed ? position + std::min(size, limit - position) : limit, closed};
}

// The first child is looked at too: samples may hold anything.
bool BeginsLiveIndex(const PosixFile& file, uint64_t position) {
    const BoxHeader box(file, position);
    if (!box.Is("moof") && !box.Is("moov")) return false;
    const uint64_t content = position + kHeader;
    return file.Size() < content + kHeader ||
           BoxHeader(file, content).Is(box.Is("moof") ? "mfhd" : "mvhd");
}

std::optional<uint64_t> EndOfLiveIndex(const PosixFile& file, uint64_t position, bool& hasHeader) {
    for (BoxHeader box(file, position); BeginsLiveIndex(file, position);
         box = BoxHeader(file, position)) {
        position += std::max(box.Size(), kHeader);
        if (!box.Is("moof")) continue;
        const BoxHeader next(file, position);
        hasHeader = next.Is("mdat") && next.Size() <= kLargeSizeFollows;
        return position + LiveIndex::kMdatHeaderSize;
    }
    return std::nullopt;
}

bool HoldsNoSample(const PosixFile& file, uint64_t begin, uint64_t end) {
    return HoldsUnfinishedIndex(file, begin, end) || HoldsOnlyZeros(file, begin, end);
}

RecordingLayout ReadRecordingLayout(const PosixFile& file, uint8_t flags, uint32_t mdatPosition) {
    RecordingLayout layout;
    uint64_t position = ReadFileType(file, layout);
    if (position + LiveIndex::kFreeSize == mdatPosition) {
        ReadLiveLayout(file, layout, mdatPosition);
        return layout;
    }
    if (!layout.quicktime) position += kHeader;  // free
    if (position != mdatPosition)
        throw RepairRefused("the repair info file belongs to another recording: media data at " +
                            std::to_string(mdatPosition) + " instead of " +
                            std::to_string(position));
    layout.largeMdat = (flags & MP4_FLAG_64BIT_SIZE) != 0;
    layout.mdatPosition = position;
    layout.mediaBegin = position + (layout.largeMdat ? kLargeHeader : kHeader);
    if (file.Size() < layout.mediaBegin)
        throw RepairRefused("the recording ends before its media data");
    const uint64_t fileEnd = file.Size();
    const uint64_t mediaEnd = MediaEnd(file, layout);
    // Nothing but the index follows the media data. When something else lies there, the size was
    // only half written, which happens before the first byte of the index:
    //
    //   | mdat 00 00 1A 08: samples ...       |    of   00 00 1A 2C   and before   00 00 00 08
    //                                 ^ 1A08  ^ 1A2C
    layout.mediaLimit = mediaEnd < fileEnd && BeginsMovieBox(file, mediaEnd) ? mediaEnd : fileEnd;
    layout.hasMovieBox = mediaEnd < fileEnd && IsMovieBox(file, mediaEnd, fileEnd);
    return layout;
}

}  // namespace kx_mp4
