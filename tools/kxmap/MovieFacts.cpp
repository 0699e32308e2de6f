#include "MovieFacts.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "MapDrawing.h"

namespace kxmap {
namespace {

using Json = nlohmann::ordered_json;

template <class... Values>
std::string Format(const char* format, Values... values) {
    std::array<char, 256> text{};
    const int size = std::snprintf(text.data(), text.size(), format, values...);
    return {text.data(), size < 0 ? 0 : std::min(static_cast<size_t>(size), text.size() - 1)};
}

double BitsPerSecond(const Track& track) {
    return track.seconds > 0 ? static_cast<double>(track.bytes) * 8 / track.seconds : 0;
}

std::string TrackAsText(const Track& track) {
    std::string text = Format("track %u: ", track.id) + PrintableText(track.handler + " ") +
                       PrintableText(FormatText(track)) + "\n";
    text += Format("  %llu samples in %llu chunks, %llu bytes, %.0f bit/s\n",
                   static_cast<unsigned long long>(track.samples),
                   static_cast<unsigned long long>(track.chunks),
                   static_cast<unsigned long long>(track.bytes), BitsPerSecond(track));
    text += Format("  durations: tkhd %.6f s, mdhd %.6f s (%u ticks a second), samples %.6f s\n",
                   track.headerSeconds, track.mediaSeconds, track.timescale, track.seconds);
    for (const Edit& edit : track.edits) {
        text += edit.mediaTime < 0 ? Format("  edit: empty for %.6f s\n", edit.seconds)
                                   : Format("  edit: %.6f s from media time %lld on\n",
                                            edit.seconds, static_cast<long long>(edit.mediaTime));
    }
    if (!track.EverySampleIsSync()) {
        text += Format("  %llu sync samples, every %llu to %llu samples\n",
                       static_cast<unsigned long long>(track.syncSamples),
                       static_cast<unsigned long long>(track.smallestSyncDistance),
                       static_cast<unsigned long long>(track.largestSyncDistance));
    }
    return text;
}

Json TrackAsJson(const Track& track) {
    Json json = {{"id", track.id},
                 {"handler", track.handler},
                 {"codec", track.codec},
                 {"width", track.width},
                 {"height", track.height},
                 {"sample_rate", track.sampleRate},
                 {"channels", track.channels},
                 {"samples", track.samples},
                 {"chunks", track.chunks},
                 {"bytes", track.bytes},
                 {"bits_per_second", BitsPerSecond(track)},
                 {"timescale", track.timescale},
                 {"duration_tkhd", track.headerSeconds},
                 {"duration_mdhd", track.mediaSeconds},
                 {"duration_samples", track.seconds},
                 {"edits", Json::array()},
                 {"sync_samples", track.syncSamples},
                 {"sync_distance_min", track.smallestSyncDistance},
                 {"sync_distance_max", track.largestSyncDistance}};
    for (const Edit& edit : track.edits)
        json["edits"].push_back({{"seconds", edit.seconds}, {"media_time", edit.mediaTime}});
    return json;
}

}  // namespace

std::string FormatText(const Track& track) {
    std::string text = track.codec;
    if (track.width != 0) text += Format(", %u x %u", track.width, track.height);
    if (track.sampleRate != 0)
        text += Format(", %u Hz, %u channels", track.sampleRate, track.channels);
    return text;
}

std::string FactsAsText(const MovieMap& map) {
    std::string text = PrintableText(map.name) + ": " + SizeText(map.fileSize) + ", brands " +
                       PrintableText(map.brand);
    for (const std::string& brand : map.compatibleBrands)
        text += " " + PrintableText(brand);
    text += Format("\n  movie: %.6f s by mvhd", map.movieSeconds);
    if (map.fragments != 0)
        text += Format(", %llu fragments", static_cast<unsigned long long>(map.fragments));
    if (!map.timecode.empty()) text += ", from timecode " + map.timecode;
    text += "\n";
    if (map.tracks.size() > 1)
        text += Format("  tracks lie up to %.3f s apart in the file\n", map.interleaving);
    for (const Track& track : map.tracks)
        text += TrackAsText(track);
    for (const auto& [key, value] : map.metadata)
        text += "metadata " + PrintableText(key) + ": " + PrintableText(value) + "\n";
    for (const std::string& remark : map.remarks)
        text += "remark: " + PrintableText(remark) + "\n";
    return text;
}

std::string FactsAsJson(const MovieMap& map) {
    Json json = {{"file", map.name},
                 {"bytes", map.fileSize},
                 {"brand", map.brand},
                 {"compatible_brands", map.compatibleBrands},
                 {"duration_mvhd", map.movieSeconds},
                 {"fragments", map.fragments},
                 {"timecode", map.timecode},
                 {"interleaving_seconds", map.interleaving},
                 {"tracks", Json::array()},
                 {"metadata", Json::array()},
                 {"remarks", map.remarks}};
    for (const Track& track : map.tracks)
        json["tracks"].push_back(TrackAsJson(track));
    for (const auto& [key, value] : map.metadata)
        json["metadata"].push_back({{"key", key}, {"value", value}});
    constexpr int kIndent = 2;
    return json.dump(kIndent, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace kxmap
