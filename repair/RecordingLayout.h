/// @file
/// What the recording itself says about its boxes.
#ifndef KX_MP4_REPAIR_RECORDINGLAYOUT_H
#define KX_MP4_REPAIR_RECORDINGLAYOUT_H

#include <cstdint>
#include <optional>

#include "PosixFile.h"

namespace kx_mp4 {

/// Samples lie here one behind the other: between the boxes of a live index.
struct MediaExtent {
    uint64_t begin = 0;
    uint64_t end = 0;     // at most
    bool closed = false;  // it ends there by its header, and an index follows
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
};

// What stands between the samples of a recording with a live index. Any of it can be missing after
// a power cut, which leaves zeros or less in its place.

/// The media data that begins there, behind a header, in a file whose samples end at `limit`.
MediaExtent ReadMediaExtent(const PosixFile& file, uint64_t begin, uint64_t limit);
/// Whether a movie box or a movie fragment begins at `position`.
bool BeginsLiveIndex(const PosixFile& file, uint64_t position);
/// Where the samples go on behind the index at `position`: a fragment, with a movie box in front of
/// it the first time, and the header of the next media data, of which `hasHeader` tells whether it
/// is there. Nothing when that fragment does not lie there.
std::optional<uint64_t> EndOfLiveIndex(const PosixFile& file, uint64_t position, bool& hasHeader);
/// Whether what lies between the two holds no sample: an index that was being written, or zeros,
/// or too little for the header of a box.
bool HoldsNoSample(const PosixFile& file, uint64_t begin, uint64_t end);

/// Reads the layout and holds it against the repair info file's flag byte and position.
/// Throws RepairRefused when they do not belong together, kx_mp4_exception when it cannot read.
RecordingLayout ReadRecordingLayout(const PosixFile& file, uint8_t flags, uint32_t mdatPosition);

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_RECORDINGLAYOUT_H
