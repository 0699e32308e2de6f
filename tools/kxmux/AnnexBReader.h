/// @file
/// Cuts an Annex-B byte stream (ITU-T H.264 and H.265, Annex B) into NAL units.
#ifndef KXMUX_ANNEXBREADER_H
#define KXMUX_ANNEXBREADER_H

#include <cstddef>
#include <cstdint>

#include "ByteSource.h"

namespace kxmux {

/// A NAL unit from its header byte on, without start code and trailing zero bytes; borrowed.
struct NalUnit {
    const uint8_t* data = nullptr;
    size_t size = 0;
};

class AnnexBReader {
public:
    /// A NAL unit longer than this is refused, so that a file of another kind does not end up in
    /// memory as a whole.
    static constexpr size_t kMaxNalSize = size_t{256} << 20;
    /// How far into the input the first start code is looked for.
    static constexpr size_t kMaxGarbage = size_t{1} << 20;

    /// Borrows the source.
    explicit AnnexBReader(ByteSource& source, size_t pieceSize = size_t{256} << 10)
        : m_reader(source, pieceSize) {}

    /// Finds the next NAL unit, which is valid until the next call; empty units are passed over.
    /// False at the end of the input. Throws StreamError.
    bool Next(NalUnit& nal);
    /// Whether the input ended in a start code without a unit behind it.
    bool EndsInStartCode() const { return m_emptyUnit; }
    /// Bytes before the first start code that are not zero bytes of it.
    size_t SkippedBytes() const { return m_skipped; }

private:
    void SkipToFirstStartCode();
    size_t Find(size_t limit);

    PieceReader m_reader;
    size_t m_unread = 0;  // bytes of the window that belong to the unit handed out last
    size_t m_skipped = 0;
    bool m_started = false;
    bool m_emptyUnit = false;  // behind the last start code
};

}  // namespace kxmux

#endif  // KXMUX_ANNEXBREADER_H
