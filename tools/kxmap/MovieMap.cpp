#include "MovieMap.h"

#include <unistd.h>

#include <algorithm>
#include <optional>

#include "BoxFile.h"
#include "Fragments.h"
#include "TrackDetails.h"

namespace kxmap {
namespace {

constexpr uint64_t kLargeHeader = 16;
constexpr int kMaxDepth = 12;
constexpr size_t kMaxBoxes = 4000;
constexpr size_t kMaxTopBoxes = 200;
constexpr size_t kMaxTracks = 64;
/// Of all tables together; an index of this size describes weeks of recording.
constexpr uint64_t kMaxTableBytes = uint64_t{256} << 20;

/// Keeps at most kMaxMarks of the marks that it is given: when it is full, neighbours are merged
/// two by two, and from then on each mark stands for twice as many.
template <class Mark, class Merge>
class Thinned {
public:
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

/// The 32-bit words behind a table's header. A count is never believed past the table's end.
class Table {
public:
    Table() = default;
    Table(std::vector<uint8_t> bytes, uint64_t wordsPerEntry, uint64_t declared)
        : m_bytes(std::move(bytes)),
          m_words(wordsPerEntry),
          m_count(std::min<uint64_t>(declared, m_bytes.size() / (4 * wordsPerEntry))) {}

    uint64_t Count() const { return m_count; }
    uint32_t Word(uint64_t entry, uint64_t word) const {
        return Int32(m_bytes.data() + 4 * (entry * m_words + word));
    }
    uint64_t Long(uint64_t entry) const { return Int64(m_bytes.data() + 8 * entry); }

private:
    std::vector<uint8_t> m_bytes;
    uint64_t m_words = 1;
    uint64_t m_count = 0;
};

/// Goes through the sizes of a track's samples.
class SizeCursor {
public:
    SizeCursor(const Table& sizes, uint32_t commonSize, uint64_t samples)
        : m_sizes(sizes), m_common(commonSize), m_left(samples) {}

    uint64_t Left() const { return m_left; }
    /// Bytes of the next `count` samples, which must be left.
    uint64_t Take(uint64_t count) {
        m_left -= count;
        if (m_common != 0) return count * m_common;
        uint64_t bytes = 0;
        for (; count != 0; --count)
            bytes += m_sizes.Word(m_next++, 0);
        return bytes;
    }

private:
    const Table& m_sizes;
    uint64_t m_common;
    uint64_t m_left;
    uint64_t m_next = 0;
};

/// Goes through the durations of a track's samples.
class TimeCursor {
public:
    explicit TimeCursor(const Table& runs) : m_runs(runs) {}

    /// Ticks from the first sample to the one that lies `count` samples ahead.
    double Advance(uint64_t count) {
        while (count != 0 && NextRun()) {
            const uint64_t step = std::min(count, m_left);
            m_ticks += static_cast<double>(step) * m_delta;
            m_left -= step;
            count -= step;
        }
        return m_ticks;
    }

private:
    bool NextRun() {
        while (m_left == 0 && m_next < m_runs.Count()) {
            m_left = m_runs.Word(m_next, 0);
            m_delta = m_runs.Word(m_next, 1);
            ++m_next;
        }
        return m_left != 0;
    }

    const Table& m_runs;
    uint64_t m_next = 0;
    uint64_t m_left = 0;
    double m_delta = 0;
    double m_ticks = 0;
};

/// Tells how many samples each chunk holds.
class ChunkCursor {
public:
    explicit ChunkCursor(const Table& runs) : m_runs(runs) {}

    /// Samples of the chunk with this number, from 1; numbers only grow.
    uint64_t SamplesOf(uint64_t chunk) {
        while (m_next < m_runs.Count() && m_runs.Word(m_next, 0) <= chunk)
            m_samples = m_runs.Word(m_next++, 1);
        return m_samples;
    }

private:
    const Table& m_runs;
    uint64_t m_next = 0;
    uint64_t m_samples = 0;
};

class MapReader {
public:
    MapReader(const File& file, MovieMap& map) : m_file(file), m_map(map) {}

    void Read();

private:
    void ReadTopLevel();
    bool ReadTopBox(uint64_t position);
    std::optional<Box> ReadBoxHeader(uint64_t position, uint64_t end) const;
    bool IsOpenMediaData(const Box& box) const;
    void ReadChildren(Box& parent, int depth);
    void NameByKey(Box& item) const;
    uint64_t ChildrenStart(const Box& box) const;

    void ReadBrands(const Box& ftyp);
    void ReadTrack(const Box& trak);
    void ReadChunks(const Box& stbl, double timescale, Track& track);
    std::string ReadType(const Box* box, uint64_t offset) const;
    Table ReadTable(const Box* box, uint64_t head, uint64_t wordsPerEntry);
    void Remark(const std::string& text) { m_map.remarks.push_back(text); }

