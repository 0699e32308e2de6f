#include "TrackDetails.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace kxmap {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kLongestValue = 200;
constexpr size_t kMostItems = 100;

template <class... Values>
std::string Format(const char* format, Values... values) {
    std::array<char, 96> text{};
    std::snprintf(text.data(), text.size(), format, values...);
    return text.data();
}

double Seconds(uint64_t ticks, uint32_t timescale) {
    return timescale == 0 ? 0 : static_cast<double>(ticks) / timescale;
}

/// A timescale and the duration behind it, of 'mvhd' and 'mdhd'.
struct Clock {
    uint32_t timescale = 0;
    uint64_t duration = 0;
};

Clock ReadClock(const File& file, const Box* box) {
    if (box == nullptr) return {};
    const Bytes bytes = file.Content(*box, kHeader, 32);
    const bool wide = !bytes.empty() && bytes[0] == 1;
    if (bytes.size() < (wide ? 32U : 20U)) return {};
    const uint8_t* const at = bytes.data() + (wide ? 20 : 12);
    return {Int32(at), wide ? Int64(at + 4) : Int32(at + 4)};
}

void ReadEdits(const File& file, const Box& trak, uint32_t movieTimescale, Track& track) {
    const Box* const elst = Find(Find(&trak, "edts"), "elst");
    if (elst == nullptr) return;
    const Bytes bytes = file.Content(*elst, kHeader, 8 + 20 * kMostItems);
    if (bytes.size() < 8) return;
    const bool wide = bytes[0] == 1;
    const size_t width = wide ? 20 : 12;
    const size_t count = std::min<size_t>(Int32(bytes.data() + 4), (bytes.size() - 8) / width);
    for (size_t i = 0; i < count; ++i) {
        const uint8_t* const entry = bytes.data() + 8 + i * width;
        Edit edit;
        edit.seconds = Seconds(wide ? Int64(entry) : Int32(entry), movieTimescale);
        edit.mediaTime =
            wide ? static_cast<int64_t>(Int64(entry + 8)) : static_cast<int32_t>(Int32(entry + 4));
        track.edits.push_back(edit);
    }
}

/// ISO/IEC 14496-15, Annex E: profile, compatibility flags in reverse, tier and level, constraints.
std::string HevcCodec(const std::string& entry, const Bytes& record) {
    if (record.size() < 13) return entry;
    uint32_t flags = Int32(record.data() + 2);
    uint32_t reversed = 0;
    for (int i = 0; i < 32; ++i, flags >>= 1)
        reversed = reversed << 1 | (flags & 1);
    static constexpr const char* kSpaces[] = {"", "A", "B", "C"};
    std::string codec = entry + "." + kSpaces[record[1] >> 6] +
                        Format("%u.%X.%c%u", record[1] & 0x1FU, reversed,
                               (record[1] & 0x20) != 0 ? 'H' : 'L', unsigned{record[12]});
    size_t last = 12;
    while (last > 6 && record[last - 1] == 0)
        --last;
    for (size_t i = 6; i < last; ++i)
        codec += Format(".%X", unsigned{record[i]});
    return codec;
}

/// The AudioSpecificConfig within the descriptors of 'esds' (ISO/IEC 14496-1, 7.2.6).
Bytes AudioConfig(const Bytes& esds) {
    constexpr uint8_t kEs = 3;
    constexpr uint8_t kDecoderConfig = 4;
    constexpr uint8_t kSpecificInfo = 5;
    for (size_t at = 4; at + 2 <= esds.size();) {
        const uint8_t tag = esds[at++];
        size_t size = 0;
        for (int i = 0; i < 4 && at < esds.size(); ++i) {
            size = size << 7 | (esds[at] & 0x7F);
            if ((esds[at++] & 0x80) == 0) break;
        }
        if (tag == kEs) {
            at += 3;
        } else if (tag == kDecoderConfig) {
            at += 13;
        } else if (tag == kSpecificInfo) {
            const size_t end = std::min(esds.size(), at + size);
            return {esds.begin() + static_cast<std::ptrdiff_t>(std::min(at, end)),
                    esds.begin() + static_cast<std::ptrdiff_t>(end)};
        } else {
            at += size;
        }
    }
    return {};
}

void ReadAac(const Bytes& config, Track& track) {
    static constexpr uint32_t kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                          22050, 16000, 12000, 11025, 8000,  7350};
    if (config.size() < 2) return;
    const unsigned bits = static_cast<unsigned>(config[0]) << 8 | config[1];
    const unsigned type = bits >> 11;
    const unsigned rate = bits >> 7 & 0xF;
    track.codec += Format(".40.%u", type);
    if (rate < std::size(kRates)) track.sampleRate = kRates[rate];
    if (rate < 15) track.channels = bits >> 3 & 0xF;
}

void ReadVisualEntry(const File& file, const Box& entry, Track& track) {
    const Bytes head = file.Content(entry, 32, 4);
    if (head.size() == 4) {
        track.width = Int16(head.data());
        track.height = Int16(head.data() + 2);
    }
    if (const Box* const avcc = Find(&entry, "avcC")) {
        const Bytes record = file.Content(*avcc, kHeader, 4);
        if (record.size() == 4)
            track.codec += Format(".%02x%02x%02x", unsigned{record[1]}, unsigned{record[2]},
                                  unsigned{record[3]});
    }
    if (const Box* const hvcc = Find(&entry, "hvcC"))
        track.codec = HevcCodec(track.codec, file.Content(*hvcc, kHeader, 13));
}

