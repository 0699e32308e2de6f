#include "streams.h"

#include <gtest/gtest.h>

#include <random>

#include "test_pattern.h"

namespace streams {

const Bytes kHevcVps = Hex("40010c01ffff01600000030090000003000003001e928090");
const Bytes kHevcSps =
    Hex("42010101600000030090000003000003001ea0208105964a924caf016808000003000800000300c840");
const Bytes kHevcPps = Hex("4401c172b42240");
const Bytes kFurtherSps = Hex("6742c00a56842640");
const Bytes kFurtherPps = Hex("6848e3c8");
const Bytes kFurtherHevcPps = Hex("4401505cad0890");

namespace {

constexpr uint32_t kPictureTicks = 3000;
constexpr uint32_t kAacTicks = 1024;
constexpr uint32_t kCaptionTicks = 100;  // of 1000: 0.1 s from picture 0 to picture 3
constexpr int kTimecode = 107892;        // 01:00:00;00
const Bytes kCaption = Hex("6102 02 fc942c fd8080");
const Bytes kCaptionSample = Hex("0000000a 63646174 942c 0000000a 63647432 8080");

int16_t SizeOf(const Bytes& set) {
    return static_cast<int16_t>(set.size());
}

/// Bytes of a random number that look neither like a start code nor like an end.
Bytes Noise(uint32_t seed, uint32_t smallest, uint32_t largest) {
    std::mt19937 random(seed);
    Bytes bytes(smallest + random() % (largest - smallest));
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(1 + random() % 255);
    bytes.back() |= 7;  // ends a raw data block of AAC
    return bytes;
}

mp4_video_track_info_t VideoTrack(mp4_video_codec codec) {
    mp4_video_track_info_t track{};
    track.timescale = 90000;
    track.frame_duration = kPictureTicks;
    track.codec = codec;
    track.width = test_pattern::kWidth;
    track.height = test_pattern::kHeight;
    return track;
}

}  // namespace

mp4_video_track_info_t H264Track() {
    using test_pattern::kPps;
    using test_pattern::kSps;
    mp4_video_track_info_t track = VideoTrack(MP4_MVC_H264);
    track.h264 = {kSps.data(), SizeOf(kSps), kPps.data(), SizeOf(kPps)};
    return track;
}

mp4_video_track_info_t HevcTrack() {
    mp4_video_track_info_t track = VideoTrack(MP4_MVC_HEVC);
    track.hevc = {kHevcSps.data(),  SizeOf(kHevcSps), kHevcPps.data(),
                  SizeOf(kHevcPps), kHevcVps.data(),  SizeOf(kHevcVps)};
    return track;
}

mp4_video_track_info_t ProResTrack(mp4_prores_format format) {
    mp4_video_track_info_t track = VideoTrack(MP4_MVC_PRORES);
    track.prores.format = format;
    return track;
}

mp4_video_track_info_t Deferred(mp4_video_track_info_t track) {
    track.hevc = {};
    return track;
}

mp4_audio_track_info_t AacTrack() {
    return {48000, kAacTicks, MP4_MAC_AAC, 48000, 1, 2};
}

mp4_audio_track_info_t AdtsTrack() {
    return {48000, kAacTicks, MP4_MAC_ADTS, 0, 0, 0};
}

mp4_subtitle_track_info_t CaptionTrack(mp4_subtitle_codec codec) {
    return {codec, 1000};
}

mp4_time_code_track_info_t TimecodeTrack() {
    return {30000, 1001, 30, 1};
}

Bytes AccessUnit(const std::vector<Bytes>& units) {
    Bytes stream;
    for (const Bytes& unit : units)
        test_pattern::AppendUnit(stream, unit);
    return stream;
}

Bytes LengthPrefixed(const std::vector<Bytes>& units, int lengthSize) {
    Bytes sample;
    for (const Bytes& unit : units) {
        for (int shift = 8 * (lengthSize - 1); shift >= 0; shift -= 8)
            sample.push_back(static_cast<uint8_t>(unit.size() >> shift));
        sample = std::move(sample) + unit;
    }
    return sample;
}

std::vector<Bytes> PictureUnits(uint32_t number, mp4_video_codec codec) {
    using namespace test_pattern;
    const uint32_t inGroup = number % kKeyFrameDistance;
    const auto low = static_cast<uint8_t>(number);
    if (codec == MP4_MVC_PRORES) return {{0x69, 0x63, 0x70, 0x66, low}};
    if (codec == MP4_MVC_HEVC) {
        if (inGroup != 0) return {{0x02, 0x01, 0xD0, low}};
        return {kHevcVps, kHevcSps, kHevcPps, {0x26, 0x01, 0xAF, low}};
    }
    if (inGroup != 0) return {RepeatSlice(inGroup)};
    const uint32_t group = number / kKeyFrameDistance;
    return {kSps, kPps, KeySlice(group, static_cast<uint8_t>(16 + group * 40 % 220))};
}

std::string Name(const Recipe& recipe) {
    static constexpr const char* kNames[] = {"H.264", "HEVC", "ProRes"};
    return std::string(kNames[recipe.codec]) + (recipe.deferred ? " deferred" : "");
}

std::vector<Step> SetUpEverything(const Recipe& recipe) {
    const mp4_video_track_info_t tracks[] = {H264Track(), HevcTrack(), ProResTrack(MP4_PRORES_422)};
    const mp4_video_track_info_t& video = tracks[recipe.codec];
    const bool deferred = recipe.deferred && recipe.codec != MP4_MVC_PRORES;
    return SetUpEverything(deferred ? Deferred(video) : video,
                           recipe.deferred ? AdtsTrack() : AacTrack());
}

std::vector<Step> SetUpEverything(const mp4_video_track_info_t& video,
                                  const mp4_audio_track_info_t& audio,
                                  mp4_subtitle_codec captions) {
    static const char kStars[] = {5, 0, 0, 0};
    const auto metadata = [](const char* key, const char* value, uint32_t size,
                             mp4_meta_data_type type, const char* space) {
        return Step{std::string("SetMetadata ") + key, [=](CMp4Muxer& muxer) {
                        return muxer.SetMetadata(key, value, size, type, space);
                    }};
    };
    return {{"SetVideoTrack", [video](CMp4Muxer& m) { return m.SetVideoTrack(&video); }},
            {"SetAudioTrack", [audio](CMp4Muxer& m) { return m.SetAudioTrack(&audio); }},
            {"SetSubtitleTrack",
             [track = CaptionTrack(captions)](CMp4Muxer& m) { return m.SetSubtitleTrack(&track); }},
            {"SetTCMDTrack",
             [track = TimecodeTrack()](CMp4Muxer& m) { return m.SetTCMDTrack(&track); }},
            metadata("title", "Test", 0, MP4_META_DATA_TYPE_STRING, nullptr),
            metadata("org.example.stars", kStars, sizeof kStars, MP4_META_DATA_TYPE_INT, "mdta"),
            metadata("org.example.raw", "\0\1\2", 3, MP4_META_DATA_TYPE_RAW, nullptr)};
}

std::vector<Step> WriteEverything(uint32_t pictures, const Recipe& recipe) {
    std::vector<Step> steps;
    const bool prores = recipe.codec == MP4_MVC_PRORES;
    for (uint32_t i = 0; i < pictures; ++i) {
        const std::string number = std::to_string(i);
        const auto time = [i](uint32_t ticks) { return int64_t{i} * ticks; };
        auto units = PictureUnits(i, recipe.codec);
        Bytes sound = test_pattern::kSilence;
        if (recipe.noise != 0) {
            const uint32_t largest = units.size() > 1 ? 9000 : 2500;
            units.back() = units.back() + Noise(recipe.noise * 7919 + i, 200, largest);
            sound = Bytes{0x21} + Noise(recipe.noise * 104729 + i, 80, 400);
        }
        steps.push_back(
            {"WriteVideoFrame " + number,
             [frame = prores ? units[0] : AccessUnit(units), i](CMp4Muxer& m) {
                 const uint64_t at = uint64_t{i} * kPictureTicks;
                 return m.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()), at,
                                          at);
             },
             Expected{"vide", prores ? units[0] : LengthPrefixed(units), time(kPictureTicks),
                      prores || i % test_pattern::kKeyFrameDistance == 0}});
        steps.push_back(
            {"WriteAudioFrame " + number,
             [i, frame = recipe.deferred ? test_pattern::AdtsSilence() : sound](CMp4Muxer& m) {
                 return m.WriteAudioFrame(frame.data(), static_cast<uint32_t>(frame.size()),
                                          uint64_t{i} * kAacTicks);
             },
             Expected{"soun", sound, time(kAacTicks), true}});
        if (i == 0)
            steps.push_back({"WriteTimeCode",
                             [](CMp4Muxer& m) { return m.WriteTimeCode(kTimecode); },
                             Expected{"tmcd", Hex("0001a574"), 0, true}});
        if (i % 3 == 0)
            steps.push_back({"WriteSubtitleFrame " + number,
                             [i](CMp4Muxer& m) {
                                 return m.WriteSubtitleFrame(kCaption.data(), 9,
                                                             uint64_t{i} / 3 * kCaptionTicks);
                             },
                             Expected{"clcp", kCaptionSample, time(kCaptionTicks) / 3, true}});
    }
    return steps;
}

