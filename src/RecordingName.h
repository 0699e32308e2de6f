/// @file
/// The name of a recording, as the caller gave it and as the system takes it.
#ifndef KX_MP4_RECORDINGNAME_H
#define KX_MP4_RECORDINGNAME_H

#include <string>
#include <string_view>

#include "BaseIO.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// A path in wide characters, which the current locale converts, or in UTF-8, which is taken for
/// the system's bytes.
class RecordingName {
public:
    /// A wide path.
    explicit RecordingName(const wchar_t* path) : m_wide(path) {}
    /// A UTF-8 path. Not valid when it is empty, malformed or has a zero byte.
    explicit RecordingName(std::string_view utf8);

    bool IsValid() const { return !m_wide.empty() || !m_isUtf8; }
    /// The path as callbacks get it; not changed.
    const wchar_t* Wide() const { return m_wide.c_str(); }
    const std::wstring& WideString() const { return m_wide; }
    /// The path as callbacks of the second form get it; nothing of a wide path.
    const char* Utf8() const { return m_utf8.c_str(); }

    /// The system's bytes for the path with `suffix`, logged when there are none.
    /// @return #MP4_STATUS_INVALID_PARAMETER when the locale cannot convert the path,
    ///         #MP4_STATUS_FILE_NAME_TOO_LONG past 1022 bytes.
    mp4_status_t Convert(const char* suffix, NarrowPath& path) const;

private:
    std::wstring m_wide;
    std::string m_utf8;
    bool m_isUtf8 = false;
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDINGNAME_H
