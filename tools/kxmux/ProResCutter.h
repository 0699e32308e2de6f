/// @file
/// Cuts a raw stream of ProRes frames (SMPTE RDD 36): each begins with its size and 'icpf'.
#ifndef KXMUX_PRORESCUTTER_H
#define KXMUX_PRORESCUTTER_H

#include <cstddef>
#include <cstdint>
#include <optional>

#include "ByteSource.h"
#include "FrameRate.h"

namespace kxmux {

/// One frame; the bytes are borrowed from the cutter.
struct ProResFrame {
    const uint8_t* data = nullptr;
    size_t size = 0;
    uint16_t width = 0;             ///< Luma samples.
    uint16_t height = 0;            ///< Luma samples.
    bool is444 = false;             ///< chroma_format 4:4:4 rather than 4:2:2
    std::optional<FrameRate> rate;  ///< frame_rate_code; nothing when it says none.
};

class ProResCutter {
public:
    static constexpr size_t kMaxFrameSize = size_t{256} << 20;

    /// Borrows the source.
    explicit ProResCutter(ByteSource& source, size_t pieceSize = size_t{256} << 10)
        : m_reader(source, pieceSize) {}

    /// The next frame, valid until the next call; false at the end. Throws StreamError.
    bool Next(ProResFrame& frame);

private:
    PieceReader m_reader;
    size_t m_unread = 0;
};

}  // namespace kxmux

#endif  // KXMUX_PRORESCUTTER_H
