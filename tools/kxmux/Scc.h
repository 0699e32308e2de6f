/// @file
/// Reader of Scenarist closed caption files ("Scenarist_SCC V1.0").
///
/// A file is a header line and lines of a time and hexadecimal words:
///
///     01:02:53:14    94ae 94ae 9420 9420 947a 947a ...
///
/// A word is one CEA-608 byte pair of field 1 with its parity bits. A line's pairs go on air from
/// its time on, one per frame of 30000/1001 Hz, so a pop-on caption is seen when its last pair, the
/// command that flips it on, has been sent.
#ifndef KXMUX_SCC_H
#define KXMUX_SCC_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

namespace kxmux {

/// One caption packet as CMp4Muxer::WriteSubtitleFrame takes it.
struct CaptionPacket {
    uint64_t timestamp = 0;          ///< Ticks of the timescale that was asked for.
    std::array<uint8_t, 6> bytes{};  ///< 61 02 01 and one triplet of field 1.
};

/// The captions of one file.
class SccFile {
public:
    /// A caption track with this timescale has exact times, 1001 ticks per frame.
    static constexpr uint32_t kTimescale = 30000;

    /// Reads a whole file. Lines may end in LF or CR LF; blank lines and a UTF-8 byte order mark
    /// are skipped. Times are those of SMPTE ST 12-1 at 30000/1001 Hz, with a semicolon before the
    /// frames in drop frame counting; they must not go back.
    /// @return False for anything else; Error() then says what is wrong and in which line.
    bool Read(std::istream& in);
    const std::string& Error() const { return m_error; }

    /// The captions as packets in order of time, at most one per frame.
    ///
    /// Each pair is a packet of its own at the time of its frame, as caption streams of cameras and
    /// broadcasts have it, since players hand a sample's pairs to the decoder all at once: with a
    /// line in one sample, captions would be seen up to a second early and roll-up text would jump.
    /// Pairs of a line that begins while the line before is still being sent follow directly after
    /// that one. Null pairs (80 80) stand where a packet is needed to keep times: at 0, because a
    /// caption track starts with its first sample, and after the last pair of a run, so that this
    /// pair's sample does not last until the next line.
    ///
    /// @param timescale  Ticks per second of the caption track, not 0; see kTimescale.
    std::vector<CaptionPacket> Packets(uint32_t timescale) const;

private:
    struct Pair {
        uint32_t frame;  // since 00:00:00:00
        std::array<uint8_t, 2> bytes;
    };

    bool ReadHeader(std::string_view line);
    bool ReadCaption(std::string_view line);
    bool ReadWords(std::string_view words, uint32_t frame);
    bool Fail(const std::string& reason);

    std::vector<Pair> m_pairs;
    size_t m_line = 0;         // number of the line that is being read, from 1
    uint32_t m_lineFrame = 0;  // time of the last line
    std::string m_error;
};

}  // namespace kxmux

#endif  // KXMUX_SCC_H
