/// @file
/// Time addresses HH:MM:SS:FF of SMPTE ST 12-1 and what a timecode track needs of them.
#ifndef KXMUX_TIMECODE_H
#define KXMUX_TIMECODE_H

#include <cstdint>
#include <string>
#include <string_view>

#include "FrameRate.h"
#include "kx_mp4/kx_mp4.h"

namespace kxmux {

/// The parts of a time address as they are written, not checked against a frame rate.
struct TimecodeText {
    uint8_t hours = 0;
    uint8_t minutes = 0;
    uint8_t seconds = 0;
    uint8_t frames = 0;
    bool drop_frame = false;  ///< A semicolon stands before the frames.
};

/// Reads "HH:MM:SS:FF" or "HH:MM:SS;FF", two digits each, nothing before or after. False for any
/// other text and for hours past 23 or minutes or seconds past 59.
bool ParseTimecodeText(std::string_view text, TimecodeText* parts);

/// A time address at a frame rate.
class Timecode {
public:
    /// Reads a time address and checks it against the rate.
    ///
    /// Drop frame counting (ST 12-1, 5.2.2) exists at 30000/1001, where frames 0 and 1 of each
    /// minute but the tenth do not exist, and at 60000/1001, where frames 0 to 3 do not.
    /// @param rate  At most 255 frames per second, as a timecode track counts them in one byte.
    /// @param error Set to one sentence that names the fault when the result is false.
    bool Parse(std::string_view text, const FrameRate& rate, std::string* error);

    /// The same from parts that were read before.
    bool Set(const TimecodeText& parts, const FrameRate& rate, std::string* error);

    /// Frames since 00:00:00:00: the value of a timecode sample. Below 2^31.
    int32_t FrameCount() const { return m_frameCount; }

    /// The timecode track that this address starts: ticks of 1 / rate.num s, rate.den of them per
    /// frame, wrapping after 24 hours.
    mp4_time_code_track_info_t TrackInfo() const;

private:
    FrameRate m_rate;
    bool m_dropFrame = false;
    int32_t m_frameCount = 0;
};

}  // namespace kxmux

#endif  // KXMUX_TIMECODE_H
