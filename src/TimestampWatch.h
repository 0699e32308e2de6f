/// @file
/// Watches the times of a recording's samples and tells the log about those that are probably not
/// what the application means. Nothing is changed by it.
#ifndef KX_MP4_TIMESTAMPWATCH_H
#define KX_MP4_TIMESTAMPWATCH_H

#include <cstdint>

namespace kx_mp4 {

/// Takes the time of every recorded sample of one recording. Constant in memory and time.
///
/// A decode time that goes back, or forward by more than an hour, starts a run, which ends with the
/// first step that does neither: a run is one warning, however long it is.
class TimestampWatch {
public:
    /// Whether a picture of this decode time would be decoded before the last one recorded.
    bool VideoGoesBack(int64_t dts) const { return m_video.started && dts < m_video.last; }
    /// Decode time of the last picture recorded.
    int64_t LastVideo() const { return m_video.last; }
    /// A picture was searched for parameter sets: video waits while other tracks may go on.
    void VideoWaits() { m_videoWaits = true; }

    // A sample was recorded; times in ticks of this timescale. Whether its decode time went back,
    // or forward by more than an hour.

    bool OnVideo(int64_t pts, int64_t dts, uint32_t timescale, bool compositionOffsets);
    bool OnAudio(int64_t time, uint32_t timescale);
    /// A timescale of 0 is 1000.
    bool OnCaption(int64_t time, uint32_t timescale);

private:
    /// What is remembered of a track.
    struct Track {
        bool started = false;    ///< Whether a sample was recorded.
        bool inRun = false;      ///< Whether the last step was an odd one.
        int64_t first = 0;       ///< Time of the first sample, ticks.
        int64_t last = 0;        ///< Time of the last sample, ticks.
        uint32_t timescale = 0;  ///< Ticks per second of the first sample's time.
    };

    static bool Take(Track& track, int64_t time, uint32_t timescale, const char* name,
                     const char* function);
    void CompareStarts(int64_t pts, uint32_t timescale) const;

    Track m_video;
    Track m_audio;
    Track m_caption;
    bool m_videoWaits = false;
    bool m_lostOffsetsLogged = false;
};

}  // namespace kx_mp4

#endif  // KX_MP4_TIMESTAMPWATCH_H
