/// @file
/// Draws a MovieMap.
#ifndef KXMAP_MAPDRAWING_H
#define KXMAP_MAPDRAWING_H

#include <string>

#include "MovieMap.h"

namespace kxmap {

/// One self-contained SVG document, readable on light and on dark backgrounds. Its size does not
/// grow with the number of samples.
std::string DrawMovieMap(const MovieMap& map);

/// "1.25 MB": three digits and a decimal unit.
std::string SizeText(uint64_t bytes);

}  // namespace kxmap

#endif  // KXMAP_MAPDRAWING_H
