#include "kx_mp4/repair.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <vector>

#include "FileLock.h"
#include "InfoReader.h"
#include "MediaReader.h"
#include "MovieReplay.h"
#include "RecordingLayout.h"
#include "RepairOutput.h"
#include "RepairRefused.h"
#include "Rescale.h"
#include "SampleCheck.h"
#include "UnfinishedFile.h"
#include "defines.h"

namespace kx_mp4 {

namespace {

/// The progress callback is told at least this many bytes after it was told before.
constexpr uint64_t kProgressStep = uint64_t{8} << 20;

/// One repair, from the opened files to the report.
class RepairRun {
public:
    RepairRun(const RepairOptions& options, RepairReport& report);

    /// Checks the records and makes the index in memory; nothing is written. False when a frame
    /// shows that report.composition_offsets has to be set.
    bool Check();
    void Write();

private:
    void CheckRecords();
    bool Keep(const InfoRecord& record);
    bool KeepFrame(const FrameRecord& frame);
    std::optional<uint64_t> NextSample() const;
    std::optional<uint64_t> BehindIndex() const;
    bool MayHoldSample(uint64_t position, uint64_t size) const;
    void GoTo(uint64_t position);
    bool AtEndOfExtent() const { return m_extent.closed && m_mediaEnd == m_extent.end; }
    void FindEnd();
    void Count(const FrameRecord& frame, bool indexed);
    void Distrust(const FrameRecord& frame, const char* doubt);
    uint64_t TimeOf(const FrameRecord& frame);
    void NoteFormat(const InfoRecord& record);
    void CountDropped(const InfoRecord* first);
    void Conclude();
    void RefuseInPlace();
    bool HasThisIndex();
    void TryIndex();
    void WriteInPlace();
    void WriteCopy();
    void TakeLock();
    void Tell(RepairStep step, uint64_t done, uint64_t total);

