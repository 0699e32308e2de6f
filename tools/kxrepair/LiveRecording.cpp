#include "LiveRecording.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "ChunkOffsets.h"
#include "LiveMovie.h"
#include "MediaReader.h"
#include "Movie.h"
#include "PosixFile.h"
#include "RepairOutput.h"
#include "RepairRefused.h"
#include "Rescale.h"
#include "UnfinishedFile.h"
#include "ctts.h"
#include "defines.h"
#include "stsc.h"
#include "stss.h"
#include "stsz.h"
#include "stts.h"

namespace kxrepair {
namespace {

namespace movie = kx_mp4::movie;
using kx_mp4::PosixFile;
using kx_mp4::RepairOptions;
using kx_mp4::RepairOutcome;
using kx_mp4::RepairRefused;
using kx_mp4::RepairReport;
using kx_mp4::Rescale;
using movie::Box;
using movie::Bytes;
using movie::Sample;

constexpr uint32_t kMovieTimescale = 1000;
constexpr uint64_t kSizeByte = 3;

/// Systems that know leases refuse one while somebody has the file open for writing.
void RefuseWhileWritten(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool written = file >= 0 && fcntl(file, F_SETLEASE, F_RDLCK) != 0 && errno == EAGAIN;
    if (file >= 0) close(file);
    if (written)
        throw RepairRefused("the recording is still running: somebody has it open for writing");
}

/// The samples of a track, and the table boxes that list them.
class Tables {
public:
    Tables(CBufferIO& out, const std::vector<Sample>& samples, bool video)
        : m_video(video),
          m_stts(&out),
          m_ctts(&out),
          m_stsz(&out),
          m_stsc(&out),
          m_offsets(&out),
          m_stss(&out) {
        uint64_t end = 0;
        int32_t number = 0;
        for (const Sample& sample : samples) {
            const bool opensChunk = sample.offset != end;
            if (sample.offset > UINT32_MAX) m_offsets.SetUse64BitSize();
            if (opensChunk) m_offsets.AddChunk(static_cast<int64_t>(sample.offset));
            m_stsc.AddEntry(opensChunk);
            m_stsz.AddEntry(static_cast<int32_t>(sample.size));
            m_stts.AddEntry(sample.dts);
            m_ctts.AddEntry(sample.cts, sample.dts);
            ++number;
            if (video && sample.sync) m_stss.AddSyncSample(number);
            end = sample.offset + sample.size;
        }
    }
    /// Of the only sample of a track.
    void SetDuration(int64_t duration) { m_stts.SetFrameDuration(static_cast<int32_t>(duration)); }

    void Write() {
        m_stts.Write();
        m_ctts.Write();
        m_stsz.Write();
        m_stsc.Write();
        m_offsets.Selected().Write();
        if (m_video) m_stss.Write();
    }

private:
    bool m_video;
    CMp4SttsAtom m_stts;
    CMp4CttsAtom m_ctts;
    CMp4StszAtom m_stsz;
    CMp4StscAtom m_stsc;
    kx_mp4::ChunkOffsets m_offsets;
    CMp4StssAtom m_stss;
};

struct TrackSamples {
    std::vector<Sample> samples;

    int64_t LastDuration() const { return samples.empty() ? 0 : samples.back().duration; }
    int64_t MediaDuration() const {
        return samples.empty() ? 0 : samples.back().dts + LastDuration() - samples.front().dts;
    }
    int64_t PresentedDuration() const {
        if (samples.empty()) return 0;
        const auto [first, last] =
            std::minmax_element(samples.begin(), samples.end(),
                                [](const Sample& a, const Sample& b) { return a.cts < b.cts; });
        return last->cts + LastDuration() - first->cts;
    }
};

/// Writes the movie box of the finished file: that of the live index with samples and durations.
class MovieBox {
public:
    MovieBox(const movie::Movie& found, std::vector<TrackSamples> tracks)
        : m_found(found), m_tracks(std::move(tracks)) {
        m_out.Init(nullptr);
        SettleTimecode();
    }

