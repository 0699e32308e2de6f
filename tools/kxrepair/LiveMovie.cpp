#include "LiveMovie.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

#include "Atom.h"
#include "LiveIndex.h"

namespace kxrepair {
namespace {

namespace movie = kx_mp4::movie;
using movie::Box;
using movie::BoxTree;
using movie::Bytes;

constexpr uint64_t kMdatHeader = kx_mp4::LiveIndex::kMdatHeaderSize;

/// A file some of whose bytes are seen as others.
class PatchedSource final : public movie::BoxSource {
public:
    explicit PatchedSource(const std::string& path) : m_file(path) {}

    uint64_t Size() const override { return m_file.Size(); }
    bool Read(uint64_t position, uint8_t* out, size_t size) const override {
        if (!m_file.Read(position, out, size)) return false;
        for (const auto& [at, bytes] : m_patches) {
            const uint64_t begin = std::max(at, position);
            const uint64_t end = std::min(at + bytes.size(), position + size);
            for (uint64_t i = begin; i < end; ++i)
                out[i - position] = bytes[i - at];
        }
        return true;
    }
    /// Shows media data from one position to another.
    void PutMediaData(uint64_t begin, uint64_t end) {
        std::array<uint8_t, kMdatHeader> header{0, 0, 0, 1, 'm', 'd', 'a', 't'};
        for (size_t i = 0; i < 8; ++i)
            header[8 + i] = static_cast<uint8_t>((end - begin) >> 8 * (7 - i));
        m_patches.emplace_back(begin, header);
    }

private:
    const movie::FileSource m_file;
    std::vector<std::pair<uint64_t, std::array<uint8_t, kMdatHeader>>> m_patches;
};

/// Where the samples of a run end; nothing when it has entries that this library does not write, as
/// where the disk did not get all of it.
std::optional<uint64_t> EndOfRun(const Box& trun, uint64_t base) {
    constexpr uint64_t kEntries = 20;
    constexpr uint64_t kEntrySize = 16;
    constexpr uint32_t kSync = 0x02000000;
    constexpr uint32_t kDependent = 0x01010000;
    if (trun.size < kEntries || trun.size != kEntries + kEntrySize * trun.U32(12))
        return std::nullopt;
    uint64_t end = base + trun.U32(16);
    for (uint64_t at = kEntries; at < trun.size; at += kEntrySize) {
        const uint32_t flags = trun.U32(at + 8);
        if (flags != kSync && flags != kDependent) return std::nullopt;
        end += trun.U32(at + 4);
    }
    return end;
}

/// Where the samples of a track's fragment begin, which it says itself; nothing when they do not
/// lie between the two positions, or when something of it is missing.
std::optional<uint64_t> SamplesOfTrack(const Box& traf, uint64_t begin, uint64_t end) {
    constexpr uint64_t kTfhdSize = 24;
    const Box* const tfhd = traf.Find("tfhd");
    if (tfhd == nullptr || tfhd->size < kTfhdSize || traf.Find("tfdt") == nullptr)
        return std::nullopt;
    const uint64_t base = tfhd->U64(16);
    if (base < begin || base > end) return std::nullopt;
    for (const Box& trun : traf.children) {
        if (trun.type != "trun") continue;
        const std::optional<uint64_t> last = EndOfRun(trun, base);
        if (!last || *last > end) return std::nullopt;
    }
    return base;
}

/// An index behind bytes that hide it.
struct HiddenIndex {
    uint64_t position = 0;
    uint64_t samples = 0;  // where those begin that it lists
};

/// Where the indexes end that are whole, in front of all others, and whether these are all.
struct WholeIndexes {
    uint64_t end = 0;
    bool all = true;
};

using SampleFacts = std::tuple<uint32_t, uint64_t, uint32_t, int64_t, int64_t, bool>;

/// What a movie says of its samples, sorted; nothing when it does not hold.
std::optional<std::vector<SampleFacts>> ListedSamples(const movie::Movie& movie) {
    std::vector<SampleFacts> samples;
    const auto faults = movie::VisitSamples(movie, [&](size_t track, const movie::Sample& sample) {
        samples.emplace_back(movie.tracks[track].id, sample.offset, sample.size, sample.dts,
                             sample.cts, sample.sync);
    });
    if (!faults.empty()) return std::nullopt;
    std::sort(samples.begin(), samples.end());
    return samples;
}

class LiveReader {
public:
    explicit LiveReader(const std::string& path)
        : m_source(std::make_shared<PatchedSource>(path)), m_left(kMostTimes * m_source->Size()) {}

