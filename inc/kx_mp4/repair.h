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
/// No byte of the media data is ever cut off or overwritten. What no record explains stays inside
/// the media data box, and the index is put behind it:
///
/// | ftyp | free (MP4 only) | mdat: samples ... unexplained | moov |
///
/// In a recording with a live index, zeros from the last sample to the end of the file are taken
/// for what never reached the disk, and are left out.
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
    /// Every frame that was recorded is in the repaired file with its times, every byte of the
    /// media
    /// data is explained, and every check passed.
    kWhole = 0,
    /// Repaired, but something is missing, unexplained or doubtful: RepairReport::reason says what,
    /// and from when on in the recording.
    kLoss = 1,
    kFailed = 2,  ///< Not repaired, nothing changed: RepairReport::reason says why.
};

/// The steps of a repair, in order.
enum class RepairStep {
    /// Records are checked against the media data. Begins again, once, at the first presentation
    /// time that is not a decode time.
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
    /// this name only when it is complete, with the recording's permissions; until then it grows
    /// under this name with a number and ".part" appended. Not used with `in_place`.
    std::string output_path;
    /// Replace a regular file that has the output's name. Otherwise, and when the name is that of a
    /// link, a folder, a pipe or a device, the repair is refused.
    bool overwrite = false;
    /// Repair the recording itself, without a copy. The process may be killed at any moment: a
    /// second repair goes on, and says what the first would have said. Refused when more is
    /// unexplained than the one sample that was being written, unless `force` is set.
    bool in_place = false;
    /// Repair in place although more is unexplained, and although the sound does not look like the
    /// recording that the records speak of. Nothing is lost by it: the bytes stay in the media data
    /// and the repair info file stays beside it.
    bool force = false;
    /// Only check and report; nothing is written.
    bool dry_run = false;
    /// Keep the repair info file after a repair in place. It is also kept unless the outcome is
    /// RepairOutcome::kWhole. A copy never removes it: the recording that it belongs to is still
    /// without an index.
    bool keep_info = false;
    /// Whether the index gets composition offsets (CMp4Muxer::SetCompositionOffsets), which the
    /// repair info file does not say. Not set: it does as soon as a frame's presentation time is
    /// not its decode time.
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
    /// Kept samples of which something contradicts the record: bytes that look as if they had never
    /// been written, an AAC frame without the end that AAC frames have, a time that runs backwards.
    uint64_t frames_doubtful = 0;
};

/// What was found and done.
struct RepairReport {
    RepairOutcome outcome = RepairOutcome::kFailed;  ///< What became of the recording.
    /// Why the outcome is not kWhole, in one sentence; empty otherwise.
    std::string reason;
    /// Where in the recording the loss or the doubt begins: milliseconds from its first sample on.
    uint64_t reason_time_ms = 0;
    std::string recording_path;  ///< As it was given.
    std::string info_path;       ///< The repair info file that was read.
    std::string output_path;     ///< The repaired file; empty when none was written.
    bool quicktime = false;      ///< By the recording's own `ftyp`.
    uint64_t records = 0;        ///< Records of the repair info file that were kept.
    std::array<RepairTrackReport, kRepairTrackKinds> tracks{};  ///< By RepairTrack.
    uint64_t media_bytes_kept = 0;                              ///< Bytes of all kept samples.
    /// Bytes of media data behind the last kept sample, which stay in the media data box without an
    /// entry in the index: of dropped frames, of a frame that was cut off, or of frames whose
    /// record is missing.
    uint64_t media_bytes_unexplained = 0;
    bool composition_offsets = false;  ///< Whether the index has composition offsets.
    uint64_t output_bytes = 0;         ///< Size of the repaired file, also when `dry_run`.
};

/// Repairs `recording_path`.
///
/// A recording that is still open in a muxer, or in another repair, is refused: both hold a lock
/// (flock) on the repair info file. On file systems without locks (some of networks) the caller has
/// to see to it. Both files are only read unless `in_place` is set; any file is accepted, hostile
/// ones included: nothing that they say is believed unchecked. Before anything is written, the file
/// system has to have room for it.
///
/// Thread safety: calls may run at the same time.
///
/// @return The report, owned by the caller; failures of the system (no such file, no space ...)
///         are in it too. Throws only what the progress callback throws, and std::bad_alloc.
KX_MP4_EXPORT RepairReport Repair(const std::string& recording_path,
                                  const RepairOptions& options = {});

/// The output path that Repair uses by default: "clip.mp4" becomes "clip.repaired.mp4".
KX_MP4_EXPORT std::string DefaultRepairOutput(const std::string& recording_path);

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_H
