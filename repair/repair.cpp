#include "kx_mp4/repair.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <optional>

#include "InfoReader.h"
#include "MediaReader.h"
#include "MovieReplay.h"
#include "RecordingLayout.h"
#include "RepairOutput.h"
#include "RepairRefused.h"
#include "SampleCheck.h"
#include "defines.h"

namespace kx_mp4 {

namespace {

/// The progress callback is told at least this many bytes after it was told before.
constexpr uint64_t kProgressStep = uint64_t{8} << 20;

/// Removes a file that did not become complete.
class UnfinishedFile {
public:
    explicit UnfinishedFile(std::string path) : m_path(std::move(path)) {}
    ~UnfinishedFile() {
        if (!m_path.empty()) std::remove(m_path.c_str());
    }
    UnfinishedFile(const UnfinishedFile&) = delete;
    UnfinishedFile& operator=(const UnfinishedFile&) = delete;

    const std::string& Path() const { return m_path; }
    void BecomeComplete(const std::string& path) {
        if (std::rename(m_path.c_str(), path.c_str()) != 0) throw kx_mp4_exception(errno);
        m_path.clear();
    }

private:
    std::string m_path;
};

/// One repair, from the opened files to the report.
class RepairRun {
public:
    RepairRun(const RepairOptions& options, RepairReport& report);

    /// Checks the records and makes the index in memory; nothing is written. False when the
    /// recording shows that report.composition_offsets has to be the opposite.
    bool Check();
    void Write();

private:
    void CheckRecords();
    bool Keep(const InfoRecord& record);
    bool KeepFrame(const FrameRecord& frame);
    void Count(const FrameRecord& frame, SampleVerdict verdict, bool indexed);
    void NoteFormat(const InfoRecord& record);
    void CountDropped(const InfoRecord* first);
    void Conclude();
    void TryIndex();
    void WriteInPlace();
    void WriteCopy();
    void RefuseInput(const std::string& path);
    void Tell(RepairStep step, uint64_t done, uint64_t total);

    const RepairOptions& m_options;
    RepairReport& m_report;
    InfoReader m_info;
    PosixFile m_recording;
    RecordingLayout m_layout;
    std::optional<MediaReader> m_media;
    std::optional<SampleCheck> m_check;
    RepairOutput m_output;
    std::optional<MovieReplay> m_movie;
    uint64_t m_mediaEnd = 0;
    uint64_t m_told = 0;
    uint64_t m_shiftedFrames = 0;  // kept, with a presentation time of their own
    std::string m_problem;         // of the record that ended the repair
};

RepairRun::RepairRun(const RepairOptions& options, RepairReport& report)
    : m_options(options),
      m_report(report),
      m_info(report.info_path),
      m_recording(report.recording_path,
                  (options.in_place && !options.dry_run ? O_RDWR : O_RDONLY) | O_NONBLOCK) {}

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
    m_media.emplace(m_recording, m_layout.mediaLimit);
    m_check.emplace(*m_media, m_report.composition_offsets);
    m_movie.emplace(m_output, m_layout, flags, m_report.composition_offsets);

