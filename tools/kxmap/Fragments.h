/// @file
/// Samples of movie fragments (ISO/IEC 14496-12, 8.8), which no sample table lists.
#ifndef KXMAP_FRAGMENTS_H
#define KXMAP_FRAGMENTS_H

#include "BoxFile.h"
#include "MovieMap.h"

namespace kxmap {

/// Adds the samples of a 'moof' box, whose children are read, to the tracks. False when something
/// in it does not hold.
bool ReadFragment(const File& file, const Box& moof, MovieMap& map);

}  // namespace kxmap

#endif  // KXMAP_FRAGMENTS_H