std::vector<Step> Everything(uint32_t pictures, const Recipe& recipe) {
    auto steps = SetUpEverything(recipe);
    for (Step& step : WriteEverything(pictures, recipe))
        steps.push_back(std::move(step));
    return steps;
}

std::vector<Step> EveryCall() {
    using Muxer = CMp4Muxer;
    auto steps = Everything(1);
    for (Step& step : std::vector<Step>{
             {"SetVideoTrack null", [](Muxer& m) { return m.SetVideoTrack(nullptr); }},
             {"SetAudioTrack null", [](Muxer& m) { return m.SetAudioTrack(nullptr); }},
             {"SetSubtitleTrack null", [](Muxer& m) { return m.SetSubtitleTrack(nullptr); }},
             {"SetTCMDTrack null", [](Muxer& m) { return m.SetTCMDTrack(nullptr); }},
             {"SetMetadata null",
              [](Muxer& m) {
                  return m.SetMetadata(nullptr, nullptr, 0, MP4_META_DATA_TYPE_RAW, nullptr);
              }},
             {"SetLiveIndex", [](Muxer& m) { return m.SetLiveIndex(1000); }},
             {"SetCompositionOffsets", [](Muxer& m) { return m.SetCompositionOffsets(true); }},
             {"WriteVideoFrame null", [](Muxer& m) { return m.WriteVideoFrame(nullptr, 0, 0, 0); }},
             {"WriteSubtitleFrame null",
              [](Muxer& m) { return m.WriteSubtitleFrame(nullptr, 0, 0); }},
             {"Flush", [](Muxer& m) { return m.Flush(); }}})
        steps.push_back(std::move(step));
    return steps;
}

