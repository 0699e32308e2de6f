#include "TrackDetails.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace kxmap {
namespace {

using kx_mp4::movie::Int16;
using kx_mp4::movie::Int32;
using kx_mp4::movie::Int64;

constexpr uint64_t kHeader = 8;
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

void ReadEdits(const Box& trak, uint32_t movieTimescale, Track& track) {
    const Box* const elst = trak.Find("edts/elst");
    if (elst == nullptr) return;
    const Bytes bytes = elst->Peek(kHeader, 8 + 20 * kMostItems);
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

void ReadVisualEntry(const Box& entry, Track& track) {
    const Bytes head = entry.Peek(32, 4);
    if (head.size() == 4) {
        track.width = Int16(head.data());
        track.height = Int16(head.data() + 2);
    }
    if (const Box* const avcc = entry.Find("avcC")) {
        const Bytes record = avcc->Peek(kHeader, 4);
        if (record.size() == 4)
            track.codec += Format(".%02x%02x%02x", unsigned{record[1]}, unsigned{record[2]},
                                  unsigned{record[3]});
    }
    if (const Box* const hvcc = entry.Find("hvcC"))
        track.codec = HevcCodec(track.codec, hvcc->Peek(kHeader, 13));
}

void ReadSoundEntry(const Box& entry, Track& track) {
    const Bytes head = entry.Peek(24, 12);
    if (head.size() == 12) {
        track.channels = Int16(head.data());
        track.sampleRate = Int32(head.data() + 8) >> 16;
    }
    const Box* esds = entry.Find("esds");
    if (esds == nullptr) esds = entry.Find("wave/esds");
    if (esds != nullptr) ReadAac(AudioConfig(esds->Peek(kHeader, 256)), track);
}

std::string ValueText(const Box& item) {
    const Box* const data = item.Find("data");
    if (data == nullptr) return {};
    const Bytes head = data->Peek(kHeader, 8 + kLongestValue);
    if (head.size() < 8) return {};
    const uint32_t type = Int32(head.data());
    if (type == 1) return {head.begin() + 8, head.end()};
    if (type == 21 && head.size() == 12)
        return std::to_string(static_cast<int32_t>(Int32(head.data() + 8)));
    return std::to_string(data->size - kHeader - 8) + " bytes";
}

/// The name of an item: its tag, or the key that its number stands for.
std::string KeyOf(const Box& item, const Box* keys) {
    const uint32_t number = item.U32(4);
    if (keys == nullptr || number == 0 || number > keys->children.size()) return item.Name();
    const Bytes name = keys->children[number - 1].Peek(kHeader, kLongestValue);
    return {name.begin(), name.end()};
}

void ReadMetadata(const Box* meta, MovieMap& map) {
    const Box* const ilst = meta == nullptr ? nullptr : meta->Find("ilst");
    if (ilst == nullptr) return;
    for (const Box& item : ilst->children) {
        if (map.metadata.size() == kMostItems) return;
        map.metadata.emplace_back(KeyOf(item, meta->Find("keys")), ValueText(item));
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

void ReadMovieDetails(const Box& moov, MovieMap& map) {
    if (const Box* const mvhd = moov.Find("mvhd")) {
        const Bytes bytes = mvhd->Peek(kHeader, 32);
        const bool wide = mvhd->Version() == 1;
        if (bytes.size() == 32) {
            map.movieTimescale = Int32(bytes.data() + (wide ? 20 : 12));
            map.movieSeconds = Seconds(wide ? Int64(bytes.data() + 24) : Int32(bytes.data() + 16),
                                       map.movieTimescale);
        }
    }
    ReadMetadata(moov.Find("meta"), map);
    ReadMetadata(moov.Find("udta/meta"), map);
}

void ReadTrackDetails(const Box& trak, uint64_t duration, uint32_t movieTimescale, Track& track) {
    track.mediaSeconds = Seconds(duration, track.timescale);
    const Box& tkhd = trak.At("tkhd");
    const Bytes bytes = tkhd.Peek(kHeader, 36);
    if (bytes.size() == 36)
        track.headerSeconds =
            Seconds(tkhd.Version() == 1 ? Int64(bytes.data() + 28) : Int32(bytes.data() + 20),
                    movieTimescale);
    ReadEdits(trak, movieTimescale, track);
    track.codec = track.entry;
    const Box& entry = trak.At("mdia/minf/stbl/stsd").children[0];
    if (track.handler == "vide") ReadVisualEntry(entry, track);
    if (track.handler == "soun") ReadSoundEntry(entry, track);
    if (track.handler == "tmcd") {
        const Bytes fields = entry.Peek(20, 13);
        if (fields.size() < 13) return;
        track.dropFrame = (Int32(fields.data()) & 1) != 0;
        track.framesPerSecond = fields[12];
    }
}

void ReadTimecode(const Box& file, MovieMap& map) {
    for (const Track& track : map.tracks) {
        if (track.handler != "tmcd" || track.extents.empty()) continue;
        const Bytes counter = file.Peek(track.extents[0].position, 4);
        if (counter.size() != 4) continue;
        map.timecode = TimecodeText(Int32(counter.data()), track.framesPerSecond, track.dropFrame);
        return;
    }
}

}  // namespace kxmap