    const File& m_file;
    MovieMap& m_map;
    size_t m_boxes = 0;
    uint64_t m_tableBytes = 0;
};

std::optional<Box> MapReader::ReadBoxHeader(uint64_t position, uint64_t end) const {
    uint8_t head[kLargeHeader] = {};
    if (end - position < kHeader || !m_file.Read(position, head, kHeader)) return std::nullopt;
    Box box;
    box.type = TypeText(head + 4);
    box.position = position;
    box.size = Int32(head);
    if (box.size == 1) {
        if (!m_file.Read(position, head, kLargeHeader)) return std::nullopt;
        box.size = Int64(head + kHeader);
        // While a recording runs, the 64-bit size of its media data is 1.
        if (box.size == 1 && box.type == "mdat") box.size = kLargeHeader;
        if (box.size < kLargeHeader) return std::nullopt;
    } else if (box.size == 0) {
        box.size = end - position;
    }
    if (box.size < kHeader || box.size > end - position) return std::nullopt;
    return box;
}

/// Media data of a recording that has not been finished: a header that claims no content, and
/// behind it something else than a box of the top level (a ProRes frame looks like a box).
bool MapReader::IsOpenMediaData(const Box& box) const {
    static constexpr const char* kTopLevel[] = {"moov", "free", "skip", "wide", "mdat",
                                                "meta", "udta", "uuid", "moof", "mfra"};
    if (box.type != "mdat" || box.size > kLargeHeader) return false;
    uint8_t next[kHeader] = {};
    const uint64_t end = box.position + box.size;
    if (end == m_file.Size()) return false;
    if (!m_file.Read(end, next, sizeof next)) return true;
    const std::string type = TypeText(next + 4);
    return std::none_of(std::begin(kTopLevel), std::end(kTopLevel),
                        [&type](const char* known) { return type == known; });
}

bool MapReader::ReadTopBox(uint64_t position) {
    const uint64_t end = m_file.Size();
    std::optional<Box> box = ReadBoxHeader(position, end);
    uint8_t head[kHeader] = {};
    if (!box || !m_file.Read(position, head, kHeader) || !PlausibleType(head + 4)) {
        Remark("From byte " + std::to_string(position) + " on there is no box.");
        m_map.boxes.push_back({"????", position, end - position, {}});
        return false;
    }
    if (IsOpenMediaData(*box)) {
        Remark("The media data has no size and there is no index: the recording was not finished.");
        m_map.unfinished = true;
        box->size = end - position;
    }
    m_map.boxes.push_back(std::move(*box));
    return true;
}

void MapReader::ReadTopLevel() {
    uint64_t position = 0;
    while (position < m_file.Size()) {
        if (m_map.boxes.size() == kMaxTopBoxes) {
            Remark("There are more boxes than are drawn.");
            m_map.boxes.push_back({"more", position, m_file.Size() - position, {}});
            return;
        }
        if (!ReadTopBox(position)) return;
        position += m_map.boxes.back().size;
    }
}

/// Position of the first child; 0 when the box is a leaf.
uint64_t MapReader::ChildrenStart(const Box& box) const {
    static constexpr const char* kContainers[] = {"moov", "trak", "edts", "tref", "mdia", "minf",
                                                  "dinf", "stbl", "gmhd", "nmhd", "udta", "ilst",
                                                  "wave", "mvex", "moof", "traf"};
    static constexpr const char* kVisual[] = {"avc1", "avc3", "hvc1", "hev1", "apco",
                                              "apcs", "apcn", "apch", "ap4h", "ap4x"};
    const auto isOneOf = [&box](const auto& types) {
        return std::any_of(std::begin(types), std::end(types),
                           [&box](const char* type) { return box.type == type; });
    };
    constexpr uint64_t kVisualEntry = 86;
    constexpr uint64_t kSoundEntry = 36;
    constexpr uint64_t kSoundVersion1 = 16;
    if (isOneOf(kContainers)) return box.position + kHeader;
    if (box.type == "stsd" || box.type == "dref") return box.position + kHeader + 8;
    if (isOneOf(kVisual)) return box.position + kVisualEntry;
    uint8_t bytes[8] = {};
    if (box.type == "mp4a" && box.size >= kSoundEntry) {
        if (!m_file.Read(box.position + 16, bytes, 2)) return 0;
        return box.position + kSoundEntry + (Int16(bytes) == 1 ? kSoundVersion1 : 0);
    }
    if (box.type == "tmcd" && box.size > 12) {  // the wrapper of 'tcmi', not the sample entry
        if (!m_file.Read(box.position + kHeader, bytes, 8)) return 0;
        return TypeText(bytes + 4) == "tcmi" ? box.position + kHeader : 0;
    }
    if (box.type == "meta") {  // with version and flags, or in QuickTime's form without
        if (!m_file.Read(box.position + kHeader, bytes, 8)) return 0;
        return box.position + kHeader + (TypeText(bytes + 4) == "hdlr" ? 0 : 4);
    }
    return 0;
}

/// An item of QuickTime's metadata has the number of its key in place of a type.
void MapReader::NameByKey(Box& item) const {
    constexpr uint32_t kSmallestType = 0x01000000;
    uint8_t type[4] = {};
    if (m_file.Read(item.position + 4, type, 4) && Int32(type) < kSmallestType)
        item.type = '#' + std::to_string(Int32(type));
}

void MapReader::ReadChildren(Box& parent, int depth) {
    uint64_t position = ChildrenStart(parent);
    if (position == 0 || depth == kMaxDepth) return;
    const uint64_t end = parent.position + parent.size;
    while (position < end && m_boxes < kMaxBoxes) {
        std::optional<Box> child = ReadBoxHeader(position, end);
        if (!child) return;
        ++m_boxes;
        if (parent.type == "ilst") NameByKey(*child);
        ReadChildren(*child, depth + 1);
        position += child->size;
        parent.children.push_back(std::move(*child));
    }
}

std::string MapReader::ReadType(const Box* box, uint64_t offset) const {
    uint8_t type[4] = {};
    if (box == nullptr || box->size < offset + 4) return {};
    return m_file.Read(box->position + offset, type, 4) ? TypeText(type) : std::string();
}

/// The table behind `head` bytes of the box, the last four of which are its entry count.
Table MapReader::ReadTable(const Box* box, uint64_t head, uint64_t wordsPerEntry) {
    uint8_t count[4] = {};
    if (box == nullptr || box->size < head) return {};
    if (!m_file.Read(box->position + head - 4, count, 4)) return {};
    const uint64_t wanted =
        std::min<uint64_t>(uint64_t{Int32(count)} * 4 * wordsPerEntry, box->size - head);
    if (wanted > kMaxTableBytes - m_tableBytes) {
        Remark("The sample tables are too large to be read.");
        return {};
    }
    m_tableBytes += wanted;
    std::vector<uint8_t> bytes(static_cast<size_t>(wanted));
    if (!m_file.Read(box->position + head, bytes.data(), bytes.size())) return {};
    return Table(std::move(bytes), wordsPerEntry, Int32(count));
}

void MapReader::ReadTrack(const Box& trak) {
    const Box* const mdia = Find(&trak, "mdia");
    const Box* const mdhd = Find(mdia, "mdhd");
    const Box* const tkhd = Find(&trak, "tkhd");
    const Box* const stbl = Find(Find(mdia, "minf"), "stbl");
    if (mdhd == nullptr || tkhd == nullptr || stbl == nullptr) {
        Remark("A track lacks its headers or its sample table.");
        return;
    }
    uint8_t word[4] = {};
    const auto versionOf = [&](const Box& box) {
        return m_file.Read(box.position + kHeader, word, 1) ? word[0] : 0;
    };
    Track track;
    track.boxPosition = trak.position;
    if (m_file.Read(tkhd->position + (versionOf(*tkhd) == 1 ? 28 : 20), word, 4))
        track.id = Int32(word);
    double timescale = 0;
    if (m_file.Read(mdhd->position + (versionOf(*mdhd) == 1 ? 28 : 20), word, 4))
        timescale = Int32(word);
    track.handler = ReadType(Find(mdia, "hdlr"), 16);
    track.entry = ReadType(Find(stbl, "stsd"), 20);
    ReadTrackDetails(m_file, trak, m_map.movieTimescale, track);
    if (timescale == 0) {
        Remark("Track " + std::to_string(track.id) + " has no timescale.");
        timescale = 1;
    }
    ReadChunks(*stbl, timescale, track);
    m_map.tracks.push_back(std::move(track));
}

void MapReader::ReadChunks(const Box& stbl, double timescale, Track& track) {
    const bool large = Find(&stbl, "co64") != nullptr;
    const Table offsets = ReadTable(Find(&stbl, large ? "co64" : "stco"), 16, large ? 2 : 1);
    const Table runs = ReadTable(Find(&stbl, "stsc"), 16, 3);
    const Table durations = ReadTable(Find(&stbl, "stts"), 16, 2);
    const Table syncTable = ReadTable(Find(&stbl, "stss"), 16, 1);
    track.hasSyncTable = Find(&stbl, "stss") != nullptr;

    const Box* const stsz = Find(&stbl, "stsz");
    uint8_t head[8] = {};
    if (stsz == nullptr || stsz->size < 20 || !m_file.Read(stsz->position + 12, head, 8)) return;
    const uint32_t commonSize = Int32(head);
    const Table sizes = commonSize == 0 ? ReadTable(stsz, 20, 1) : Table();
    SizeCursor size(sizes, commonSize, commonSize == 0 ? sizes.Count() : Int32(head + 4));
    TimeCursor time(durations);
    ChunkCursor chunkRuns(runs);

    const auto cover = [](Extent& extent, const Extent& next) {
        extent.position = std::min(extent.position, next.position);
        extent.end = std::max(extent.end, next.end);
        extent.stop = next.stop;
    };
    Thinned extents(track.extents, cover);
    Thinned syncs(track.syncs, [](SyncSample&, const SyncSample&) {});

    uint64_t outside = 0;
    uint64_t sync = 0;
    for (uint64_t i = 0; i < offsets.Count() && size.Left() != 0; ++i) {
        const uint64_t position = large ? offsets.Long(i) : offsets.Word(i, 0);
        uint64_t left = std::min(chunkRuns.SamplesOf(i + 1), size.Left());
        Extent chunk{position, position, time.Advance(0) / timescale, 0};
        const auto take = [&](uint64_t count) {
            const uint64_t bytes = size.Take(count);
            track.bytes += bytes;
            track.samples += count;
            chunk.end = bytes > UINT64_MAX - chunk.end ? UINT64_MAX : chunk.end + bytes;
            chunk.stop = time.Advance(count) / timescale;
            left -= count;
        };
        for (; sync < syncTable.Count(); ++sync) {
            const uint64_t number = syncTable.Word(sync, 0);
            if (number > track.samples + left) break;
            if (number <= track.samples) continue;  // 0, or out of order
            take(number - track.samples - 1);
            syncs.Add({chunk.end, time.Advance(0) / timescale});
            track.CountSync(number);
        }
        take(left);
        ++track.chunks;
        if (chunk.end > m_file.Size())
            ++outside;
        else
            extents.Add(chunk);
    }
    track.seconds = time.Advance(0) / timescale;
    const std::string name = "Track " + std::to_string(track.id);
    if (outside != 0)
        Remark(name + ": " + std::to_string(outside) + " chunks lie outside the file.");
    if (size.Left() != 0)
        Remark(name + ": " + std::to_string(size.Left()) + " samples have no chunk.");
}

void MapReader::Read() {
    ReadTopLevel();
    for (Box& box : m_map.boxes) {
        if (box.type == "ftyp") ReadBrands(box);
        if (box.type == "moof") ++m_map.fragments;
        if (box.type != "moov") continue;
        ReadChildren(box, 0);
        ReadMovieDetails(m_file, box, m_map);
        for (const Box& child : box.children) {
            if (child.type == "trak" && m_map.tracks.size() < kMaxTracks) ReadTrack(child);
        }
        ReadTimecode(m_file, m_map);
    }
    for (Box& box : m_map.boxes) {
        if (box.type != "moof") continue;
        ReadChildren(box, 0);
        if (!ReadFragment(m_file, box, m_map))
            Remark("The fragment at byte " + std::to_string(box.position) + " does not hold.");
    }
    m_map.interleaving = LargestDistance(m_map.tracks);
}

void MapReader::ReadBrands(const Box& ftyp) {
    constexpr uint64_t kMostBrands = 32;
    m_map.brand = ReadType(&ftyp, kHeader);
    for (uint64_t at = 16; at + 4 <= ftyp.size && at < 16 + 4 * kMostBrands; at += 4)
        m_map.compatibleBrands.push_back(ReadType(&ftyp, at));
}

}  // namespace

void Track::CountSync(uint64_t number) {
    if (syncSamples != 0) {
        const uint64_t distance = number - m_lastSync;
        largestSyncDistance = std::max(largestSyncDistance, distance);
        smallestSyncDistance =
            syncSamples == 1 ? distance : std::min(smallestSyncDistance, distance);
    }
    m_lastSync = number;
    ++syncSamples;
}

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
    const File file(path);
    MovieMap map;
    map.name = path.substr(path.rfind('/') + 1);
    map.fileSize = file.Size();
    if (map.fileSize == 0) map.remarks.emplace_back("The file is empty.");
    MapReader(file, map).Read();
    if (map.unfinished) {
        const bool hasInfo = access((path + ".info").c_str(), F_OK) == 0;
        map.remarks.push_back(hasInfo ? "Its index can be made: kxrepair " + path
                                      : "There is no repair info file (" + map.name +
                                            ".info) beside it, with which kxrepair could make "
                                            "its index.");
    }
    return map;
}

}  // namespace kxmap
