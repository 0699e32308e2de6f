/// @file
/// Repair of a recording that was cut off: makes the index anew from the repair info file that the
/// muxer kept beside the recording (#MP4_FLAG_REPAIR_INFO).
///
/// | ftyp | free (MP4 only) | mdat: samples ... | ???        +  RECORDING.info      as found
/// | ftyp | free (MP4 only) | mdat: samples ... | moov |                           repaired
///
/// Every record of the repair info file is checked against the media data and handed to the same
/// movie box that CMp4Muxer::Close writes, so a recording whose every frame reached the disk
/// becomes, byte for byte, the file that Close would have left. The first record that does not
/// hold ends the repair there: later samples have no trustworthy place in the file.
///
/// Memory grows with the index (some bytes per sample), never with the media data.
#ifndef KX_MP4_REPAIR_H
#define KX_MP4_REPAIR_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "kx_mp4/export.h"

namespace kx_mp4 {

/// What became of a recording; the values are the exit statuses of the program kxrepair.
enum class RepairOutcome {
    kWhole = 0,   ///< Every frame that was recorded is in the repaired file.
    kLoss = 1,    ///< Repaired, but something is missing at the end or could not be verified.
    kFailed = 2,  ///< Not repaired: RepairReport::reason says why.
};

/// The steps of a repair, in order.
enum class RepairStep {
    /// Records are checked against the media data. Begins again, once, when the recording shows
    /// that RepairOptions::composition_offsets is not what it was made with.
    kCheck,
    kCopy,   ///< The media data goes to the output; not with RepairOptions::in_place.
    kIndex,  ///< The index is written.
};

/// Told now and then during a repair. Units are bytes of the step.
struct RepairProgress {
    RepairStep step;  ///< The step that is under way.
    uint64_t done;    ///< Bytes of it that are done.
    uint64_t total;   ///< Bytes of it in all.
};

/// How to repair. All strings are paths in the file system's own bytes.
struct RepairOptions {
    /// The repair info file; empty: the recording's path with ".info" appended.
    std::string info_path;
    /// The repaired file; empty: ".repaired" before the recording's extension. It appears under
    /// this name only when it is complete, and then replaces what stood there; until then it grows
    /// under this name with ".part" appended. Not used with `in_place`.
    std::string output_path;
    /// Repair the recording itself, without a copy. What lies behind the last sample that is kept
    /// is cut off for good. The process may be killed at any moment: a second repair goes on.
    bool in_place = false;
    /// Only check and report; nothing is written.
    bool dry_run = false;
    /// Keep the repair info file after a repair in place. It is also kept when the times of frames
    /// are unclear. A copy never removes it: the recording that it belongs to is still without an
    /// index.
    bool keep_info = false;
    /// What the recording was made with by CMp4Muxer::SetCompositionOffsets; the repair info file
    /// does not say it. Not set: unknown, see RepairReport::frames_of_unclear_time. HEVC pictures
    /// of type CRA and BLA show it by their sync marks, and are believed before this is.
    std::optional<bool> composition_offsets;
    /// Called on the repairing thread; may be empty. Returning false ends the repair as failed,
    /// with nothing changed when the step is kCheck or kCopy. Exceptions pass through Repair.
    std::function<bool(const RepairProgress&)> progress;
};

/// Order of RepairReport::tracks.
enum RepairTrack : size_t {
    kRepairVideo = 0,       ///< H.264, HEVC or ProRes.
    kRepairAudio = 1,       ///< AAC.
    kRepairCaption = 2,     ///< CEA-608 or CEA-708.
    kRepairTimecode = 3,    ///< Counters.
    kRepairTrackKinds = 4,  ///< Count, not a kind.
};

/// Counts of one kind of track.
struct RepairTrackReport {
    uint64_t frames_kept = 0;     ///< Samples in the index.
    uint64_t bytes_kept = 0;      ///< Bytes of those samples.
    uint64_t frames_dropped = 0;  ///< Readable records after the point where the repair ended.
    /// Audio frames that were written without a declared track: the media data holds them, but no
    /// index ever did.
    uint64_t frames_without_track = 0;
    /// Kept samples whose form has nothing that could be checked (AAC has neither length nor
    /// marker): their bytes are inside the media data, more is not known.
    uint64_t frames_unchecked = 0;
    /// Kept samples that lie on bytes which look as if they had never been written: zeros up to or
    /// from the edge of a 4 KiB page, as a power cut leaves them.
    uint64_t frames_doubtful = 0;
};

/// What was found and done.
struct RepairReport {
    RepairOutcome outcome = RepairOutcome::kFailed;  ///< What became of the recording.
    /// Why the outcome is not kWhole, in one sentence; empty otherwise.
    std::string reason;
    std::string recording_path;  ///< As it was given.
    std::string info_path;       ///< The repair info file that was read.
    std::string output_path;     ///< The repaired file; empty when none was written.
    bool quicktime = false;      ///< By the recording's own `ftyp`.
    uint64_t records = 0;        ///< Records of the repair info file that were kept.
    std::array<RepairTrackReport, kRepairTrackKinds> tracks{};  ///< By RepairTrack.
    uint64_t media_bytes_kept = 0;                              ///< Bytes of all kept samples.
    /// Bytes of media data behind the last kept sample: of dropped frames, of a frame that was cut
    /// off, or of frames whose record is missing.
    uint64_t media_bytes_dropped = 0;
    bool composition_offsets = false;  ///< Whether the index has composition offsets.
    /// Kept video frames whose presentation time is not their decode time, when neither the options
    /// nor the recording say whether it had composition offsets. The index is made without them,
    /// and can be made again with RepairOptions::composition_offsets set, also after a repair in
    /// place.
    uint64_t frames_of_unclear_time = 0;
    uint64_t output_bytes = 0;  ///< Size of the repaired file, also when `dry_run`.
};

/// Repairs `recording_path`.
///
/// The recording must not be open in a muxer. Both files are only read unless `in_place` is set;
/// any file is accepted, hostile ones included: nothing that they say is believed unchecked.
///
/// Thread safety: calls on different recordings may run at the same time; two repairs of the same
/// recording must not.
///
/// @return The report, owned by the caller; failures of the system (no such file, no space ...)
///         are in it too. Throws only what the progress callback throws, and std::bad_alloc.
KX_MP4_EXPORT RepairReport Repair(const std::string& recording_path,
                                  const RepairOptions& options = {});

/// The output path that Repair uses by default: "clip.mp4" becomes "clip.repaired.mp4".
KX_MP4_EXPORT std::string DefaultRepairOutput(const std::string& recording_path);

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_H
