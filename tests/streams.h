/// @file
/// Track descriptions, frames and whole recordings for the tests.
#ifndef KX_MP4_TESTS_STREAMS_H
#define KX_MP4_TESTS_STREAMS_H

#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kx_mp4/Mp4Muxer.h"
#include "movie_reader.h"

namespace streams {

/// A value that the enumeration does not have, as a careless caller may pass it.
template <class Enum>
Enum Forged(int value) {
    Enum forged;
    static_assert(sizeof forged == sizeof value);
    std::memcpy(&forged, &value, sizeof forged);
    return forged;
}

/// Parameter sets of an x265 stream of 64 x 64 pixels, Main profile.
extern const Bytes kHevcVps;
extern const Bytes kHevcSps;
extern const Bytes kHevcPps;
extern const Bytes kFurtherSps;  // of number 1, like all of these
extern const Bytes kFurtherPps;
extern const Bytes kFurtherHevcPps;

/// 90 kHz, 30 frames a second, with parameter sets.
mp4_video_track_info_t H264Track();
mp4_video_track_info_t HevcTrack();
mp4_video_track_info_t ProResTrack(mp4_prores_format format);
/// A track whose parameter sets are still to come.
mp4_video_track_info_t Deferred(mp4_video_track_info_t track);
/// Raw AAC LC, 48 kHz, mono.
mp4_audio_track_info_t AacTrack();
/// ADTS that takes its configuration from the stream.
mp4_audio_track_info_t AdtsTrack();
mp4_subtitle_track_info_t CaptionTrack(mp4_subtitle_codec codec);
/// 29.97 frames a second, drop frame.
mp4_time_code_track_info_t TimecodeTrack();

/// An access unit made of these NAL units, Annex-B form.
Bytes AccessUnit(const std::vector<Bytes>& units);
/// The same units each behind its length, as the file holds them with lengths of 4 bytes.
Bytes LengthPrefixed(const std::vector<Bytes>& units, int lengthSize = 4);
/// The units of the test pattern's picture; of HEVC and ProRes bytes of the right form only.
std::vector<Bytes> PictureUnits(uint32_t number, mp4_video_codec codec = MP4_MVC_H264);

/// What a recording of everything is made of.
struct Recipe {
    mp4_video_codec codec = MP4_MVC_H264;
    bool deferred = false;  ///< Parameter sets and AAC configuration come with the frames.
    uint32_t noise = 0;  ///< Not 0: pictures and sound of many sizes, which only this number has.
};
std::string Name(const Recipe& recipe);

/// A sample that a recording must hold, in the order of the media data.
struct Expected {
    std::string handler;  ///< Of its track: "vide", "soun", "clcp" or "tmcd".
    Bytes bytes;
    int64_t time = 0;  ///< In its track's ticks.
    bool sync = true;
};

/// A call of the muxer. What it refers to lives as long as the program.
struct Step {
    std::string name;
    std::function<mp4_status_t(CMp4Muxer&)> run;
    std::optional<Expected> sample = {};  ///< What it adds to the recording.
};

/// Declares all four tracks and metadata of every kind.
std::vector<Step> SetUpEverything(const mp4_video_track_info_t& video = H264Track(),
                                  const mp4_audio_track_info_t& audio = AacTrack(),
                                  mp4_subtitle_codec captions = MP4_SUBTITLE_CODEC_CC608);
std::vector<Step> SetUpEverything(const Recipe& recipe);
/// Writes this many pictures with sound, captions at every third, timecode at the first.
std::vector<Step> WriteEverything(uint32_t pictures, const Recipe& recipe = {});
/// Set-up and frames.
std::vector<Step> Everything(uint32_t pictures, const Recipe& recipe = {});
/// Every operation that answers with a status and needs a file, with arguments that are fine and
/// with null everything; "Flush" comes last.
std::vector<Step> EveryCall();
std::vector<Expected> ExpectEverything(uint32_t pictures, const Recipe& recipe = {});

mp4_config_t FileConfig(uint32_t flags);
mp4_config_t CallbackConfig(uint32_t flags, mp4_file_io_func_t* functions);

/// Runs steps as long as they succeed.
mp4_status_t Run(CMp4Muxer& muxer, const std::vector<Step>& steps);
/// Create, set-up, frames and Close, as long as they succeed.
mp4_status_t RecordEverything(const std::wstring& path, mp4_config_t config, uint32_t pictures);

/// Compares every track, sample by sample, with what was expected.
void ExpectHolds(const MovieReader& movie, const std::vector<Expected>& expected);

}  // namespace streams

#endif  // KX_MP4_TESTS_STREAMS_H
