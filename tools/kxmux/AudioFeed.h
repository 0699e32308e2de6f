/// @file
/// An ADTS stream as the audio track.
#ifndef KXMUX_AUDIOFEED_H
#define KXMUX_AUDIOFEED_H

#include <string>

#include "AdtsCutter.h"
#include "TrackFeed.h"

namespace kxmux {

class AudioFeed final : public TrackFeed {
public:
    /// Borrows the input and reads as far as the first frame. `deferred` leaves the configuration
    /// to the muxer, which takes it from the first frame. Throws RecordingError, StreamError and
    /// Interrupted.
    AudioFeed(Input& input, bool deferred);

    mp4_status_t Declare(FrameSink& sink) override;
    mp4_status_t Write(FrameSink& sink) const override;

    MediaTime Duration() const { return OwnTime(); }
    /// Samples per second, which is the timescale.
    uint32_t SampleRate() const { return static_cast<uint32_t>(m_header.SampleRate()); }
    /// Sampling frequency and channels in words.
    std::string Describe() const;
    /// What the user should know about how the input was read; empty when there is nothing.
    std::string Note() const;

private:
    MediaTime OwnTime() const override;
    bool ReadFrame() override { return m_cutter.Next(m_frame); }

    AdtsCutter m_cutter;
    AdtsFrame m_frame;
    kx_mp4::AdtsHeader m_header;
    bool m_deferred;
};

}  // namespace kxmux

#endif  // KXMUX_AUDIOFEED_H
