/// @file
/// Reads a recording with a live index by its fragments, also where a power cut took some of what
/// stands between its samples.
#ifndef KXREPAIR_LIVEMOVIE_H
#define KXREPAIR_LIVEMOVIE_H

#include <cstdint>
#include <string>

#include "Movie.h"

namespace kxrepair {

/// What a file holds by its fragments.
struct LiveMovie {
    kx_mp4::movie::Movie movie;
    uint64_t bytesWithout = 0;  ///< Of media data that no fragment lists.
    /// The recording was being closed: `movie` is the index of all of it, which ends the file and
    /// agrees with the fragments.
    bool isComplete = false;
};

/// Whether the file has the boxes of a live index in front, and was not closed.
bool HasLiveForm(const kx_mp4::movie::Movie& movie);

/// Reads all fragments that are whole. Where the boxes stop before one that lies further behind,
/// what hides it is seen as media data:
///
///   | mdat | moof | mdat  s s s ... 0 0 0 0 0 0 0 0 s s s ... | moof |      found
///   | mdat | moof | mdat ................................... | moof |      read
///
/// Throws a std::runtime_error when it is no such recording, or does not hold.
LiveMovie ReadLiveMovie(const std::string& path);

}  // namespace kxrepair

#endif  // KXREPAIR_LIVEMOVIE_H
