#include "movie_reader.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <stdexcept>

namespace {

[[noreturn]] void Refuse(const Box& box, const std::string& why) {
    throw std::runtime_error("box '" + box.type + "' at " + std::to_string(box.offset) + ": " +
                             why);
}

bool IsVisualEntry(const std::string& type) {
    static const std::set<std::string> kTypes{"avc1", "hvc1", "apco", "apcs",
                                              "apcn", "apch", "ap4h", "ap4x"};
    return kTypes.count(type) != 0;
}

/// Where the children of a box begin, or 0 for a box without children.
uint64_t ChildrenStart(const Box& box, const std::string& parent) {
    static const std::set<std::string> kContainers{"moov", "trak", "mdia", "minf", "dinf",
                                                   "stbl", "edts", "udta", "tref", "gmhd",
                                                   "nmhd", "wave", "ilst"};
    if (kContainers.count(box.type) != 0 || parent == "ilst") return 8;
    if (box.type == "tmcd" && parent == "gmhd") return 8;
    if (box.type == "stsd" || box.type == "keys" || box.type == "dref") return 16;
    if (box.type == "meta") return box.Text(12, 4) == "hdlr" ? 8 : 12;
    if (parent != "stsd") return 0;
    if (IsVisualEntry(box.type)) return 86;
    if (box.type == "mp4a") return box.U16(16) == 1 ? 52 : 36;
    return 0;
}

Box ReadBox(const std::function<uint8_t(uint64_t)>& byteAt, uint64_t offset, uint64_t end,
            const std::string& parent) {
    Box box;
    box.offset = offset;
    box.byteAt = byteAt;
    box.size = end - offset;
    if (box.size < 8) Refuse(box, "no room for a header in '" + parent + "'");
    box.type = box.Text(4, 4);
    uint64_t size = box.U32(0);
    if (size == 1) {
        size = box.U64(8);
        box.headerSize = 16;
    }
    if (size < box.headerSize || size > end - offset)
        Refuse(box, "size " + std::to_string(size) + " does not fit '" + parent + "'");
    box.size = size;
    const uint64_t start = ChildrenStart(box, parent);
    if (start == 0) return box;
    for (uint64_t at = offset + start; at < offset + size;) {
        box.children.push_back(ReadBox(byteAt, at, offset + size, box.type));
        at += box.children.back().size;
    }
    return box;
}

/// Sizes, times and sync marks; the offsets come from the chunks.
std::vector<Sample> SamplesWithoutOffsets(const Box& stbl, int64_t& lastDuration) {
    const Box& stsz = stbl.At("stsz");
    std::vector<Sample> samples(stsz.U32(16));
    const uint32_t common = stsz.U32(12);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i].size = common != 0 ? common : stsz.size == 20 ? 0 : stsz.U32(20 + 4 * i);

    const Box& stts = stbl.At("stts");
    size_t next = 0;
    int64_t time = 0;
    for (uint32_t run = 0; run < stts.U32(12); ++run) {
        lastDuration = static_cast<int32_t>(stts.U32(20 + 8 * uint64_t{run}));
        for (uint32_t i = 0; i < stts.U32(16 + 8 * uint64_t{run}); ++i) {
            if (next == samples.size()) Refuse(stts, "more durations than samples");
            samples[next].dts = samples[next].cts = time;
            time += lastDuration;
            ++next;
        }
    }
    if (next != samples.size()) Refuse(stts, "fewer durations than samples");

    if (const Box* ctts = stbl.Find("ctts")) {
        next = 0;
        for (uint32_t run = 0; run < ctts->U32(12); ++run)
            for (uint32_t i = 0; i < ctts->U32(16 + 8 * uint64_t{run}); ++i)
                samples.at(next++).cts += static_cast<int32_t>(ctts->U32(20 + 8 * uint64_t{run}));
        if (next != samples.size()) Refuse(*ctts, "not one composition offset per sample");
    }
    if (const Box* stss = stbl.Find("stss")) {
        for (Sample& sample : samples)
            sample.sync = false;
        for (uint32_t i = 0; i < stss->U32(12); ++i)
            samples.at(stss->U32(16 + 4 * uint64_t{i}) - 1).sync = true;
    }
    return samples;
}

Track ReadTrack(const Box& trak) {
    Track track;
    track.box = &trak;
    track.id = trak.At("tkhd").U32(trak.At("tkhd").U8(8) == 1 ? 28 : 20);
    const Box& mdhd = trak.At("mdia/mdhd");
    const bool wide = mdhd.U8(8) == 1;
    track.timescale = mdhd.U32(wide ? 28 : 20);
    track.duration = wide ? mdhd.U64(32) : mdhd.U32(24);
    track.handler = trak.At("mdia/hdlr").Text(16, 4);
    const Box& stbl = trak.At("mdia/minf/stbl");
    if (stbl.At("stsd").U32(12) != 1 || stbl.At("stsd").children.size() != 1)
        Refuse(stbl, "not one sample entry");
    track.entryType = stbl.At("stsd").children[0].type;
    track.samples = SamplesWithoutOffsets(stbl, track.lastDuration);

    const Box* co64 = stbl.Find("co64");
    const Box& offsets = co64 != nullptr ? *co64 : stbl.At("stco");
    const Box& stsc = stbl.At("stsc");
    track.chunks = offsets.U32(12);
    size_t next = 0;
    for (uint32_t run = 0; run < stsc.U32(12); ++run) {
        const uint64_t entry = 16 + 12 * uint64_t{run};
        const uint32_t end = run + 1 < stsc.U32(12) ? stsc.U32(entry + 12) : track.chunks + 1;
        for (uint32_t chunk = stsc.U32(entry); chunk < end; ++chunk) {
            uint64_t at = co64 != nullptr ? offsets.U64(16 + 8 * uint64_t{chunk - 1})
                                          : offsets.U32(16 + 4 * uint64_t{chunk - 1});
            for (uint32_t i = 0; i < stsc.U32(entry + 4); ++i) {
                if (next == track.samples.size()) Refuse(stsc, "more samples than sizes");
                track.samples[next].offset = at;
                at += track.samples[next++].size;
            }
        }
    }
    if (next != track.samples.size()) Refuse(stsc, "fewer samples than sizes");
    return track;
}

}  // namespace

