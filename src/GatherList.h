/// @file
/// The pieces of one write, in order: what is small is copied side by side, the rest referred to.
#ifndef KX_MP4_GATHERLIST_H
#define KX_MP4_GATHERLIST_H

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kx_mp4 {

/// Pieces as writev takes them. Not thread safe.
class GatherList {
public:
    /// Adds a piece. The memory of a piece of at most 512 bytes may be used again at once, that
    /// of a larger one has to stay as it is until Clear.
    /// @return false when there is no room: the list has to be written and cleared before.
    bool Add(const void* bytes, uint32_t size) {
        if (m_pieces == kMaxPieces) return false;
        const size_t room = kCopyRoom - m_copied;
        if (size <= kSmall) {
            if (size > room) return false;
            AddCopy(bytes, size);
        } else if (size <= kCopyLimit && size + kRoomForSmall <= room) {
            AddCopy(bytes, size);
        } else {
            m_piece[m_pieces++] = {const_cast<void*>(bytes), size};
            m_endsInCopy = false;
        }
        return true;
    }
    void Clear() {
        m_pieces = m_copied = 0;
        m_endsInCopy = false;
    }

    iovec* begin() { return m_piece.data(); }
    iovec* end() { return m_piece.data() + m_pieces; }

private:
    static constexpr uint32_t kSmall = 512;  // as the file writer promises

    // The system spends about 60 ns on every further piece, in which a slice of a kilobyte is
    // copied three times over; past 4 KiB a copy costs more than the piece. Room is kept for the
    // lengths of pieces that are not copied any more, so that copying seldom adds a system call.
    static constexpr uint32_t kCopyLimit = 4096;
    static constexpr size_t kCopyRoom = size_t{64} << 10;
    static constexpr size_t kRoomForSmall = 4096;
    static constexpr size_t kMaxPieces = 128;

    void AddCopy(const void* bytes, uint32_t size) {
        uint8_t* const place = m_copy.data() + m_copied;
        std::memcpy(place, bytes, size);
        m_copied += size;
        // Copies lie side by side, so two in a row are one piece.
        if (m_endsInCopy)
            m_piece[m_pieces - 1].iov_len += size;
        else
            m_piece[m_pieces++] = {place, size};
        m_endsInCopy = true;
    }

    size_t m_pieces = 0;
    size_t m_copied = 0;
    bool m_endsInCopy = false;
    std::array<iovec, kMaxPieces> m_piece{};
    std::array<uint8_t, kCopyRoom> m_copy{};
};

}  // namespace kx_mp4

#endif  // KX_MP4_GATHERLIST_H
