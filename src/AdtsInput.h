/// @file
/// Audio frames that come behind an ADTS header, which the file does not keep.
#ifndef KX_MP4_ADTSINPUT_H
#define KX_MP4_ADTSINPUT_H

#include <cstdint>

#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// Takes the headers off one recording's frames.
class AdtsInput {
public:
    /// Sample rate, channels and profile of the track as the frame's header has them.
    /// @return #MP4_STATUS_INVALID_ADTS_STREAM, logged, for a frame without a header.
    static mp4_status_t Configure(const uint8_t* frame, uint32_t size,
                                  mp4_audio_track_info_t& track);

    /// Bytes in front of the frame that do not go into the file; 0 without a header. A buffer that
    /// is not one frame of one block is logged, once.
    uint32_t BytesToStrip(const uint8_t* frame, uint32_t size);

private:
    bool m_warned = false;
};

}  // namespace kx_mp4

#endif  // KX_MP4_ADTSINPUT_H