uint64_t Box::Uint(uint64_t position, int width) const {
    if (position + static_cast<uint64_t>(width) > size) Refuse(*this, "read past its end");
    uint64_t value = 0;
    for (int i = 0; i < width; ++i)
        value = value << 8 | byteAt(offset + position + static_cast<uint64_t>(i));
    return value;
}

Bytes Box::Content(uint64_t position, uint64_t length) const {
    Bytes content;
    for (uint64_t i = 0; i < length; ++i)
        content.push_back(U8(position + i));
    return content;
}

std::string Box::Text(uint64_t position, uint64_t length) const {
    const Bytes content = Content(position, length);
    return std::string(content.begin(), content.end());
}

const Box* Box::Find(const std::string& path) const {
    const size_t slash = path.find('/');
    std::string name = path.substr(0, slash);
    size_t skip = 0;
    if (const size_t bracket = name.find('['); bracket != std::string::npos) {
        skip = std::stoul(name.substr(bracket + 1));
        name.resize(bracket);
    }
    for (const Box& child : children) {
        if (child.type != name || skip-- != 0) continue;
        return slash == std::string::npos ? &child : child.Find(path.substr(slash + 1));
    }
    return nullptr;
}

const Box& Box::At(const std::string& path) const {
    const Box* box = Find(path);
    if (box == nullptr) Refuse(*this, "no '" + path + "' in it");
    return *box;
}

std::string Box::ChildTypes() const {
    std::string types;
    for (const Box& child : children)
        types += (types.empty() ? "" : " ") + child.type;
    return types;
}

std::string Box::Dump(int depth) const {
    const std::string indent(static_cast<size_t>(depth) * 2, ' ');
    std::string name;
    char piece[8];
    for (const char c : type) {
        std::snprintf(piece, sizeof piece, c >= ' ' && c <= '~' ? "%c" : "\\x%02x",
                      static_cast<unsigned char>(c));
        name += piece;
    }
    std::string text = indent + name + " " + std::to_string(size) + "\n";
    const uint64_t end = children.empty() ? size : children[0].offset - offset;
    for (uint64_t row = headerSize; row < end; row += 16) {
        std::string words;
        std::string letters;
        for (uint64_t i = row; i < row + 16 && i < end; ++i) {
            const uint8_t byte = U8(i);
            std::snprintf(piece, sizeof piece, (i - row) % 4 == 0 ? " %02x" : "%02x", byte);
            words += piece;
            letters += byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '.';
        }
        words.resize(36, ' ');
        text += indent + " " + words + "  " + letters + "\n";
    }
    for (const Box& child : children)
        text += child.Dump(depth + 1);
    return text;
}

MovieReader::MovieReader(Bytes file)
    : MovieReader(file.size(),
                  [kept = std::make_shared<Bytes>(file)](uint64_t at) { return kept->at(at); }) {}

MovieReader::MovieReader(uint64_t size, std::function<uint8_t(uint64_t)> byteAt) {
    m_file.type = "file";
    m_file.size = size;
    m_file.headerSize = 0;
    m_file.byteAt = byteAt;
    for (uint64_t at = 0; at < size;) {
        m_file.children.push_back(ReadBox(byteAt, at, size, "file"));
        at += m_file.children.back().size;
    }
    const Box* moov = m_file.Find("moov");
    if (moov == nullptr) return;
    for (const Box& child : moov->children)
        if (child.type == "trak") m_tracks.push_back(ReadTrack(child));
}

const Track& MovieReader::TrackOf(const std::string& handler) const {
    for (const Track& track : m_tracks)
        if (track.handler == handler) return track;
    throw std::runtime_error("no track with handler '" + handler + "'");
}

Bytes MovieReader::SampleBytes(const Sample& sample) const {
    return m_file.Content(sample.offset, sample.size);
}

Bytes ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

Bytes BytesOf(CBufferIO& stream) {
    if (stream.GetSize() == 0) return {};
    return Bytes(stream.GetBuffer(), stream.GetBuffer() + stream.GetSize());
}

Bytes Hex(const std::string& digits) {
    Bytes bytes;
    std::string pair;
    for (const char digit : digits) {
        if (digit == ' ') continue;
        pair += digit;
        if (pair.size() < 2) continue;
        bytes.push_back(static_cast<uint8_t>(std::stoul(pair, nullptr, 16)));
        pair.clear();
    }
    if (!pair.empty()) throw std::runtime_error("odd number of digits");
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
