/// @file
/// Finishes a recording with a live index that has no repair info file: its own fragments say what
/// it holds.
#ifndef KXREPAIR_LIVERECORDING_H
#define KXREPAIR_LIVERECORDING_H

#include <string>

#include "kx_mp4/repair.h"

namespace kxrepair {

/// Whether the file is a recording with a live index that was not closed.
bool IsLiveRecording(const std::string& path);

/// Makes an ordinary file of it, in place or as a copy: appends the index of everything that its
/// fragments list, where no reader looks yet, pushes it to the device and then changes one byte
/// that uncovers it. Killed at any moment, it leaves a file that plays as before, and that can be
/// finished again. A power cut can take the index of an interval and leave later ones: those are
/// looked for behind it.
///
/// Takes the options and makes the report of kx_mp4::Repair; there are no records and no repair
/// info file. `output_path` is needed unless `in_place` is set.
kx_mp4::RepairReport FinishLiveRecording(const std::string& path,
                                         const kx_mp4::RepairOptions& options);

}  // namespace kxrepair

#endif  // KXREPAIR_LIVERECORDING_H
