#include "TimestampWatch.h"

#include "Log.h"
#include "Rescale.h"

namespace kx_mp4 {

namespace {

constexpr const char* kSource = "src/TimestampWatch";
constexpr uint32_t kDefaultTimeScale = 1000;
constexpr uint32_t kMillisecondsPerSecond = 1000;

/// How far `later` lies behind `earlier`; exact for any two numbers in this order.
uint64_t Distance(int64_t earlier, int64_t later) {
    return static_cast<uint64_t>(later) - static_cast<uint64_t>(earlier);
}

}  // namespace

bool TimestampWatch::Take(Track& track, int64_t time, uint32_t timescale, const char* name,
                          const char* function) {
    constexpr uint64_t kSecondsPerHour = 3600;
    const int64_t last = track.last;
    track.last = time;
    if (!track.started) {
        track.started = true;
        track.first = time;
        track.timescale = timescale;
        return false;
    }
    const bool back = time < last;
    const bool jump = !back && Distance(last, time) > kSecondsPerHour * timescale;
    const bool known = track.inRun;
    track.inRun = back || jump;
    if (!track.inRun || known) return track.inRun;
    if (back)
        LogWarn("%s decode time goes back from %lld to %lld", kSource, __LINE__, function, name,
                static_cast<long long>(last), static_cast<long long>(time));
    else
        LogWarn("%s decode time jumps from %lld to %lld, by more than an hour", kSource, __LINE__,
                function, name, static_cast<long long>(last), static_cast<long long>(time));
    return true;
}

bool TimestampWatch::OnVideo(int64_t pts, int64_t dts, uint32_t timescale,
                             bool compositionOffsets) {
    if (!m_video.started && m_videoWaits) CompareStarts(pts, timescale);
    const bool odd = Take(m_video, dts, timescale, "video", "WriteVideoFrame");
    if (compositionOffsets || pts == dts || m_lostOffsetsLogged) return odd;
    m_lostOffsetsLogged = true;
    LogWarn(
        "presentation time %lld differs from decode time %lld, but only decode times are recorded: "
        "call SetCompositionOffsets before the first frame",
        kSource, __LINE__, "WriteVideoFrame", static_cast<long long>(pts),
        static_cast<long long>(dts));
    return odd;
}

bool TimestampWatch::OnAudio(int64_t time, uint32_t timescale) {
    return Take(m_audio, time, timescale, "audio", "WriteAudioFrame");
}

bool TimestampWatch::OnCaption(int64_t time, uint32_t timescale) {
    return Take(m_caption, time, timescale == 0 ? kDefaultTimeScale : timescale, "caption",
                "WriteSubtitleFrame");
}

/// Tracks start together in the file, whatever their first times are.
void TimestampWatch::CompareStarts(int64_t pts, uint32_t timescale) const {
    const Track& other = m_audio.started ? m_audio : m_caption;
    if (!other.started) return;
    const int64_t picture = Rescale(pts, kMillisecondsPerSecond, timescale);
    const int64_t start = Rescale(other.first, kMillisecondsPerSecond, other.timescale);
    if (picture == start) return;
    const uint64_t apart = picture > start ? Distance(start, picture) : Distance(picture, start);
    LogWarn(
        "video waited for its parameter sets: the first picture is at %lld ms, the first %s sample "
        "at %lld ms, %llu ms apart",
        kSource, __LINE__, "WriteVideoFrame", static_cast<long long>(picture),
        m_audio.started ? "audio" : "caption", static_cast<long long>(start),
        static_cast<unsigned long long>(apart));
}

}  // namespace kx_mp4