    CBufferIO& Make() {
        PutBox("moov", [this] {
            PutWithDuration(m_found.moov->At("mvhd"), 24, MovieDuration());
            for (size_t i = 0; i < m_tracks.size(); ++i)
                if (!m_tracks[i].samples.empty()) PutTrack(i);
            for (const Box& box : m_found.moov->children)
                if (box.type == "meta" || box.type == "udta") PutCopy(box);
        });
        return m_out;
    }
    /// Milliseconds.
    uint64_t Duration() const { return static_cast<uint64_t>(MovieDuration()); }

private:
    uint64_t Milliseconds(size_t track) const {
        return static_cast<uint64_t>(Rescale(m_tracks[track].PresentedDuration(), kMovieTimescale,
                                             m_found.tracks[track].timescale));
    }
    /// A counter lasts as long as the video.
    void SettleTimecode() {
        for (size_t i = 0; i < m_tracks.size(); ++i) {
            if (m_found.tracks[i].handler != "tmcd" || m_tracks[i].samples.size() != 1) continue;
            for (size_t v = 0; v < m_tracks.size(); ++v) {
                if (m_found.tracks[v].handler == "vide") {
                    m_tracks[i].samples[0].duration =
                        Rescale(m_tracks[v].PresentedDuration(), m_found.tracks[i].timescale,
                                m_found.tracks[v].timescale);
                }
            }
        }
    }
    int64_t MovieDuration() const {
        uint64_t longest = 0;
        for (size_t i = 0; i < m_tracks.size(); ++i)
            longest = std::max(longest, Milliseconds(i));
        return static_cast<int64_t>(longest);
    }

