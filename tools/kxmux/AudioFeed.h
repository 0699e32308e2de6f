/// @file
/// An ADTS stream as the audio track.
#ifndef KXMUX_AUDIOFEED_H
#define KXMUX_AUDIOFEED_H

#include <string>

#include "AdtsCutter.h"
#include "ByteSource.h"
#include "TrackFeed.h"

namespace kxmux {

class AudioFeed final : public TrackFeed {
public:
    /// Opens the input and reads as far as the first frame. `deferred` leaves the configuration
    /// to the muxer, which takes it from the first frame. Throws RecordingError.
    AudioFeed(const std::string& path, bool deferred);

    mp4_status_t Declare(CMp4Muxer& muxer) override;
    MediaTime NextTime() const override;
    mp4_status_t Write(CMp4Muxer& muxer) override;

    MediaTime Duration() const { return NextTime(); }
    /// Sampling frequency and channels in words.
    std::string Describe() const;
    /// What the user should know about how the input was read; empty when there is nothing.
    std::string Note() const;

private:
    bool ReadFrame() override { return m_cutter.Next(m_frame); }

    FileSource m_source;
    AdtsCutter m_cutter;
    AdtsFrame m_frame;
    AdtsHeader m_header;
    bool m_deferred;
};

}  // namespace kxmux

#endif  // KXMUX_AUDIOFEED_H
