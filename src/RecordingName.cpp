#include "RecordingName.h"

#include <cstdint>
#include <cstring>

#include "Log.h"

namespace kx_mp4 {
namespace {

constexpr char32_t kMalformed = 0xFFFFFFFF;

/// Takes one character off the front of `text` (RFC 3629).
char32_t TakeCharacter(std::string_view& text) {
    const auto first = static_cast<uint8_t>(text[0]);
    const size_t more = first < 0x80 ? 0 : first < 0xE0 ? 1 : first < 0xF0 ? 2 : 3;
    if ((first >= 0x80 && first < 0xC2) || first > 0xF4 || text.size() <= more) return kMalformed;
    constexpr char32_t kFirstBits[] = {0x7F, 0x1F, 0x0F, 0x07};
    char32_t character = first & kFirstBits[more];
    for (size_t i = 1; i <= more; ++i) {
        const auto byte = static_cast<uint8_t>(text[i]);
        if ((byte & 0xC0) != 0x80) return kMalformed;
        character = character << 6 | (byte & 0x3F);
    }
    text.remove_prefix(more + 1);
    constexpr char32_t kSmallest[] = {1, 0x80, 0x800, 0x10000};
    const bool surrogate = character >= 0xD800 && character < 0xE000;
    return character < kSmallest[more] || surrogate || character > 0x10FFFF ? kMalformed
                                                                            : character;
}

}  // namespace

RecordingName::RecordingName(std::string_view utf8) : m_utf8(utf8), m_isUtf8(true) {
    static_assert(sizeof(wchar_t) == sizeof(char32_t), "a wide character is a code point");
    while (!utf8.empty()) {
        const char32_t character = TakeCharacter(utf8);
        if (character == kMalformed) {
            m_wide.clear();
            return;
        }
        m_wide.push_back(static_cast<wchar_t>(character));
    }
}

mp4_status_t RecordingName::Convert(const char* suffix, NarrowPath& path) const {
    if (!m_isUtf8) {
        const std::wstring wideSuffix(suffix, suffix + std::strlen(suffix));
        return ConvertPath((m_wide + wideSuffix).c_str(), path);
    }
    const std::string whole = m_utf8 + suffix;
    if (whole.size() >= path.size() - 1) {
        LogError("file path reach the max path size 1024", "src/RecordingName", __LINE__, "Create");
        return MP4_STATUS_FILE_NAME_TOO_LONG;
    }
    std::memcpy(path.data(), whole.c_str(), whole.size() + 1);
    return MP4_STATUS_SUCCESS;
}

}  // namespace kx_mp4
