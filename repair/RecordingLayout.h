/// @file
/// What the recording itself says about its boxes.
#ifndef KX_MP4_REPAIR_RECORDINGLAYOUT_H
#define KX_MP4_REPAIR_RECORDINGLAYOUT_H

#include <cstdint>

#include "PosixFile.h"

namespace kx_mp4 {

/// | ftyp | free (MP4 only) | mdat header | samples ... | moov or what became of it |
///                          ^ mdatPosition ^ mediaBegin  ^ mediaLimit
struct RecordingLayout {
    bool quicktime = false;
    bool largeMdat = false;     // made with the 16-byte header
    uint64_t mdatPosition = 0;  // where the header began while recording
    uint64_t mediaBegin = 0;
    uint64_t mediaLimit = 0;   // no sample reaches beyond; the file's end when mdat has no size yet
    bool hasMovieBox = false;  // a complete `moov` follows the media data and ends the file
};

/// Reads the layout and holds it against the repair info file's flag byte and position.
/// Throws RepairRefused when they do not belong together, kx_mp4_exception when it cannot read.
RecordingLayout ReadRecordingLayout(const PosixFile& file, uint8_t flags, uint32_t mdatPosition);

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_RECORDINGLAYOUT_H
