/// @file
/// Recordings for the tests of the repair: lists of muxer calls with frames that are made up.
#ifndef KX_MP4_TESTS_REPAIR_SCENARIO_H
#define KX_MP4_TESTS_REPAIR_SCENARIO_H

#include <unistd.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kx_mp4/Mp4Muxer.h"
#include "movie_reader.h"
#include "scratch_folder.h"

namespace repair_scenario {

enum class CallKind { kLive, kSetUp, kFlush, kVideo, kAudio, kCaption, kTimecode };

/// One public call.
struct Call {
    std::function<mp4_status_t(CMp4Muxer&)> run;
    CallKind kind = CallKind::kSetUp;
    bool IsFrame() const { return kind > CallKind::kFlush; }
    /// For a frame that also configures its track: only the configuration, as a call.
    std::function<mp4_status_t(CMp4Muxer&)> configuration = nullptr;
};

struct Scenario {
    mp4_video_codec codec = MP4_MVC_H264;
    mp4_subtitle_codec captions = MP4_SUBTITLE_CODEC_CC608;
    bool deferred = false;      // parameter sets and ADTS configuration come with the frames
    bool declareTwice = false;  // every track
    bool offsets = false;       // composition offsets, and presentation times of their own
    bool soundOnly = false;
    bool presented = false;  // start times, shape and colour
    uint32_t liveMs = 0;     // interval of the live index; 0: none
    uint32_t pictures = 8;
    uint32_t smallestPicture = 40;
    uint32_t largestPicture = 300;
    uint32_t flushEvery = 0;  // pictures between two calls of Flush; 0: never
    uint32_t seed = 1;
};

/// Set-up, metadata and the frames of all four tracks.
std::vector<Call> CallsOf(const Scenario& scenario);

/// Runs all calls on a new recording, closes it and returns the finished file.
Bytes Finished(const std::string& path, uint32_t flags, const std::vector<Call>& calls);
/// What the first `count` calls make, closed; also when none of them is a frame. With
/// `stopHalfway`, of the last of them only the configuration. Quick: no file is touched.
Bytes FinishedInMemory(const std::string& path, uint32_t flags, const std::vector<Call>& calls,
                       size_t count, bool stopHalfway = false);
/// Runs all calls and leaves the recording as a crash would, its repair info file beside it.
void CutOff(const std::string& path, uint32_t flags, const std::vector<Call>& calls);

/// The finished file with bytes of media data before its index that no sample holds.
Bytes WithUnexplained(const Bytes& finished, const Bytes& more);
/// The bytes by which `file`'s media data is longer than that of `finished`.
Bytes UnexplainedIn(const Bytes& file, const Bytes& finished);

/// Opens a recording with the repair info file on.
mp4_status_t Open(CMp4Muxer& muxer, const std::string& path, uint32_t flags);

/// In memory where there is such a folder: these tests write many thousand files.
struct Folder : ScratchFolder {
    Folder() : ScratchFolder(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") {}
};

}  // namespace repair_scenario

#endif  // KX_MP4_TESTS_REPAIR_SCENARIO_H