void ReadSoundEntry(const File& file, const Box& entry, Track& track) {
    const Bytes head = file.Content(entry, 24, 12);
    if (head.size() == 12) {
        track.channels = Int16(head.data());
        track.sampleRate = Int32(head.data() + 8) >> 16;
    }
    const Box* esds = Find(&entry, "esds");
    if (esds == nullptr) esds = Find(Find(&entry, "wave"), "esds");
    if (esds != nullptr) ReadAac(AudioConfig(file.Content(*esds, kHeader, 256)), track);
}

std::string ValueText(const File& file, const Box& item) {
    const Bytes data = file.Content(item, kHeader, 16 + kLongestValue);
    if (data.size() < 16 || TypeText(data.data() + 4) != "data") return {};
    const uint32_t type = Int32(data.data() + 8);
    if (type == 1) return {data.begin() + 16, data.end()};
    if (type == 21 && data.size() == 20)
        return std::to_string(static_cast<int32_t>(Int32(data.data() + 16)));
    return std::to_string(item.size - kHeader - 16) + " bytes";
}

/// The names of 'keys', in order.
std::vector<std::string> KeyNames(const File& file, const Box& meta) {
    std::vector<std::string> names;
    const Box* const keys = Find(&meta, "keys");
    if (keys == nullptr) return names;
    const Bytes bytes = file.Content(*keys, 16, size_t{64} << 10);
    for (size_t at = 0; at + 8 <= bytes.size() && names.size() < kMostItems;) {
        const size_t size = Int32(bytes.data() + at);
        if (size < 8 || size > bytes.size() - at) break;
        names.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(at + 8),
                           bytes.begin() + static_cast<std::ptrdiff_t>(at + size));
        at += size;
    }
    return names;
}

void ReadMetadata(const File& file, const Box* meta, MovieMap& map) {
    const Box* const ilst = Find(meta, "ilst");
    if (ilst == nullptr) return;
    const std::vector<std::string> names = KeyNames(file, *meta);
    for (const Box& item : ilst->children) {
        if (map.metadata.size() == kMostItems) return;
        std::string key = item.type;
        if (key[0] == '#') {
            const size_t number = std::strtoul(key.c_str() + 1, nullptr, 10);
            if (number >= 1 && number <= names.size()) key = names[number - 1];
        }
        map.metadata.emplace_back(key, ValueText(file, item));
    }
}

/// SMPTE ST 12-1: with drop frame, the first numbers of a minute are left out, but not of each
/// tenth.
std::string TimecodeText(uint64_t frames, uint32_t rate, bool drop) {
    if (rate == 0) return {};
    if (drop) {
        const uint64_t dropped = rate / 15;
        const uint64_t minute = uint64_t{rate} * 60 - dropped;
        const uint64_t ten = uint64_t{rate} * 600 - dropped * 9;
        const uint64_t rest = frames % ten;
        frames += frames / ten * dropped * 9;
        if (rest >= uint64_t{rate} * 60) frames += ((rest - dropped) / minute) * dropped;
    }
    const uint64_t seconds = frames / rate;
    return Format("%02llu:%02llu:%02llu%c%02llu",
                  static_cast<unsigned long long>(seconds / 3600 % 24),
                  static_cast<unsigned long long>(seconds / 60 % 60),
                  static_cast<unsigned long long>(seconds % 60), drop ? ';' : ':',
                  static_cast<unsigned long long>(frames % rate));
}

}  // namespace

void ReadMovieDetails(const File& file, const Box& moov, MovieMap& map) {
    const Clock clock = ReadClock(file, Find(&moov, "mvhd"));
    map.movieTimescale = clock.timescale;
    map.movieSeconds = Seconds(clock.duration, clock.timescale);
    ReadMetadata(file, Find(&moov, "meta"), map);
    ReadMetadata(file, Find(Find(&moov, "udta"), "meta"), map);
}

void ReadTrackDetails(const File& file, const Box& trak, uint32_t movieTimescale, Track& track) {
    const Box* const mdia = Find(&trak, "mdia");
    const Clock clock = ReadClock(file, Find(mdia, "mdhd"));
    track.timescale = clock.timescale;
    track.mediaSeconds = Seconds(clock.duration, clock.timescale);
    if (const Box* const tkhd = Find(&trak, "tkhd")) {
        const Bytes bytes = file.Content(*tkhd, kHeader, 36);
        const bool wide = !bytes.empty() && bytes[0] == 1;
        if (bytes.size() == 36)
            track.headerSeconds =
                Seconds(wide ? Int64(bytes.data() + 28) : Int32(bytes.data() + 20), movieTimescale);
    }
    ReadEdits(file, trak, movieTimescale, track);
    track.codec = track.entry;
    const Box* const stsd = Find(Find(Find(mdia, "minf"), "stbl"), "stsd");
    if (stsd == nullptr || stsd->children.empty()) return;
    if (track.handler == "vide") ReadVisualEntry(file, stsd->children[0], track);
    if (track.handler == "soun") ReadSoundEntry(file, stsd->children[0], track);
    if (track.handler == "tmcd") {
        const Bytes entry = file.Content(stsd->children[0], 20, 16);
        if (entry.size() < 13) return;
        track.dropFrame = (Int32(entry.data()) & 1) != 0;
        track.framesPerSecond = entry[12];
    }
}

void ReadTimecode(const File& file, MovieMap& map) {
    for (const Track& track : map.tracks) {
        std::array<uint8_t, 4> counter{};
        if (track.handler != "tmcd" || track.extents.empty()) continue;
        if (!file.Read(track.extents[0].position, counter.data(), counter.size())) continue;
        map.timecode = TimecodeText(Int32(counter.data()), track.framesPerSecond, track.dropFrame);
        return;
    }
}

}  // namespace kxmap
