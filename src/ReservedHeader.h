/// @file
/// The policy of a recording whose header lies in front of the media data and is rewritten in place
/// while it runs.
#ifndef KX_MP4_RESERVEDHEADER_H
#define KX_MP4_RESERVEDHEADER_H

#include <cstdint>

#include "kx_mp4/kx_mp4.h"

class CMp4MdatAtom;
class CMp4MoovAtom;
class IBaseIO;

namespace kx_mp4 {

/// What a reserved header asks of the tracks, and when it is brought up to date. Off, it allows
/// everything and does nothing.
class ReservedHeader {
public:
    /// Off.
    ReservedHeader() = default;
    /// On; rewritten after more than this many video frames.
    explicit ReservedHeader(uint32_t framesBetweenUpdates)
        : m_safeWrite(true), m_safeWriteFrameNum(framesBetweenUpdates) {}

    /// Whether the header lies in front.
    bool IsOn() const { return m_safeWrite; }
    /// Counts frames from the beginning.
    void Restart() { m_videoFrameNum = m_lastWriteVideoFrameNum = 0; }

    /// Room is reserved for a known number of samples: refuses, and logs, a track without a nominal
    /// frame duration (#MP4_STATUS_INVALID_PARAMETER).
    mp4_status_t CheckDuration(uint64_t frameDuration, const char* function) const;
    /// The description is written at once: refuses, and logs, a track whose configuration is still
    /// to come from the stream (#MP4_STATUS_INVALID_PARAMETER). `kind` is "video" or "audio".
    mp4_status_t CheckConfiguration(bool complete, const char* kind, const char* function) const;
    /// Caption tracks have no reserved form (#MP4_STATUS_UNSUPPORTED, logged).
    mp4_status_t CheckCaptions(const char* function) const;

    /// Where the file ends before a video frame is written.
    uint64_t SizeBeforeFrame(IBaseIO& writer) const;
    /// A video frame was written: rewrites the header when its time has come and the frame's bytes
    /// have reached the file.
    void AfterVideoFrame(IBaseIO& writer, uint64_t sizeBefore, CMp4MoovAtom& moov,
                         CMp4MdatAtom& mdat);

private:
    bool m_safeWrite = false;
    uint32_t m_safeWriteFrameNum = 0;
    uint32_t m_videoFrameNum = 0;
    uint32_t m_lastWriteVideoFrameNum = 0;
};

}  // namespace kx_mp4

#endif  // KX_MP4_RESERVEDHEADER_H
