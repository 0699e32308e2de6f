#include "Timecode.h"

namespace kxmux {
namespace {

constexpr uint32_t kMaxNominal = 255;  // a timecode track counts frames per second in one byte
constexpr uint32_t kDropFrameFlag = 1;
constexpr uint32_t kDayWrapFlag = 2;

bool ReadTwoDigits(std::string_view text, size_t at, uint8_t* value) {
    const char tens = text[at];
    const char ones = text[at + 1];
    if (tens < '0' || tens > '9' || ones < '0' || ones > '9') return false;
    *value = static_cast<uint8_t>((tens - '0') * 10 + (ones - '0'));
    return true;
}

/// Frame numbers that drop frame counting leaves out at the start of a minute; 0 at rates that it
/// does not exist for.
uint32_t DroppedPerMinute(const FrameRate& rate) {
    if (rate.IsSame({30000, 1001})) return 2;
    if (rate.IsSame({60000, 1001})) return 4;
    return 0;
}

std::string TwoDigits(uint32_t value) {
    return (value < 10 ? "0" : "") + std::to_string(value);
}

}  // namespace

bool ParseTimecodeText(std::string_view text, TimecodeText* parts) {
    constexpr size_t kLength = 11;  // HH:MM:SS:FF
    if (text.size() != kLength || text[2] != ':' || text[5] != ':') return false;
    if (text[8] != ':' && text[8] != ';') return false;
    TimecodeText read;
    const bool digits =
        ReadTwoDigits(text, 0, &read.hours) && ReadTwoDigits(text, 3, &read.minutes) &&
        ReadTwoDigits(text, 6, &read.seconds) && ReadTwoDigits(text, 9, &read.frames);
    if (!digits || read.hours > 23 || read.minutes > 59 || read.seconds > 59) return false;
    read.drop_frame = text[8] == ';';
    *parts = read;
    return true;
}

bool Timecode::Parse(std::string_view text, const FrameRate& rate, std::string* error) {
    TimecodeText parts;
    if (!ParseTimecodeText(text, &parts)) {
        *error = "'" + std::string(text) + "' is not a timecode HH:MM:SS:FF or HH:MM:SS;FF";
        return false;
    }
    return Set(parts, rate, error);
}

bool Timecode::Set(const TimecodeText& parts, const FrameRate& rate, std::string* error) {
    const uint32_t nominal = rate.den == 0 ? 0 : rate.Nominal();
    if (nominal == 0 || nominal > kMaxNominal) {
        *error = "a timecode counts from 1 to 255 frames per second";
        return false;
    }
    const uint32_t dropped = DroppedPerMinute(rate);
    if (parts.drop_frame && dropped == 0) {
        *error = "drop frame counting exists only at 30000/1001 and 60000/1001 frames per second";
        return false;
    }
    if (parts.frames >= nominal) {
        *error = "frame " + TwoDigits(parts.frames) + " does not exist at " +
                 std::to_string(nominal) + " frames per second";
        return false;
    }
    const bool dropsHere = parts.drop_frame && parts.seconds == 0 && parts.minutes % 10 != 0;
    if (dropsHere && parts.frames < dropped) {
        *error = "drop frame counting leaves out frame " + TwoDigits(parts.frames) +
                 " at the start of this minute";
        return false;
    }
    const uint32_t minutes = parts.hours * 60u + parts.minutes;
    uint32_t count = (minutes * 60 + parts.seconds) * nominal + parts.frames;
    if (parts.drop_frame) count -= dropped * (minutes - minutes / 10);
    m_rate = rate;
    m_dropFrame = parts.drop_frame;
    m_frameCount = static_cast<int32_t>(count);
    return true;
}

mp4_time_code_track_info_t Timecode::TrackInfo() const {
    mp4_time_code_track_info_t info{};
    info.timescale = m_rate.num;
    info.frame_duration = m_rate.den;
    info.frame_rate = static_cast<uint8_t>(m_rate.Nominal());
    info.flags = static_cast<int32_t>(kDayWrapFlag | (m_dropFrame ? kDropFrameFlag : 0));
    return info;
}

}  // namespace kxmux
