/// @file
/// A caption file as the CEA-608 caption track.
#ifndef KXMUX_CAPTIONFEED_H
#define KXMUX_CAPTIONFEED_H

#include <string>
#include <vector>

#include "Scc.h"
#include "TrackFeed.h"

namespace kxmux {

class CaptionFeed final : public TrackFeed {
public:
    /// Reads all of the input. `timescale` is the track's, in ticks per second. Throws
    /// RecordingError, StreamError and Interrupted.
    CaptionFeed(Input& input, uint32_t timescale);

    mp4_status_t Declare(FrameSink& sink) override;
    mp4_status_t Write(FrameSink& sink) const override;

    uint32_t Timescale() const { return m_timescale; }
    /// Packets that were not written.
    uint64_t Left() const { return m_packets.size() - Frames(); }

private:
    MediaTime OwnTime() const override { return {Next().timestamp, m_timescale}; }
    bool ReadFrame() override { return Frames() < m_packets.size(); }
    const CaptionPacket& Next() const { return m_packets[static_cast<size_t>(Frames())]; }

    uint32_t m_timescale;
    std::vector<CaptionPacket> m_packets;
};

}  // namespace kxmux

#endif  // KXMUX_CAPTIONFEED_H
