/// @file
/// Paths in the wide form that the muxer takes.
#ifndef KXMUX_WIDEPATH_H
#define KXMUX_WIDEPATH_H

#include <optional>
#include <string>

namespace kxmux {

/// Sets a locale that can spell the path: the user's own, or C.UTF-8 where that one cannot. Call it
/// before any other thread runs. Numbers keep their decimal point.
/// @return The path in wide form; nothing when neither locale can spell it.
std::optional<std::wstring> WidenPath(const std::string& path);

/// The way back, by the current locale.
std::optional<std::string> NarrowPath(const wchar_t* path);

}  // namespace kxmux

#endif  // KXMUX_WIDEPATH_H
