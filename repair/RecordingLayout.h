/// @file
/// What the recording itself says about its boxes.
#ifndef KX_MP4_REPAIR_RECORDINGLAYOUT_H
#define KX_MP4_REPAIR_RECORDINGLAYOUT_H

#include <cstdint>
#include <vector>

#include "PosixFile.h"

namespace kx_mp4 {

/// Samples lie here one behind the other: between the boxes of a live index.
struct MediaExtent {
    uint64_t begin = 0;
    uint64_t end = 0;
};

/// | ftyp | free (MP4 only) | mdat header | samples ... | moov or what became of it |
///                          ^ mdatPosition ^ mediaBegin  ^ mediaLimit
struct RecordingLayout {
    bool quicktime = false;
    bool largeMdat = false;     // made with the 16-byte header
    uint64_t mdatPosition = 0;  // where the header began while recording
    uint64_t mediaBegin = 0;
    uint64_t mediaLimit = 0;   // no sample reaches beyond; the file's end when mdat has no size yet
    bool hasMovieBox = false;  // a complete `moov` follows the media data and ends the file
    bool live = false;         // recorded with a live index
    uint64_t liveHeader = 0;   // where its `free` box lies
    std::vector<MediaExtent> extents;  // in order, one without a live index
};

/// Whether the bytes from `position` on are the beginning of a box that indexes samples, or less
/// than the header of one.
bool BeginsLiveIndex(const PosixFile& file, uint64_t position);

/// Reads the layout and holds it against the repair info file's flag byte and position.
/// Throws RepairRefused when they do not belong together, kx_mp4_exception when it cannot read.
RecordingLayout ReadRecordingLayout(const PosixFile& file, uint8_t flags, uint32_t mdatPosition);

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_RECORDINGLAYOUT_H
