#include "MovieMap.h"

#include <unistd.h>

#include <algorithm>
#include <memory>

#include "Movie.h"
#include "TrackDetails.h"

namespace kxmap {
namespace {

namespace movie = kx_mp4::movie;

constexpr size_t kMaxTopBoxes = 200;

/// Keeps at most kMaxMarks of the marks that it is given: when it is full, neighbours are merged
/// two by two, and from then on each mark stands for twice as many.
template <class Mark>
class Thinned {
public:
    using Merge = void (*)(Mark& mark, const Mark& next);
    Thinned(std::vector<Mark>& marks, Merge merge) : m_marks(marks), m_merge(merge) {}

    void Add(const Mark& mark) {
        if (m_inLast != 0 && m_inLast < m_group) {
            m_merge(m_marks.back(), mark);
            ++m_inLast;
            return;
        }
        if (m_marks.size() == kMaxMarks) {
            Halve();
            m_group *= 2;
        }
        m_marks.push_back(mark);
        m_inLast = 1;
    }

private:
    void Halve() {
        for (size_t i = 0; i < kMaxMarks / 2; ++i) {
            Mark merged = m_marks[2 * i];
            m_merge(merged, m_marks[2 * i + 1]);
            m_marks[i] = merged;
        }
        m_marks.resize(kMaxMarks / 2);
    }

    std::vector<Mark>& m_marks;
    Merge m_merge;
    uint64_t m_group = 1;
    uint64_t m_inLast = 0;
};

void Cover(Extent& extent, const Extent& next) {
    extent.position = std::min(extent.position, next.position);
    extent.end = std::max(extent.end, next.end);
    extent.stop = next.stop;
}

/// Gathers the samples of one track into its marks.
class TrackMarks {
public:
    TrackMarks(Track& track, uint64_t fileSize)
        : m_track(track),
          m_fileSize(fileSize),
          m_extents(track.extents, Cover),
          m_syncs(track.syncs, [](SyncSample&, const SyncSample&) {}) {}

    void Add(const movie::Sample& sample) {
        const double start = Seconds(sample.dts);
        if (m_track.samples == 0 || sample.chunk != m_number) Begin(sample);
        ++m_track.samples;
        m_track.bytes += sample.size;
        m_track.seconds = std::max(m_track.seconds, Seconds(sample.dts + sample.duration));
        m_chunk.end = std::max(m_chunk.end, sample.offset + sample.size);
        m_chunk.stop = Seconds(sample.dts + sample.duration);
        m_isInside =
            m_isInside && sample.size <= m_fileSize && sample.offset <= m_fileSize - sample.size;
        if (!sample.sync) return;
        m_syncs.Add({sample.offset, start});
        CountSync();
    }
    /// To be called behind the last sample.
    void End() {
        if (m_track.samples != 0 && m_isInside) m_extents.Add(m_chunk);
    }

private:
    double Seconds(int64_t ticks) const {
        return static_cast<double>(ticks) / std::max(m_track.timescale, 1U);
    }
    void Begin(const movie::Sample& sample) {
        End();
        m_number = sample.chunk;
        m_chunk = {sample.offset, sample.offset, Seconds(sample.dts), 0};
        m_isInside = true;
        ++m_track.chunks;
    }
    void CountSync() {
        if (++m_track.syncSamples > 1) {
            const uint64_t distance = m_track.samples - m_lastSync;
            uint64_t& smallest = m_track.smallestSyncDistance;
            smallest = m_track.syncSamples == 2 ? distance : std::min(smallest, distance);
            m_track.largestSyncDistance = std::max(m_track.largestSyncDistance, distance);
        }
        m_lastSync = m_track.samples;
    }

