/// @file
/// Reader of Scenarist closed caption files ("Scenarist_SCC V1.0").
#ifndef KXMUX_SCC_H
#define KXMUX_SCC_H

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "FrameRate.h"

namespace kxmux {

/// One caption packet as CMp4Muxer::WriteSubtitleFrame takes it.
struct CaptionPacket {
    uint64_t timestamp = 0;      ///< Ticks of the timescale that was asked for.
    std::vector<uint8_t> bytes;  ///< 61 02 n and n triplets.
};

/// The captions of one file.
class SccFile {
public:
    /// Reads a whole file. Lines may end in LF or CR LF; blank lines and a UTF-8 byte order mark
    /// are skipped.
    /// @return False for anything that is not a caption file of this form; Error() then says what
    ///         and in which line.
    bool Read(std::istream& in);
    const std::string& Error() const { return m_error; }

    /// The captions as packets in order of time.
    ///
    /// @param timescale  Ticks per second of the caption track.
    std::vector<CaptionPacket> Packets(uint32_t timescale) const;

private:
    struct Line {
        uint64_t frame = 0;          // since 00:00:00:00, at 30000/1001
        std::vector<uint8_t> pairs;  // two bytes each, with parity
    };

    std::vector<Line> m_lines;
    std::string m_error;
};

}  // namespace kxmux

#endif  // KXMUX_SCC_H