    const RepairOptions& m_options;
    RepairReport& m_report;
    InfoReader m_info;
    FileLock m_lock;
    std::string m_outputPath;  // of a copy
    PosixFile m_recording;
    RecordingLayout m_layout;
    std::optional<MediaReader> m_media;
    std::optional<SampleCheck> m_check;
    RepairOutput m_output;
    std::optional<MovieReplay> m_movie;
    uint64_t m_mediaEnd = 0;
    MediaExtent m_extent;       // where the records stand, with a live index
    uint64_t m_indexBytes = 0;  // of a live index, between the samples so far
    uint64_t m_told = 0;
    struct Clock {
        uint32_t timescale = 0;
        int64_t first = 0;
        int64_t last = 0;
        bool started = false;
    };
    std::array<Clock, kRepairTrackKinds> m_clocks{};
    uint64_t m_time = 0;           // in the recording, of the latest frame, milliseconds
    uint32_t m_largestSample = 0;  // of the kept ones
    bool m_needsOffsets = false;   // a frame has a presentation time of its own
    std::string m_problem;         // of the record that ended the repair
    std::string m_doubt;           // the first one
    uint64_t m_doubtTime = 0;
};

RepairRun::RepairRun(const RepairOptions& options, RepairReport& report)
    : m_options(options),
      m_report(report),
      m_info(report.info_path),
      m_recording(report.recording_path, options.in_place && !options.dry_run ? O_RDWR : O_RDONLY) {
    TakeLock();
    if (options.in_place) return;
    m_outputPath = options.output_path.empty() ? DefaultRepairOutput(report.recording_path)
                                               : options.output_path;
    RefuseOutput(m_outputPath, {&m_recording, &m_info.File()}, options.overwrite);
}

/// Whoever writes the records, or repairs by them, holds this lock. Where files cannot be locked,
/// nobody does.
void RepairRun::TakeLock() {
    const int code = m_lock.Take(m_info.File().Descriptor());
    const bool named = m_info.File().IsNamed(m_report.info_path);
    if (code == EWOULDBLOCK || (code == 0 && !named)) {
        throw RepairRefused("the recording is still running, or is being repaired: '" +
                            m_report.info_path + "' is locked");
    }
    const bool cannot =
        code == ENOLCK || code == EOPNOTSUPP || code == ENOSYS || code == EINVAL || code == EBADF;
    if (code != 0 && !cannot) throw kx_mp4_exception(code);
    m_info.Begin();
}

void RepairRun::Tell(RepairStep step, uint64_t done, uint64_t total) {
    if (done != total && done >= m_told && done - m_told < kProgressStep) return;
    m_told = done;
    if (m_options.progress && !m_options.progress({step, done, total}))
        throw RepairRefused("it was cancelled");
}

bool RepairRun::Check() {
    uint8_t flags = 0;
    uint32_t mdatPosition = 0;
    if (!m_info.ReadHead(flags, mdatPosition))
        throw RepairRefused("the repair info file ends before the first record");
    m_layout = ReadRecordingLayout(m_recording, flags, mdatPosition);
    m_report.quicktime = m_layout.quicktime;
    m_mediaEnd = m_layout.mediaBegin;
    if (m_layout.live) m_extent = ReadMediaExtent(m_recording, m_mediaEnd, m_layout.mediaLimit);
    m_media.emplace(m_recording, m_layout.mediaLimit);
    m_check.emplace(*m_media);
    m_movie.emplace(m_output, m_layout, flags, m_report.composition_offsets);

    CheckRecords();
    if (m_needsOffsets) return false;
    FindEnd();
    Conclude();
    TryIndex();
    return true;
}

void RepairRun::Write() {
    if (m_options.in_place)
        WriteInPlace();
    else
        WriteCopy();
}

void RepairRun::CheckRecords() {
    const uint64_t total = m_layout.mediaLimit - m_layout.mediaBegin;
    InfoRecord record;
    while (m_info.Next(record)) {
        if (!Keep(record)) {
            if (!m_needsOffsets) CountDropped(&record);
            return;
        }
        ++m_report.records;
        Tell(RepairStep::kCheck, m_mediaEnd - m_layout.mediaBegin, total);
    }
    m_problem = m_info.Problem();
}

void RepairRun::CountDropped(const InfoRecord* first) {
    InfoRecord next;
    for (const InfoRecord* record = first; record != nullptr;
         record = m_info.Next(next) ? &next : nullptr) {
        if (const auto* frame = std::get_if<FrameRecord>(record))
            ++m_report.tracks[frame->track].frames_dropped;
    }
}

bool RepairRun::Keep(const InfoRecord& record) {
    const auto* frame = std::get_if<FrameRecord>(&record);
    if (frame != nullptr ? KeepFrame(*frame) : m_movie->Apply(record, m_mediaEnd)) {
        NoteFormat(record);
        return true;
    }
    m_problem =
        "record at byte " + std::to_string(m_info.RecordPosition()) +
        " of the repair info file: " + (m_problem.empty() ? "the movie box refuses it" : m_problem);
    return false;
}

/// Where a sample may follow: here, or behind an index of those before. Nothing where only such an
/// index can be that is not all there.
std::optional<uint64_t> RepairRun::NextSample() const {
    const bool indexed =
        m_layout.live && (AtEndOfExtent() || BeginsLiveIndex(m_recording, m_mediaEnd));
    if (!indexed) return m_mediaEnd;
    const std::optional<uint64_t> next = BehindIndex();
    return next && *next <= m_layout.mediaLimit ? next : std::nullopt;
}

/// An index of which bytes are missing is as long as the one that would be written for these
/// samples: when the header before it says that it begins here, or it does so and is that long.
std::optional<uint64_t> RepairRun::BehindIndex() const {
    bool hasHeader = false;
    const std::optional<uint64_t> found = EndOfLiveIndex(m_recording, m_mediaEnd, hasHeader);
    if (found && hasHeader) return found;
    const uint64_t computed = m_mediaEnd + m_movie->LiveIndexSize();
    if (AtEndOfExtent() || found == computed) return computed;
    return std::nullopt;
}

/// Behind the last interval, the index of the whole recording may follow at once.
bool RepairRun::MayHoldSample(uint64_t position, uint64_t size) const {
    if (!m_layout.live) return true;
    if (position == m_mediaEnd) return size <= m_extent.end - position;
    return !BeginsLiveIndex(m_recording, position) &&
           size <= ReadMediaExtent(m_recording, position, m_layout.mediaLimit).end - position;
}

void RepairRun::GoTo(uint64_t position) {
    if (position == m_mediaEnd) return;
    m_indexBytes += position - m_mediaEnd;
    m_mediaEnd = position;
    m_extent = ReadMediaExtent(m_recording, position, m_layout.mediaLimit);
    m_movie->SkipIndex(position);
}

/// Where the index has to lie. What follows the last sample and cannot hold one is written anew,
/// but for an index that counts already, by the header before it.
void RepairRun::FindEnd() {
    if (!m_layout.live) return;
    const std::optional<uint64_t> next = NextSample();
    const bool cannotHold = HoldsNoSample(m_recording, m_mediaEnd, m_layout.mediaLimit);
    if (next && (AtEndOfExtent() || !cannotHold)) GoTo(*next);
    const bool indexIsCut = !next && AtEndOfExtent();
    if (indexIsCut || HoldsNoSample(m_recording, m_mediaEnd, m_layout.mediaLimit))
        m_layout.mediaLimit = m_mediaEnd;
}

bool RepairRun::KeepFrame(const FrameRecord& frame) {
    const std::optional<uint64_t> place = NextSample();
    if (!place || !MayHoldSample(*place, frame.size)) {
        m_problem = "its sample is not all there";
        return false;
    }
    const SampleVerdict verdict = m_check->Check(frame, *place);
    if (verdict == SampleVerdict::kRefuted) {
        m_problem = m_check->Problem();
        return false;
    }
    if (!m_movie->HasRoomFor(frame, *place)) {
        m_problem = "its sample lies where this kind of file cannot have one";
        return false;
    }
    const bool ownTime = frame.track == kRepairVideo && frame.pts != frame.dts;
    if (ownTime && !m_report.composition_offsets && !m_options.composition_offsets) {
        m_needsOffsets = true;
        return false;
    }
    GoTo(*place);
    m_time = TimeOf(frame);
    if (verdict == SampleVerdict::kDoubtful) Distrust(frame, m_check->Doubt());
    Count(frame, m_movie->Apply(frame, m_mediaEnd));
    m_mediaEnd += frame.size;
    return true;
}

/// Notes the frame's time on its track's clock; where the time of the recording stands then.
uint64_t RepairRun::TimeOf(const FrameRecord& frame) {
    constexpr uint32_t kMilliseconds = 1000;
    Clock& clock = m_clocks[frame.track];
    if (frame.track == kRepairTimecode || clock.timescale == 0) return m_time;
    if (!clock.started) clock.first = clock.last = frame.dts;
    clock.started = true;
    if (frame.dts < clock.last) Distrust(frame, "have times that run backwards");
    clock.last = frame.dts;
    const uint64_t ticks = static_cast<uint64_t>(frame.dts) - static_cast<uint64_t>(clock.first);
    const int64_t time = Rescale(static_cast<int64_t>(ticks), kMilliseconds, clock.timescale);
    return std::max(m_time, static_cast<uint64_t>(std::max<int64_t>(time, 0)));
}

void RepairRun::Distrust(const FrameRecord& frame, const char* doubt) {
    ++m_report.tracks[frame.track].frames_doubtful;
    if (!m_doubt.empty()) return;
    m_doubt = doubt;
    m_doubtTime = m_time;
}

void RepairRun::Count(const FrameRecord& frame, bool indexed) {
    m_largestSample = std::max(m_largestSample, frame.size);
    RepairTrackReport& track = m_report.tracks[frame.track];
    if (!indexed) {
        ++track.frames_without_track;
        return;
    }
    ++track.frames_kept;
    track.bytes_kept += frame.size;
}

void RepairRun::NoteFormat(const InfoRecord& record) {
    if (const auto* video = std::get_if<VideoFormatRecord>(&record)) {
        m_check->SetVideoFormat(*video);
        m_clocks[kRepairVideo].timescale = video->head.timescale;
    } else if (const auto* audio = std::get_if<mp4_audio_track_info_t>(&record)) {
        m_clocks[kRepairAudio].timescale = audio->timescale;
    } else if (const auto* caption = std::get_if<mp4_subtitle_track_info_t>(&record)) {
        m_check->SetCaptionCodec(caption->codec);
        m_clocks[kRepairCaption].timescale = caption->timescale;
    }
}

void RepairRun::Conclude() {
    const uint64_t unexplained = m_layout.mediaLimit - m_mediaEnd;
    m_report.media_bytes_kept = m_mediaEnd - m_layout.mediaBegin - m_indexBytes;
    m_report.media_bytes_unexplained = unexplained;
    if (m_mediaEnd == m_layout.mediaBegin && unexplained != 0) {
        throw RepairRefused("no frame of the recording is explained (" +
                            (m_problem.empty() ? "there are no records" : m_problem) + ")");
    }
    if (m_check->SoundContradicts() && !m_options.force) {
        throw RepairRefused(
            "the repair info file belongs to another recording: most of its AAC frames do not end "
            "as AAC frames do");
    }
    uint64_t doubtful = 0;
    for (const RepairTrackReport& track : m_report.tracks)
        doubtful += track.frames_doubtful;
    m_report.reason_time_ms = m_time;
    if (!m_problem.empty()) {
        m_report.reason = m_problem;
    } else if (unexplained != 0) {
        m_report.reason =
            "the last " + std::to_string(unexplained) + " bytes of media data have no record";
    } else if (doubtful != 0) {
        m_report.reason = std::to_string(doubtful) + " frames " + m_doubt;
        m_report.reason_time_ms = m_doubtTime;
    } else if (m_check->ParameterSetsContradict()) {
        m_report.reason = "the parameter sets in the media data are not the recorded ones";
        m_report.reason_time_ms = 0;
    }
    const bool whole = m_report.reason.empty();
    if (whole) m_report.reason_time_ms = 0;
    m_report.outcome = whole ? RepairOutcome::kWhole : RepairOutcome::kLoss;
    if (!m_movie->CanEndAt(m_layout.mediaLimit))
        throw RepairRefused("this kind of file cannot describe media data of that size");
    if (m_options.in_place) RefuseInPlace();
}

/// What a person should look at before the recording itself is changed.
void RepairRun::RefuseInPlace() {
    if (m_report.outcome == RepairOutcome::kWhole) return;
    if (m_layout.live && m_report.media_bytes_unexplained != 0) {
        // The index of an interval would lie behind half a sample, where a second repair, after
        // this one was killed, could take it for the other half.
        throw RepairRefused("the last " + std::to_string(m_report.media_bytes_unexplained) +
                            " bytes of a recording with a live index have no record, which only a "
                            "copy can leave out (" +
                            m_report.reason + ")");
    }
    // An index that is there describes more than the records do, though not always truly.
    if (m_layout.hasMovieBox && m_report.media_bytes_unexplained != 0 && !HasThisIndex()) {
        throw RepairRefused("the recording already has an index, of more than its records hold (" +
                            m_report.reason + ")");
    }
    if (m_report.media_bytes_unexplained <= m_largestSample || m_options.force) return;
    throw RepairRefused("the index would leave out the last " +
                        std::to_string(m_report.media_bytes_unexplained) +
                        " bytes of media data, more than the one sample that was being written (" +
                        m_report.reason + ")");
}

/// Whether the index that is there is the one that this repair would write: an earlier repair has.
bool RepairRun::HasThisIndex() {
    m_output.KeepFrom(m_layout.mediaLimit);
    const uint64_t end = m_movie->WriteIndex(m_layout.mediaLimit);
    if (end != m_recording.Size()) return false;
    std::vector<uint8_t> found(m_output.Kept().size());
    const size_t read = m_recording.ReadAt(m_layout.mediaLimit, found.data(), found.size());
    return read == found.size() && found == m_output.Kept();
}

// Before anything is changed it is known that the index can be written.
void RepairRun::TryIndex() {
    m_movie->WriteMediaHeader(m_layout.mediaLimit);
    m_report.output_bytes = m_movie->WriteIndex(m_layout.mediaLimit);
}

// A kill at any moment must leave a file from which a second run makes the same result. What it
// finds, after each step (S: final size, h: size while recording):
//
//   | ftyp | free | mdat h: samples ... | rest of a frame |           + .info   as found
//   | ftyp | free | mdat S: samples ...   rest of a frame | half a moov | + .info   or so
//   | ftyp | free | mdat S: samples ...   rest of a frame |           + .info   1 no half index
//   | ftyp | free | mdat S: samples ...   rest of a frame |           + .info   2 final size
//   | ftyp | free | mdat S: samples ...   rest of a frame | half a moov | + .info   3 index
//   | ftyp | free | mdat S: samples ...   rest of a frame | moov |    + .info
//   | ftyp | free | mdat S: samples ... | moov |                              4 .info removed
//
// Nothing within the media data changes but its header, which is written in one piece. The record
// that ended the first repair must end the second one too: without the final size, half an index
// could be taken for the sample that was missing. Hence the order, with all of a step on the disk
// before the next one begins. The .info goes only when every byte is explained.
void RepairRun::WriteInPlace() {
    const uint64_t end = m_layout.mediaLimit;
    Tell(RepairStep::kIndex, 0, m_report.output_bytes - end);
    m_report.output_path = m_report.recording_path;
    if (!m_layout.hasMovieBox || !HasThisIndex()) {
        m_recording.RequireRoom(end, m_report.output_bytes - end);
        m_output.Attach(m_recording);
        if (m_recording.Size() > end) {
            m_recording.Truncate(end);
            m_recording.Sync();
        }
        m_movie->WriteMediaHeader(end);
        m_output.Flush();
        m_movie->WriteIndex(end);
        m_output.Flush();
    }
    if (m_report.outcome != RepairOutcome::kWhole || m_options.keep_info) return;
    ContainingFolder folder(m_report.info_path);
    std::remove(m_report.info_path.c_str());
    folder.Sync();
}

void RepairRun::WriteCopy() {
    UnfinishedFile part(m_outputPath, m_recording);
    m_told = 0;
    const uint64_t end = m_layout.mediaLimit;
    CopyBeginning(m_recording, part.File(), end, m_report.output_bytes - end,
                  [this, end](uint64_t done) { Tell(RepairStep::kCopy, done, end); });
    m_output.Attach(part.File());
    m_movie->WriteMediaHeader(end);
    m_movie->WriteIndex(end);
    m_output.Flush();
    m_report.output_path = m_outputPath;  // before the last step: it needs memory
    part.BecomeComplete(m_options.overwrite);
}

}  // namespace

std::string DefaultRepairOutput(const std::string& recording_path) {
    const size_t name = recording_path.find_last_of('/') + 1;  // 0 when there is no directory
    const size_t dot = recording_path.find_last_of('.');
    const bool hasExtension = dot != std::string::npos && dot > name;
    const size_t end = hasExtension ? dot : recording_path.size();
    return recording_path.substr(0, end) + ".repaired" + recording_path.substr(end);
}

RepairReport Repair(const std::string& recording_path, const RepairOptions& options) {
    RepairReport blank;
    blank.recording_path = recording_path;
    blank.info_path = options.info_path.empty() ? recording_path + ".info" : options.info_path;
    blank.composition_offsets = options.composition_offsets.value_or(false);
    RepairReport report = blank;
    try {
        std::optional<RepairRun> run;
        run.emplace(options, report);
        if (!run->Check()) {
            report = blank;
            report.composition_offsets = true;
            run.emplace(options, report);
            if (!run->Check()) throw RepairRefused("the recording changes while it is read");
        }
        if (!options.dry_run) run->Write();
        return report;
    } catch (const RepairRefused& refusal) {
        report.reason = refusal.what();
    } catch (const kx_mp4_exception& failure) {
        report.reason = std::string("the system says: ") + failure.what();
    } catch (int) {
        // The boxes throw a plain number when a codec's parameter sets cannot be used.
        report.reason = "the recorded parameter sets cannot describe a track";
    }
    report.outcome = RepairOutcome::kFailed;
    report.output_path.clear();
    return report;
}

}  // namespace kx_mp4
