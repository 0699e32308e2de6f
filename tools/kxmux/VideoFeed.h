/// @file
/// Video inputs: a raw stream of H.264, HEVC or ProRes becomes the video track.
#ifndef KXMUX_VIDEOFEED_H
#define KXMUX_VIDEOFEED_H

#include <memory>
#include <optional>
#include <string>

#include "FrameRate.h"
#include "FrameTicks.h"
#include "TrackFeed.h"

namespace kxmux {

struct PictureSize {
    uint16_t width = 0;
    uint16_t height = 0;
};

/// What the user says about the video.
struct VideoOptions {
    std::string path;
    mp4_video_codec codec = MP4_MVC_UNKNOWN;
    std::optional<FrameRate> rate;    ///< Else the stream's own.
    std::optional<PictureSize> size;  ///< Else the stream's own.
    /// Declare the track without parameter sets, so that the muxer finds them in the stream.
    bool deferred = false;
    bool compositionOffsets = true;
    /// Another file begins where the stream's description changes.
    bool splits = false;
    /// The flavour of ProRes, which its frames do not tell; else 422 or 4444 by their chroma
    /// format.
    std::optional<mp4_prores_format> proResFormat;
};

class VideoFeed : public TrackFeed {
public:
    /// Borrows the input and reads as far as the first frame. Throws RecordingError, StreamError
    /// and Interrupted.
    static std::unique_ptr<VideoFeed> Open(const VideoOptions& options, Input& input);

    MediaTime Duration() const { return OwnTime(); }
    /// How much later than it is decoded the first picture is shown, in ticks.
    virtual uint64_t ReorderDelay() const { return 0; }
    const FrameRate& Rate() const { return m_rate; }
    uint32_t Timescale() const { return m_ticks.timescale; }
    /// Codec, size and frame rate in words.
    std::string Describe() const;
    /// What the user should know about how the input was read; empty when there is nothing.
    virtual std::string Note() const { return {}; }

protected:
    explicit VideoFeed(const VideoOptions& options) : TrackFeed(options.path), m_options(options) {}

    const VideoOptions& Options() const { return m_options; }
    uint32_t TicksPerFrame() const { return m_ticks.perFrame; }
    MediaTime OwnTime() const override { return {Frames() * m_ticks.perFrame, m_ticks.timescale}; }
    /// Sets the rate, the user's before the one that the stream tells.
    void SetRate(const std::optional<FrameRate>& streamRate);
    /// Tells when the stream's picture size is another than before, once.
    void NoteSize(uint64_t frame, uint32_t width, uint32_t height);
    /// Sets the size, the user's before the stream's, and refuses one that no track can have.
    void SetSize(uint32_t width, uint32_t height);
    /// The description without its parameter sets.
    mp4_video_track_info_t BaseInfo() const;

private:
    VideoOptions m_options;
    FrameRate m_rate;
    FrameTicks m_ticks;
    PictureSize m_size;
    uint32_t m_streamWidth = 0;
    uint32_t m_streamHeight = 0;
    bool m_sizeChanged = false;
};

}  // namespace kxmux

#endif  // KXMUX_VIDEOFEED_H