    CheckRecords();
    if (m_check->OffsetsContradicted()) return false;
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
            CountDropped(&record);
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

bool RepairRun::KeepFrame(const FrameRecord& frame) {
    const SampleVerdict verdict = m_check->Check(frame, m_mediaEnd);
    if (verdict == SampleVerdict::kRefuted) {
        m_problem = m_check->Problem();
        return false;
    }
    if (!m_movie->HasRoomFor(frame, m_mediaEnd)) {
        m_problem = "its sample lies where this kind of file cannot have one";
        return false;
    }
    const bool indexed = m_movie->Apply(frame, m_mediaEnd);
    Count(frame, verdict, indexed);
    m_mediaEnd += frame.size;
    return true;
}

void RepairRun::Count(const FrameRecord& frame, SampleVerdict verdict, bool indexed) {
    RepairTrackReport& track = m_report.tracks[frame.track];
    if (!indexed) {
        ++track.frames_without_track;
        return;
    }
    ++track.frames_kept;
    track.bytes_kept += frame.size;
    if (verdict == SampleVerdict::kNothingToCheck) ++track.frames_unchecked;
    if (frame.pts != frame.dts) ++m_shiftedFrames;
    if (m_media->LooksUnwritten(m_mediaEnd, m_mediaEnd + frame.size)) ++track.frames_doubtful;
}

void RepairRun::NoteFormat(const InfoRecord& record) {
    if (const auto* video = std::get_if<VideoFormatRecord>(&record))
        m_check->SetVideoCodec(video->head.codec);
    else if (const auto* caption = std::get_if<mp4_subtitle_track_info_t>(&record))
        m_check->SetCaptionCodec(caption->codec);
}

void RepairRun::Conclude() {
    // An index that is there describes more than the records do, though not always truly: a copy
    // may leave out what was never written, but the recording itself is not cut for it.
    const bool hasBetterIndex = m_layout.hasMovieBox && m_mediaEnd != m_layout.mediaLimit;
    if (hasBetterIndex && m_options.in_place) {
        throw RepairRefused("the recording already has an index, of more than its records hold (" +
                            (m_problem.empty() ? "they end before it" : m_problem) + ")");
    }
    m_report.media_bytes_kept = m_mediaEnd - m_layout.mediaBegin;
    m_report.media_bytes_dropped = m_layout.mediaLimit - m_mediaEnd;
    if (!m_options.composition_offsets && !m_check->OffsetsConfirmed())
        m_report.frames_of_unclear_time = m_shiftedFrames;
    uint64_t doubtful = 0;
    for (const RepairTrackReport& track : m_report.tracks)
        doubtful += track.frames_doubtful;
    if (!m_problem.empty())
        m_report.reason = m_problem;
    else if (m_report.media_bytes_dropped != 0)
        m_report.reason = "the last " + std::to_string(m_report.media_bytes_dropped) +
                          " bytes of media data have no record";
    else if (doubtful != 0)
        m_report.reason = std::to_string(doubtful) +
                          " frames lie on bytes that look as if they had never been written";
    m_report.outcome = m_report.reason.empty() ? RepairOutcome::kWhole : RepairOutcome::kLoss;
}

// Before anything is changed it is known that the index can be written.
void RepairRun::TryIndex() {
    m_movie->WriteMediaHeader(m_mediaEnd);
    m_report.output_bytes = m_movie->WriteIndex(m_mediaEnd);
}

// A kill at any moment must leave a file from which a second run makes the same result. What it
// finds, after each step (S: final size, h: size while recording):
//
//   | ftyp | free | mdat h: samples ... | rest of a frame, half a moov |  + .info   as found
//   | ftyp | free | mdat h: samples ... |                                + .info   1 cut off
//   | ftyp | free | mdat S: samples ... |                                + .info   2 final size
//   | ftyp | free | mdat S: samples ... | half a moov |                  + .info   3 index
//   | ftyp | free | mdat S: samples ... | moov        |                  + .info
//   | ftyp | free | mdat S: samples ... | moov        |                            4 .info removed
//
// The records decide where the samples end, and nothing before that place but the header changes.
// The record that ended the first repair must end the second one too, though. After 1 it points
// past the end of the file, or is refused as before. After 2 it points past the end of the media
// data; without the final size, half an index could be taken for the sample that was missing.
// Hence the order 1, 2, 3, with all of a step on the disk before the next one begins. The header
// is written in one piece each time.
void RepairRun::WriteInPlace() {
    Tell(RepairStep::kIndex, 0, m_report.output_bytes - m_mediaEnd);
    m_output.Attach(m_recording);
    m_recording.Truncate(m_mediaEnd);
    m_recording.Sync();
    m_movie->WriteMediaHeader(m_mediaEnd);
    m_output.Flush();
    m_movie->WriteIndex(m_mediaEnd);
    m_output.Flush();
    m_report.output_path = m_report.recording_path;
    if (!m_options.keep_info && m_report.frames_of_unclear_time == 0)
        std::remove(m_report.info_path.c_str());
}

void RepairRun::RefuseInput(const std::string& path) {
    if (m_recording.IsNamed(path) || m_info.File().IsNamed(path))
        throw RepairRefused("the output '" + path + "' is an input of the repair");
}

void RepairRun::WriteCopy() {
    const std::string path = m_options.output_path.empty()
                                 ? DefaultRepairOutput(m_report.recording_path)
                                 : m_options.output_path;
    RefuseInput(path);
    RefuseInput(path + ".part");
    UnfinishedFile part(path + ".part");
    PosixFile file(part.Path(), O_RDWR | O_CREAT | O_TRUNC);
    m_told = 0;
    CopyBeginning(m_recording, file, m_mediaEnd,
                  [this](uint64_t done) { Tell(RepairStep::kCopy, done, m_mediaEnd); });
    m_output.Attach(file);
    m_movie->WriteMediaHeader(m_mediaEnd);
    m_movie->WriteIndex(m_mediaEnd);
    m_output.Flush();
    part.BecomeComplete(path);
    m_report.output_path = path;
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
            report.composition_offsets = !blank.composition_offsets;
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
    return report;
}

}  // namespace kx_mp4
