#include "Scc.h"

#include <algorithm>

#include "Timecode.h"

namespace kxmux {
namespace {

constexpr FrameRate kRate{30000, 1001};
constexpr uint32_t kFramesPerDay = 24 * 60 * 60 * 30;
constexpr std::string_view kHeader = "Scenarist_SCC V1.0";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBlanks = " \t\r";
constexpr std::array<uint8_t, 2> kNullPair = {0x80, 0x80};

enum class LineResult { kLine, kEnd, kTooLong };

/// std::getline with a bound, so that a file of another kind does not end up in memory.
LineResult GetLine(std::istream& in, std::string* line) {
    constexpr size_t kMaxLine = size_t{64} << 10;
    line->clear();
    for (int c = in.get(); c != std::istream::traits_type::eof(); c = in.get()) {
        if (c == '\n') return LineResult::kLine;
        if (line->size() == kMaxLine) return LineResult::kTooLong;
        line->push_back(static_cast<char>(c));
    }
    return line->empty() ? LineResult::kEnd : LineResult::kLine;
}

std::string_view Trim(std::string_view text) {
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// Cuts the text up to the first blank off its front.
std::string_view TakeField(std::string_view* text) {
    const size_t end = std::min(text->find_first_of(kBlanks), text->size());
    const std::string_view field = text->substr(0, end);
    *text = Trim(text->substr(end));
    return field;
}

/// Value of a hexadecimal digit, -1 for anything else.
int HexValue(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

bool ReadWord(std::string_view text, std::array<uint8_t, 2>* bytes) {
    if (text.size() != 4) return false;
    uint32_t word = 0;
    for (const char digit : text) {
        const int value = HexValue(digit);
        if (value < 0) return false;
        word = word << 4 | static_cast<uint32_t>(value);
    }
    *bytes = {static_cast<uint8_t>(word >> 8), static_cast<uint8_t>(word & 0xFF)};
    return true;
}

/// Text of the file for a message: short and printable.
std::string Quoted(std::string_view text) {
    constexpr size_t kShown = 24;
    std::string shown = "'";
    for (const char c : text.substr(0, kShown))
        shown += c >= ' ' && c <= '~' ? c : '?';
    return shown + (text.size() > kShown ? "...'" : "'");
}

CaptionPacket MakePacket(uint32_t frame, const std::array<uint8_t, 2>& pair, uint32_t timescale) {
    constexpr uint8_t kField1 = 0xFC;  // marker bits, cc_valid, cc_type 0
    const uint64_t ticks = uint64_t{frame} * kRate.den * timescale;
    return {(ticks + kRate.num / 2) / kRate.num, {0x61, 0x02, 1, kField1, pair[0], pair[1]}};
}

}  // namespace

bool SccFile::Read(std::istream& in) {
    *this = {};
    std::string line;
    LineResult result = LineResult::kEnd;
    for (m_line = 1; (result = GetLine(in, &line)) == LineResult::kLine; ++m_line) {
        if (!(m_line == 1 ? ReadHeader(line) : ReadCaption(Trim(line)))) return false;
    }
    if (result == LineResult::kTooLong) return Fail("longer than any line of captions");
    if (in.bad()) return Fail("cannot be read");
    if (m_line == 1) return Fail("the file is empty");
    return true;
}

bool SccFile::ReadHeader(std::string_view line) {
    if (line.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
        line.remove_prefix(kByteOrderMark.size());
    }
    if (Trim(line) == kHeader) return true;
    return Fail("expected '" + std::string(kHeader) + "', found " + Quoted(line));
}

bool SccFile::ReadCaption(std::string_view line) {
    if (line.empty()) return true;
    const std::string_view time = TakeField(&line);
    TimecodeText parts;
    if (!ParseTimecodeText(time, &parts)) {
        return Fail("expected a time HH:MM:SS:FF or HH:MM:SS;FF, found " + Quoted(time));
    }
    Timecode timecode;
    std::string reason;
    if (!timecode.Set(parts, kRate, &reason)) return Fail(reason);
    const auto frame = static_cast<uint32_t>(timecode.FrameCount());
    if (frame < m_lineFrame) return Fail("the time is before that of the line above");
    m_lineFrame = frame;
    if (line.empty()) return Fail("no words after the time");
    return ReadWords(line, frame);
}

bool SccFile::ReadWords(std::string_view words, uint32_t frame) {
    uint32_t next = m_pairs.empty() ? frame : std::max(frame, m_pairs.back().frame + 1);
    for (; !words.empty(); ++next) {
        const std::string_view word = TakeField(&words);
        Pair pair{next, {}};
        if (!ReadWord(word, &pair.bytes)) {
            return Fail("expected words of four hexadecimal digits, found " + Quoted(word));
        }
        if (next >= kFramesPerDay) return Fail("the words do not end before 24:00:00:00");
        m_pairs.push_back(pair);
    }
    return true;
}

bool SccFile::Fail(const std::string& reason) {
    m_error = "line " + std::to_string(m_line) + ": " + reason;
    return false;
}

std::vector<CaptionPacket> SccFile::Packets(uint32_t timescale) const {
    std::vector<CaptionPacket> packets;
    uint32_t next = 0;  // the frame after the last pair
    for (const Pair& pair : m_pairs) {
        if (pair.frame != next) packets.push_back(MakePacket(next, kNullPair, timescale));
        packets.push_back(MakePacket(pair.frame, pair.bytes, timescale));
        next = pair.frame + 1;
    }
    if (!m_pairs.empty()) packets.push_back(MakePacket(next, kNullPair, timescale));
    return packets;
}

}  // namespace kxmux
