/// @file
/// A raw stream of ProRes frames as the video track.
#ifndef KXMUX_PRORESFEED_H
#define KXMUX_PRORESFEED_H

#include "ProResCutter.h"
#include "VideoFeed.h"

namespace kxmux {

class ProResFeed final : public VideoFeed {
public:
    ProResFeed(const VideoOptions& options, Input& input);

    mp4_status_t Declare(FrameSink& sink) override;
    mp4_status_t Write(FrameSink& sink) const override;

private:
    bool ReadFrame() override;

    ProResCutter m_cutter;
    ProResFrame m_frame;
    mp4_prores_format m_format = MP4_PRORES_422;
};

}  // namespace kxmux

#endif  // KXMUX_PRORESFEED_H
