#include "LiveRecording.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "ChunkOffsets.h"
#include "LiveIndex.h"
#include "Movie.h"
#include "Rescale.h"
#include "ctts.h"
#include "stsc.h"
#include "stss.h"
#include "stsz.h"
#include "stts.h"

namespace kxrepair {
namespace {

namespace movie = kx_mp4::movie;
using kx_mp4::Rescale;
using movie::Box;
using movie::Bytes;
using movie::Sample;

constexpr uint32_t kMovieTimescale = 1000;
constexpr uint64_t kSizeByte = 3;

/// Descriptor of a file that is open for writing.
class OpenFile {
public:
    explicit OpenFile(const std::string& path) : m_file(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
        if (m_file < 0) Fail("cannot be opened");
    }
    ~OpenFile() { close(m_file); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    /// All of it or a failure.
    void Write(uint64_t position, const uint8_t* bytes, size_t size) const {
        while (size != 0) {
            const ssize_t written = pwrite(m_file, bytes, size, static_cast<off_t>(position));
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) Fail("cannot be written");
            bytes += written;
            position += static_cast<uint64_t>(written);
            size -= static_cast<size_t>(written);
        }
    }
    void Push() const {
        if (fsync(m_file) != 0) Fail("cannot be pushed to the device");
    }
    /// Best effort: what lies behind counts for nobody.
    void CutTo(uint64_t size) const {
        [[maybe_unused]] const int result = ftruncate(m_file, static_cast<off_t>(size));
    }

private:
    [[noreturn]] static void Fail(const char* what) {
        throw std::system_error(errno, std::generic_category(), what);
    }

    int m_file;
};

/// Systems that know leases refuse one while somebody has the file open for writing.
void RefuseWhileWritten(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool written = file >= 0 && fcntl(file, F_SETLEASE, F_RDLCK) != 0 && errno == EAGAIN;
    if (file >= 0) close(file);
    if (written) throw std::runtime_error("the recording is still running");
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
    uint64_t Milliseconds(size_t track) const {
        return static_cast<uint64_t>(Rescale(m_tracks[track].PresentedDuration(), kMovieTimescale,
                                             m_found.tracks[track].timescale));
    }

private:
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

/// The hidden header is still hidden, and the boxes in front are those of a live index.
bool HasLiveForm(const movie::Movie& found) {
    const std::vector<Box>& boxes = found.boxes.file.children;
    if (boxes.size() < 3 || boxes[0].type != "ftyp" || boxes[1].type != "free") return false;
    if (boxes[1].size != kx_mp4::LiveIndex::kFreeSize || boxes[2].type != "mdat") return false;
    const Bytes hidden = boxes[1].Peek(8, 8);
    return hidden == Bytes{0, 0, 0, 1, 'm', 'd', 'a', 't'};
}

}  // namespace

bool IsLiveRecording(const std::string& path) {
    return HasLiveForm(movie::ReadMovie(std::make_shared<movie::FileSource>(path)));
}

LiveReport FinishLiveRecording(const std::string& path, bool dryRun) {
    RefuseWhileWritten(path);
    const movie::Movie found = movie::ReadMovie(std::make_shared<movie::FileSource>(path));
    if (!HasLiveForm(found)) throw std::runtime_error("it has no live index");
    if (found.moov == nullptr || found.fragments.empty())
        throw std::runtime_error("it ends before its first index");
    std::vector<TrackSamples> tracks(found.tracks.size());
    const std::vector<std::string> faults = movie::VisitSamples(
        found,
        [&](size_t track, const Sample& sample) { tracks[track].samples.push_back(sample); });
    if (!faults.empty()) throw std::runtime_error("its index does not hold: " + faults[0]);

    LiveReport report;
    const uint64_t end = found.boxes.file.size;
    const Box& last = found.boxes.file.children.back();
    report.bytesBehind =
        last.type == "mdat"
            ? last.size - std::min<uint64_t>(last.size, kx_mp4::LiveIndex::kMdatHeaderSize)
            : 0;
    for (size_t i = 0; i < tracks.size(); ++i)
        report.tracks.push_back({found.tracks[i].handler, tracks[i].samples.size(), 0});
    MovieBox box(found, std::move(tracks));
    for (size_t i = 0; i < report.tracks.size(); ++i)
        report.tracks[i].milliseconds = box.Milliseconds(i);
    CBufferIO& moov = box.Make();
    if (dryRun) return report;

    const OpenFile file(path);
    const uint64_t header = found.boxes.file.children[1].offset;
    const uint64_t mdat = header + kx_mp4::kBoxHeaderSize;
    try {
        file.Write(end, moov.GetBuffer(), moov.GetSize());
    } catch (...) {
        file.CutTo(end);
        throw;
    }
    std::array<uint8_t, 8> size{};
    for (size_t i = 0; i < size.size(); ++i)
        size[i] = static_cast<uint8_t>((end - mdat) >> 8 * (size.size() - 1 - i));
    file.Write(mdat + kx_mp4::kBoxHeaderSize, size.data(), size.size());
    file.Push();
    const uint8_t uncovered = kx_mp4::kBoxHeaderSize;
    file.Write(header + kSizeByte, &uncovered, 1);
    file.Push();
    return report;
}

}  // namespace kxrepair
