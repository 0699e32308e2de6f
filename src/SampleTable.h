/// @file
/// What the sample tables share: entries of one width, kept serialised in the box's buffer while
/// recording goes on, written once at the end, or laid out early with room for a maximum number of
/// entries and rewritten in place (fixed-header mode).
///
/// | offset          | bytes | field                                            |
/// | 8               | 4     | version and flags                                |
/// | 12              | 0 / 4 | a field of the table itself (sample size)        |
/// | 12 / 16         | 4     | entry count                                      |
/// | 16 / 20         | w n   | entries; in fixed-header mode w times the maximum |
#ifndef KX_MP4_SAMPLETABLE_H
#define KX_MP4_SAMPLETABLE_H

#include "Atom.h"
#include "PlaceInFile.h"

namespace kx_mp4 {

class SampleTableAtom : public CMp4Atom {
public:
    /// Header plus room, or header plus what is in the buffer.
    uint32_t GetSize() override;

    /// Whether the box has the fixed size of a reservation.
    bool IsReserved() const { return m_maxFrameNum > 0; }
    /// Logs that the reservation is full; false.
    bool Refuse(const char* file, int line, const char* function) const;

protected:
    /// Where the entries begin: behind the count alone, or behind one more field and the count.
    enum class Layout : uint32_t {
        kCount = kFullBoxHeaderSize + sizeof(uint32_t),
        kFieldAndCount = kFullBoxHeaderSize + 2 * sizeof(uint32_t),
    };

    SampleTableAtom(IBaseIO* pWriter, FourCC type, uint32_t entrySize,
                    Layout layout = Layout::kCount)
        : CMp4Atom(pWriter),
          m_type(type),
          m_entrySize(entrySize),
          m_headerSize(static_cast<uint32_t>(layout)) {}

    /// Whether a reservation has no room for another entry.
    bool IsFull() const { return IsReserved() && m_frameNum >= m_maxFrameNum; }

    /// Enters the fixed-header mode. Comes before the first entry: the room is zeroed.
    void Reserve(uint32_t num, bool precise);

    uint32_t BufferedBytes() const { return static_cast<uint32_t>(m_buffer.GetSize()); }
    uint32_t BufferedEntries() const { return BufferedBytes() / m_entrySize; }
    uint32_t ReservedBytes() const { return m_entrySize * m_maxFrameNum; }

    /// Writes size, type, version 0 and flags 0.
    void WriteTableHeader();
    /// Writes the box as it stands, with this count.
    void WriteTable(uint32_t count);
    /// Writes the entries: the whole reserved room, or what is in the buffer.
    void WriteEntries();
    /// Whether the box lies in the file with reserved room; logs when it does not.
    bool CanUpdate(const char* file, int line) const;
    /// Rewrites the count and what came into the buffer since the last time.
    void Rewrite(uint32_t count);

    uint32_t m_maxFrameNum = 0;
    PlaceInFile m_place;
    uint32_t m_frameNum = 0;
    uint32_t m_lastUpdateOffset = 0;

private:
    FourCC m_type;
    uint32_t m_entrySize;
    uint32_t m_headerSize;
};

}  // namespace kx_mp4

#endif  // KX_MP4_SAMPLETABLE_H