    Track& m_track;
    const uint64_t m_fileSize;
    Thinned<Extent> m_extents;
    Thinned<SyncSample> m_syncs;
    Extent m_chunk;
    uint64_t m_number = 0;
    bool m_isInside = true;
    uint64_t m_lastSync = 0;
};

void ReadBrands(const Box& ftyp, MovieMap& map) {
    constexpr size_t kMostBrands = 32;
    const auto brandAt = [&ftyp](uint64_t at) {
        const Bytes brand = ftyp.Peek(at, 4);
        return movie::PrintableType({brand.begin(), brand.end()});
    };
    map.brand = brandAt(ftyp.headerSize);
    for (uint64_t at = ftyp.headerSize + 8; at + 4 <= ftyp.size; at += 4) {
        if (map.compatibleBrands.size() == kMostBrands) return;
        map.compatibleBrands.push_back(brandAt(at));
    }
}

void ReadTopLevel(const movie::Movie& movie, MovieMap& map) {
    for (const Box& box : movie.boxes.file.children) {
        if (box.type == "ftyp" && map.brand.empty()) ReadBrands(box, map);
        if (map.boxes.size() == kMaxTopBoxes) {
            map.boxes.push_back({"more", box.offset, map.fileSize - box.offset});
            return;
        }
        map.boxes.push_back({box.type, box.offset, box.size});
    }
}

void ReadTracks(const movie::Movie& movie, MovieMap& map) {
    for (const movie::Track& read : movie.tracks) {
        Track track;
        track.boxPosition = read.box->offset;
        track.id = read.id;
        track.handler = movie::PrintableType(read.handler);
        track.entry = movie::PrintableType(read.entryType);
        track.timescale = read.timescale;
        ReadTrackDetails(*read.box, read.duration, map.movieTimescale, track);
        map.tracks.push_back(std::move(track));
    }
    std::vector<TrackMarks> marks;
    for (Track& track : map.tracks)
        marks.emplace_back(track, map.fileSize);
    const std::vector<std::string> faults = movie::VisitSamples(
        movie, [&marks](size_t track, const movie::Sample& sample) { marks[track].Add(sample); });
    for (TrackMarks& track : marks)
        track.End();
    map.remarks.insert(map.remarks.end(), faults.begin(), faults.end());
}

/// What the file of an unfinished recording needs.
void RemarkUnfinished(const std::string& path, MovieMap& map) {
    map.remarks.emplace_back(
        "The media data has no size and there is no index: the recording was not finished.");
    const bool hasInfo = access((path + ".info").c_str(), F_OK) == 0;
    map.remarks.push_back(hasInfo
                              ? "Its index can be made: kxrepair " + path
                              : "There is no repair info file (" + map.name +
                                    ".info) beside it, with which kxrepair could make its index.");
}

}  // namespace

bool MovieMap::IsMovie() const {
    return std::any_of(boxes.begin(), boxes.end(), [](const Box& box) {
        return box.type == "ftyp" || box.type == "moov" || box.type == "moof";
    });
}

double LargestDistance(const std::vector<Track>& tracks) {
    struct Mark {
        uint64_t position;
        double start;
        size_t track;
    };
    std::vector<Mark> marks;
    for (size_t i = 0; i < tracks.size(); ++i) {
        for (const Extent& extent : tracks[i].extents)
            marks.push_back({extent.position, extent.start, i});
    }
    std::sort(marks.begin(), marks.end(),
              [](const Mark& a, const Mark& b) { return a.position < b.position; });
    double largest = 0;
    for (size_t i = 1; i < marks.size(); ++i) {
        if (marks[i].track == marks[i - 1].track) continue;
        const double distance = marks[i].start - marks[i - 1].start;
        largest = std::max(largest, distance < 0 ? -distance : distance);
    }
    return largest;
}

MovieMap ReadMovieMap(const std::string& path) {
    const movie::Movie movie = movie::ReadMovie(std::make_shared<movie::FileSource>(path));
    MovieMap map;
    map.name = path.substr(path.rfind('/') + 1);
    map.fileSize = movie.boxes.file.size;
    map.remarks = movie.boxes.faults;
    if (map.fileSize == 0) map.remarks.emplace_back("The file is empty.");
    ReadTopLevel(movie, map);
    if (movie.moov != nullptr) {
        map.index = *movie.moov;
        map.fragments = movie.fragments.size();
        ReadMovieDetails(*movie.moov, map);
        ReadTracks(movie, map);
        ReadTimecode(movie.boxes.file, map);
        map.interleaving = LargestDistance(map.tracks);
    }
    if (movie.boxes.isOpen && movie.moov == nullptr) RemarkUnfinished(path, map);
    return map;
}

}  // namespace kxmap