    template <class Content>
    void PutBox(kx_mp4::FourCC type, Content&& put) {
        const auto start = static_cast<int64_t>(m_out.Ftell());
        kx_mp4::PutBoxHeader(m_out, type);
        put();
        const auto end = static_cast<int64_t>(m_out.Ftell());
        m_out.Seek(start, SEEK_SET);
        m_out.WriteInt32(kx_mp4::Low32(end - start));
        m_out.Seek(end, SEEK_SET);
    }
    void PutCopy(const Box& box) {
        const Bytes bytes = box.Content(0, box.size);
        m_out.WriteBuf(bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
    /// A copy with another duration, at this position in version 0; of version 1 only 'elst' has it
    /// there too, the others 8 bytes behind.
    void PutWithDuration(const Box& box, uint64_t position, int64_t duration) {
        Bytes bytes = box.Content(0, box.size);
        const bool wide = box.Version() == 1;
        if (wide && box.type != "elst") position += 8;
        const uint64_t width = wide ? 8 : 4;
        const uint64_t value =
            static_cast<uint64_t>(wide ? duration : std::min<int64_t>(duration, UINT32_MAX));
        for (uint64_t i = 0; i < width; ++i)
            bytes.at(position + i) = static_cast<uint8_t>(value >> 8 * (width - 1 - i));
        m_out.WriteBuf(bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
    void PutTrack(size_t track) {
        const Box& trak = *m_found.tracks[track].box;
        const auto milliseconds = static_cast<int64_t>(Milliseconds(track));
        PutBox("trak", [&] {
            PutWithDuration(trak.At("tkhd"), 28, milliseconds);
            PutBox("edts", [&] { PutWithDuration(trak.At("edts/elst"), 16, milliseconds); });
            if (const Box* const reference = trak.Find("tref")) PutCopy(*reference);
            PutBox("mdia", [&] {
                PutWithDuration(trak.At("mdia/mdhd"), 24, m_tracks[track].MediaDuration());
                PutCopy(trak.At("mdia/hdlr"));
                PutBox("minf", [&] { PutMediaInformation(track, trak.At("mdia/minf")); });
            });
        });
    }
    void PutMediaInformation(size_t track, const Box& minf) {
        for (const Box& box : minf.children) {
            if (box.type != "stbl") {
                PutCopy(box);
                continue;
            }
            PutBox("stbl", [&] {
                PutCopy(box.At("stsd"));
                Tables tables(m_out, m_tracks[track].samples,
                              m_found.tracks[track].handler == "vide");
                tables.SetDuration(m_tracks[track].LastDuration());
                tables.Write();
            });
        }
    }

    const movie::Movie& m_found;
    std::vector<TrackSamples> m_tracks;
    CBufferIO m_out;
};

/// Which of the report's kinds a track is.
std::optional<size_t> KindOf(const movie::Track& track) {
    static const std::array<const char*, kx_mp4::kRepairTrackKinds> kHandlers = {"vide", "soun",
                                                                                 "clcp", "tmcd"};
    const auto kind = std::find(kHandlers.begin(), kHandlers.end(), track.handler);
    if (kind == kHandlers.end()) return std::nullopt;
    return static_cast<size_t>(kind - kHandlers.begin());
}

class Finish {
public:
    Finish(const std::string& path, const RepairOptions& options, RepairReport& report);

    void Write();

private:
    void ReadSamples();
    void LookForUnwrittenSamples();
    void Conclude();
    uint64_t IndexSize() const { return m_index == nullptr ? 0 : m_index->GetSize(); }
    void WriteInto(PosixFile& file);
    void AppendIndex(PosixFile& file);

    const RepairOptions& m_options;
    RepairReport& m_report;
    PosixFile m_file;
    LiveMovie m_live;
    std::vector<TrackSamples> m_tracks;
    uint64_t m_doubtful = 0;
    std::optional<MovieBox> m_box;
    CBufferIO* m_index = nullptr;  // null when it is in the file
    uint64_t m_end = 0;            // of the media data
};

Finish::Finish(const std::string& path, const RepairOptions& options, RepairReport& report)
    : m_options(options),
      m_report(report),
      m_file(path, options.in_place && !options.dry_run ? O_RDWR : O_RDONLY) {
    if (!options.in_place) kx_mp4::RefuseOutput(options.output_path, {&m_file}, options.overwrite);
    m_live = ReadLiveMovie(path);
    if (m_live.movie.moov == nullptr || (m_live.movie.fragments.empty() && !m_live.isComplete))
        throw RepairRefused("it ends before its first index");
    ReadSamples();
    LookForUnwrittenSamples();
    m_end = m_live.isComplete ? m_live.movie.moov->offset : m_file.Size();
    if (!m_live.isComplete) {
        m_box.emplace(m_live.movie, std::move(m_tracks));
        m_index = &m_box->Make();
    }
    Conclude();
}

void Finish::ReadSamples() {
    m_tracks.resize(m_live.movie.tracks.size());
    uint64_t bytes = 0;
    std::vector<std::string> faults =
        movie::VisitSamples(m_live.movie, [&](size_t track, const Sample& sample) {
            m_tracks[track].samples.push_back(sample);
            bytes += sample.size;
        });
    if (bytes > m_file.Size()) faults.emplace_back("Samples lie over each other.");
    if (!faults.empty()) throw RepairRefused("its index does not hold: " + faults[0]);
    for (size_t i = 0; i < m_tracks.size(); ++i) {
        const std::optional<size_t> kind = KindOf(m_live.movie.tracks[i]);
        if (!kind) continue;
        kx_mp4::RepairTrackReport& track = m_report.tracks[*kind];
        for (const Sample& sample : m_tracks[i].samples) {
            ++track.frames_kept;
            track.bytes_kept += sample.size;
            const bool ownTime = *kind == kx_mp4::kRepairVideo && sample.cts != sample.dts;
            m_report.composition_offsets = m_report.composition_offsets || ownTime;
        }
        m_report.media_bytes_kept += track.bytes_kept;
    }
}

/// In the order of the file, which is read once.
void Finish::LookForUnwrittenSamples() {
    std::vector<std::pair<const Sample*, size_t>> samples;
    for (size_t i = 0; i < m_tracks.size(); ++i) {
        for (const Sample& sample : m_tracks[i].samples)
            samples.emplace_back(&sample, i);
    }
    std::sort(samples.begin(), samples.end(),
              [](const auto& a, const auto& b) { return a.first->offset < b.first->offset; });
    kx_mp4::MediaReader media(m_file, m_file.Size());
    for (const auto& [sample, i] : samples) {
        const movie::Track& track = m_live.movie.tracks[i];
        const bool unmarked = track.handler == "soun" ||
                              (track.handler == "vide" && track.entryType.compare(0, 2, "ap") == 0);
        const size_t zeros = unmarked ? kx_mp4::kZerosOfNoSample : kx_mp4::kZerosOfNoMarkedSample;
        if (!media.LooksUnwritten(sample->offset, sample->offset + sample->size, zeros)) continue;
        if (m_doubtful++ == 0)
            m_report.reason_time_ms = static_cast<uint64_t>(Rescale(
                sample->dts - m_tracks[i].samples[0].dts, kMovieTimescale, track.timescale));
        const std::optional<size_t> kind = KindOf(track);
        if (kind) ++m_report.tracks[*kind].frames_doubtful;
    }
}

void Finish::Conclude() {
    m_report.quicktime = m_live.movie.boxes.file.children[0].Text(8, 4) == "qt  ";
    m_report.media_bytes_unexplained = m_live.bytesWithout;
    m_report.output_bytes = m_file.Size() + IndexSize();
    const bool whole = m_live.bytesWithout == 0 && m_doubtful == 0;
    m_report.outcome = whole ? RepairOutcome::kWhole : RepairOutcome::kLoss;
    if (m_live.bytesWithout != 0) {
        m_report.reason =
            std::to_string(m_live.bytesWithout) + " bytes of media data are not in the live index";
        m_report.reason_time_ms = m_box->Duration();
    } else if (m_doubtful != 0) {
        m_report.reason = std::to_string(m_doubtful) +
                          " frames lie on bytes that look as if they had never been written";
    }
}

void Finish::Write() {
    if (m_options.in_place) {
        m_file.RequireRoom(m_file.Size(), IndexSize());
        WriteInto(m_file);
        m_report.output_path = m_report.recording_path;
        return;
    }
    kx_mp4::UnfinishedFile part(m_options.output_path, m_file);
    const uint64_t size = m_file.Size();
    CopyBeginning(m_file, part.File(), size, IndexSize(), [&](uint64_t done) {
        const bool goesOn =
            !m_options.progress || m_options.progress({kx_mp4::RepairStep::kCopy, done, size});
        if (!goesOn) throw RepairRefused("it was cancelled");
    });
    WriteInto(part.File());
    m_report.output_path = m_options.output_path;
    part.BecomeComplete(m_options.overwrite);
}

void Finish::AppendIndex(PosixFile& file) {
    try {
        file.WriteAt(m_end, m_index->GetBuffer(), static_cast<size_t>(m_index->GetSize()));
    } catch (...) {
        // Best effort: what lies behind counts for nobody.
        [[maybe_unused]] const int result = ftruncate(file.Descriptor(), static_cast<off_t>(m_end));
        throw;
    }
}

void Finish::WriteInto(PosixFile& file) {
    const uint64_t header = m_live.movie.boxes.file.children[1].offset;
    const uint64_t mdat = header + kx_mp4::kBoxHeaderSize;
    if (m_index != nullptr) AppendIndex(file);
    std::array<uint8_t, 8> size{};
    for (size_t i = 0; i < size.size(); ++i)
        size[i] = static_cast<uint8_t>((m_end - mdat) >> 8 * (size.size() - 1 - i));
    file.WriteAt(mdat + kx_mp4::kBoxHeaderSize, size.data(), size.size());
    file.Sync();
    const uint8_t uncovered = kx_mp4::kBoxHeaderSize;
    file.WriteAt(header + kSizeByte, &uncovered, 1);
    file.Sync();
}

}  // namespace

bool IsLiveRecording(const std::string& path) {
    return HasLiveForm(movie::ReadMovie(std::make_shared<movie::FileSource>(path)));
}

RepairReport FinishLiveRecording(const std::string& path, const RepairOptions& options) {
    RepairReport report;
    report.recording_path = path;
    try {
        RefuseWhileWritten(path);
        Finish finish(path, options, report);
        if (!options.dry_run) finish.Write();
        return report;
    } catch (const std::runtime_error& refusal) {
        report.reason = refusal.what();
    } catch (const kx_mp4_exception& failure) {
        report.reason = std::string("the system says: ") + failure.what();
    }
    report.outcome = RepairOutcome::kFailed;
    report.output_path.clear();
    return report;
}

}  // namespace kxrepair
