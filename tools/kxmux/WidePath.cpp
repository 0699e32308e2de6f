#include "WidePath.h"

#include <clocale>
#include <cstdlib>

namespace kxmux {
namespace {

std::optional<std::wstring> Widen(const std::string& path) {
    const size_t length = std::mbstowcs(nullptr, path.c_str(), 0);
    if (length == static_cast<size_t>(-1)) return {};
    std::wstring wide(length, L'\0');
    std::mbstowcs(wide.data(), path.c_str(), length);
    // What came out must lead back: the muxer converts it again to open the file.
    const auto back = NarrowPath(wide.c_str());
    if (!back || *back != path) return {};
    return wide;
}

}  // namespace

std::optional<std::wstring> WidenPath(const std::string& path) {
    for (const char* locale : {"", "C.UTF-8"}) {
        if (std::setlocale(LC_ALL, locale) == nullptr) continue;
        std::setlocale(LC_NUMERIC, "C");
        if (auto wide = Widen(path)) return wide;
    }
    return {};
}

std::optional<std::string> NarrowPath(const wchar_t* path) {
    const size_t length = std::wcstombs(nullptr, path, 0);
    if (length == static_cast<size_t>(-1)) return {};
    std::string narrow(length, '\0');
    std::wcstombs(narrow.data(), path, length);
    return narrow;
}

}  // namespace kxmux