    LiveMovie Read();

private:
    /// How often bytes are looked at, in all, for what a hostile file may make of them.
    static constexpr uint64_t kMostTimes = 64;

    BoxTree WholeBox(uint64_t position);
    std::optional<uint64_t> SamplesOf(uint64_t position, uint64_t from);
    std::optional<HiddenIndex> HiddenIndexAt(uint64_t position, uint64_t from);
    std::optional<HiddenIndex> FindHiddenIndex(uint64_t from);
    WholeIndexes FindWholeIndexes();
    uint64_t BytesBehind(uint64_t index) const;
    bool TakeWholeMovie(uint64_t index);

    const std::shared_ptr<PatchedSource> m_source;
    uint64_t m_left;
    movie::Movie m_movie;
};

/// The box at a position as it is in memory, with positions from 0 on; empty unless all of it is
/// there and consists of boxes.
BoxTree LiveReader::WholeBox(uint64_t position) {
    Bytes bytes(kx_mp4::kBoxHeaderSize);
    if (!m_source->Read(position, bytes.data(), bytes.size())) return {};
    const uint64_t size = movie::Int32(bytes.data());
    if (size < bytes.size() || size > m_source->Size() - position || size > m_left) return {};
    m_left -= size;
    bytes.resize(static_cast<size_t>(size));
    if (!m_source->Read(position, bytes.data(), bytes.size())) return {};
    BoxTree tree = movie::ReadBoxes(std::make_shared<movie::MemorySource>(std::move(bytes)));
    return tree.faults.empty() ? std::move(tree) : BoxTree{};
}

/// Where the samples of the fragment at a position begin, behind the header of media data at `from`
/// or later.
std::optional<uint64_t> LiveReader::SamplesOf(uint64_t position, uint64_t from) {
    const BoxTree tree = WholeBox(position);
    const Box* const moof = tree.file.Find("moof");
    if (moof == nullptr || moof->Find("mfhd") == nullptr) return std::nullopt;
    std::optional<uint64_t> samples;
    for (const Box& traf : moof->children) {
        if (traf.type == "mfhd") continue;
        samples = SamplesOfTrack(traf, from + kMdatHeader, position);
        if (!samples) break;
    }
    return samples;
}

/// Looks at one place that reads like the type of a box. Without a movie box so far there has to be
/// one in front of the fragment.
std::optional<HiddenIndex> LiveReader::HiddenIndexAt(uint64_t position, uint64_t from) {
    uint64_t fragment = position;
    if (m_movie.moov == nullptr) {
        const BoxTree tree = WholeBox(position);
        if (tree.file.Find("moov/mvex") == nullptr) return std::nullopt;
        fragment += tree.file.size;
    }
    const std::optional<uint64_t> samples = SamplesOf(fragment, from);
    if (!samples || *samples > position) return std::nullopt;
    return HiddenIndex{position, *samples};
}

std::optional<HiddenIndex> LiveReader::FindHiddenIndex(uint64_t from) {
    constexpr uint64_t kPiece = uint64_t{1} << 20;
    constexpr uint64_t kTypeAt = 4;
    const std::string type = m_movie.moov == nullptr ? "moov" : "moof";
    const uint64_t end = m_source->Size();
    Bytes piece;
    for (uint64_t begin = from + kMdatHeader; begin + type.size() <= end; begin += kPiece) {
        // The pieces overlap by what a type may reach into the next one.
        piece.resize(static_cast<size_t>(std::min(kPiece + type.size() - 1, end - begin)));
        if (!m_source->Read(begin, piece.data(), piece.size())) return std::nullopt;
        auto at = piece.begin();
        while ((at = std::search(at, piece.end(), type.begin(), type.end())) != piece.end()) {
            const uint64_t position = begin + static_cast<uint64_t>(at++ - piece.begin()) - kTypeAt;
            const auto found = HiddenIndexAt(position, from);
            if (found) return found;
        }
    }
    return std::nullopt;
}

WholeIndexes LiveReader::FindWholeIndexes() {
    uint64_t media = m_movie.boxes.file.children[2].offset;  // of the interval
    WholeIndexes whole{media, true};
    for (const Box& box : m_movie.boxes.file.children) {
        const bool isMovie = box.type == "moov" && !box.isCut;
        if (!isMovie && box.type != "moof") continue;
        whole.all = isMovie || SamplesOf(box.offset, media);
        if (!whole.all) return whole;
        whole.end = box.offset + box.size;
        if (!isMovie) media = whole.end;
    }
    return whole;
}

/// Of media data behind the last index. The index of the whole recording, which was being closed,
/// is none.
uint64_t LiveReader::BytesBehind(uint64_t index) const {
    const uint64_t end = m_source->Size();
    const uint64_t begin = std::min(index + kMdatHeader, end);
    std::array<uint8_t, 16> head{};
    const std::string movieBox = "moov";
    const std::string firstChild = "mvhd";
    const bool isClosing = m_source->Read(begin, head.data(), head.size()) &&
                           std::equal(movieBox.begin(), movieBox.end(), head.begin() + 4) &&
                           std::equal(firstChild.begin(), firstChild.end(), head.begin() + 12);
    return isClosing ? 0 : end - begin;
}

/// Takes the movie box that follows an open, empty `mdat` and ends the file, when it has all
/// samples of the fragments: it knows what came too late for the live index, too.
bool LiveReader::TakeWholeMovie(uint64_t index) {
    const uint64_t position = index + kMdatHeader;
    const BoxTree tree = WholeBox(position);
    const bool endsFile =
        tree.file.Find("moov/mvhd") != nullptr && position + tree.file.size == m_source->Size();
    if (!endsFile || tree.file.Find("moov/mvex") != nullptr) return false;
    const auto listed = ListedSamples(m_movie);
    m_source->PutMediaData(index, position);
    movie::Movie whole = movie::ReadMovie(m_source);
    const auto samples = ListedSamples(whole);
    const bool hasAll =
        listed && samples &&
        std::includes(samples->begin(), samples->end(), listed->begin(), listed->end());
    if (hasAll) m_movie = std::move(whole);
    return hasAll;
}

LiveMovie LiveReader::Read() {
    constexpr int kMostGaps = 1000;
    uint64_t bytesWithout = 0;
    for (int i = 0; i < kMostGaps; ++i) {
        m_movie = movie::ReadMovie(m_source);
        if (!HasLiveForm(m_movie)) throw std::runtime_error("it has no live index");
        const WholeIndexes whole = FindWholeIndexes();
        const std::optional<HiddenIndex> hidden = FindHiddenIndex(whole.end);
        if (!hidden && whole.all) {
            if (TakeWholeMovie(whole.end)) return {std::move(m_movie), 0, true};
            return {std::move(m_movie), bytesWithout + BytesBehind(whole.end)};
        }
        const uint64_t lost = whole.end + 2 * kMdatHeader;  // with the header behind it
        if (hidden) bytesWithout += hidden->samples - std::min(hidden->samples, lost);
        m_source->PutMediaData(whole.end, hidden ? hidden->position : m_source->Size());
    }
    throw std::runtime_error("its index does not hold: too many pieces of it are missing");
}

}  // namespace

bool HasLiveForm(const movie::Movie& movie) {
    const std::vector<Box>& boxes = movie.boxes.file.children;
    if (boxes.size() < 3 || boxes[0].type != "ftyp" || boxes[1].type != "free") return false;
    if (boxes[1].size != kx_mp4::LiveIndex::kFreeSize || boxes[2].type != "mdat") return false;
    const Bytes hidden = boxes[1].Peek(8, 8);
    return hidden == Bytes{0, 0, 0, 1, 'm', 'd', 'a', 't'};
}

LiveMovie ReadLiveMovie(const std::string& path) {
    return LiveReader(path).Read();
}

}  // namespace kxrepair