std::vector<Expected> ExpectEverything(uint32_t pictures, const Recipe& recipe) {
    std::vector<Expected> samples;
    for (const Step& step : WriteEverything(pictures, recipe))
        samples.push_back(*step.sample);
    return samples;
}

mp4_config_t FileConfig(uint32_t flags) {
    mp4_config_t config{};
    config.flags = flags;
    config.io_mode = MP4_IO_FILE;
    return config;
}

mp4_config_t CallbackConfig(uint32_t flags, mp4_file_io_func_t* functions) {
    mp4_config_t config = FileConfig(flags);
    config.io_mode = MP4_IO_EXTERNAL;
    config.func = functions;
    return config;
}

mp4_status_t Run(CMp4Muxer& muxer, const std::vector<Step>& steps) {
    for (const Step& step : steps) {
        const mp4_status_t status = step.run(muxer);
        if (status != MP4_STATUS_SUCCESS) return status;
    }
    return MP4_STATUS_SUCCESS;
}

mp4_status_t RecordEverything(const std::wstring& path, mp4_config_t config, uint32_t pictures) {
    CMp4Muxer muxer;
    const mp4_status_t created = muxer.Create(path.c_str(), &config);
    if (created != MP4_STATUS_SUCCESS) return created;
    mp4_status_t status = Run(muxer, SetUpEverything());
    if (status == MP4_STATUS_SUCCESS) status = Run(muxer, WriteEverything(pictures));
    const mp4_status_t closed = muxer.Close();
    return status == MP4_STATUS_SUCCESS ? closed : status;
}

void ExpectHolds(const MovieReader& movie, const std::vector<Expected>& expected) {
    size_t indexed = 0;
    for (const Track& track : movie.Tracks()) {
        size_t next = 0;
        int64_t first = 0;
        for (const Expected& sample : expected) {
            if (sample.handler != track.handler) continue;
            ASSERT_LT(next, track.samples.size()) << track.handler;
            const Sample& found = track.samples[next];
            if (next++ == 0) first = sample.time;
            EXPECT_EQ(movie.SampleBytes(found), sample.bytes) << track.handler << " " << next;
            EXPECT_EQ(found.dts, sample.time - first) << track.handler << " " << next;
            EXPECT_EQ(found.sync, sample.sync) << track.handler << " " << next;
        }
        EXPECT_EQ(next, track.samples.size()) << track.handler;
        indexed += next;
    }
    EXPECT_EQ(indexed, expected.size());
}

}  // namespace streams
