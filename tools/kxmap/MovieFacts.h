/// @file
/// What a recorder's engineer asks of a file first, as text and as JSON.
#ifndef KXMAP_MOVIEFACTS_H
#define KXMAP_MOVIEFACTS_H

#include <string>

#include "MovieMap.h"

namespace kxmap {

/// Some lines of plain text; names and values of the file are made printable.
std::string FactsAsText(const MovieMap& map);
/// One JSON object (RFC 8259), indented. Bytes that are not UTF-8 become U+FFFD.
std::string FactsAsJson(const MovieMap& map);

/// "avc1.640028, 1920 x 1080" or "mp4a.40.2, 48000 Hz, 2 channels": what a track holds, in one
/// line.
std::string FormatText(const Track& track);

}  // namespace kxmap

#endif  // KXMAP_MOVIEFACTS_H
