/// @file
/// Draws a MovieMap.
#ifndef KXMAP_MAPDRAWING_H
#define KXMAP_MAPDRAWING_H

#include <string>
#include <string_view>

#include "MovieMap.h"

namespace kxmap {

/// One self-contained SVG document, readable on light and on dark backgrounds. Its size does not
/// grow with the number of samples.
std::string DrawMovieMap(const MovieMap& map);

/// The text with a question mark for everything that is not a printable character in UTF-8.
std::string PrintableText(std::string_view text);

/// "1.25 MB": three digits and a decimal unit.
std::string SizeText(uint64_t bytes);

}  // namespace kxmap

#endif  // KXMAP_MAPDRAWING_H
