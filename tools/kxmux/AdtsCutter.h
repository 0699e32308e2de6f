/// @file
/// Cuts an ADTS stream (ISO/IEC 14496-3, 1.A.2) into AAC frames.
#ifndef KXMUX_ADTSCUTTER_H
#define KXMUX_ADTSCUTTER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "AdtsHeader.h"
#include "ByteSource.h"

namespace kxmux {

/// Reads the header at `data`, which has at least AdtsHeader::kSize bytes; nothing when there is no
/// header, its sampling frequency is reserved or its length shorter than the header.
std::optional<kx_mp4::AdtsHeader> ReadAdtsHeader(const uint8_t* data);

/// One frame behind a 7-byte header without CRC; the bytes are borrowed from the cutter.
struct AdtsFrame {
    const uint8_t* data = nullptr;
    size_t size = 0;
    kx_mp4::AdtsHeader header;
};

class AdtsCutter {
public:
    /// How far into the input the first frame is looked for (tags of other programs go before).
    static constexpr size_t kMaxGarbage = size_t{1} << 20;

    /// Borrows the source.
    explicit AdtsCutter(ByteSource& source, size_t pieceSize = size_t{64} << 10)
        : m_reader(source, pieceSize) {}

    /// The next frame, valid until the next call; false at the end. Throws StreamError for lost
    /// synchronisation, a frame that is cut off, another configuration than the first frame's and
    /// what one sample cannot hold.
    bool Next(AdtsFrame& frame);
    /// Bytes in front of the first frame.
    size_t SkippedBytes() const { return m_skipped; }

private:
    void Synchronise();
    void Check(const kx_mp4::AdtsHeader& header) const;

    PieceReader m_reader;
    size_t m_unread = 0;
    size_t m_skipped = 0;
    std::optional<kx_mp4::AdtsHeader> m_first;
    std::vector<uint8_t> m_withoutCrc;
};

}  // namespace kxmux

#endif  // KXMUX_ADTSCUTTER_H
