/// @file
/// Finishes a recording with a live index that has no repair info file: its own fragments say what
/// it holds.
#ifndef KXREPAIR_LIVERECORDING_H
#define KXREPAIR_LIVERECORDING_H

#include <cstdint>
#include <string>
#include <vector>

namespace kxrepair {

/// What was found, and made of it.
struct LiveReport {
    struct Track {
        std::string handler;  ///< "vide", "soun", "clcp" or "tmcd"
        uint64_t samples = 0;
        uint64_t milliseconds = 0;
    };
    std::vector<Track> tracks;
    uint64_t bytesBehind = 0;  ///< The last index; no sample of them is described.
};

/// Whether the file is a recording with a live index that was not closed.
bool IsLiveRecording(const std::string& path);

/// Makes an ordinary file of it, in place: appends the index of everything that its fragments list,
/// where no reader looks yet, pushes it to the device and then changes one byte that uncovers it.
/// Killed at any moment, it leaves a file that plays as before, and that can be finished again.
/// With `dryRun` nothing is written. Throws std::runtime_error; the file is then as it was.
LiveReport FinishLiveRecording(const std::string& path, bool dryRun);

}  // namespace kxrepair

#endif  // KXREPAIR_LIVERECORDING_H
