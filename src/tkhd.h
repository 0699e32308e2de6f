#ifndef KX_MP4_TKHD_H
#define KX_MP4_TKHD_H

#include "DurationAtom.h"

/// Track Header Box, 'tkhd' - ISO/IEC 14496-12, 8.3.2 - inside 'trak' - leaf
///
/// | offset v0/v1 | bytes v0/v1 | field                                                   |
/// | 9 / 9        | 3           | flags: 3 enabled in movie; 2 timecode, not enabled      |
/// | 12 / 12      | 8 / 16      | creation, modification time: 0                          |
/// | 20 / 28      | 4, 4        | track ID, reserved                                      |
/// | 28 / 36      | 4 / 8       | duration, milliseconds                                  |
/// | 32 / 44      | 8           | reserved                                                |
/// | 40 / 52      | 2, 2        | layer 0, alternate group                                |
/// | 44 / 56      | 2, 2        | volume: 1.0 of a track without a width; reserved        |
/// | 48 / 60      | 36          | unity matrix                                            |
/// | 84 / 96      | 4, 4        | width, height, pixels in 16.16                          |
class CMp4TkhdAtom : public kx_mp4::DurationAtom<CMp4TkhdAtom> {
public:
    static constexpr const char* kSource = "src/tkhd";
    static constexpr const char* kNotWritten = "logic error";
    static constexpr int DurationOffset(bool wide) { return wide ? 36 : 28; }

    using DurationAtom::DurationAtom;

    void SetTrakId(int32_t id) { m_nTrakId = id; }
    /// Pixels.
    void SetResolution(int32_t nWidth, int32_t nHeight) {
        m_nWidth = nWidth;
        m_nHeight = nHeight;
    }
    /// Makes this the header of a timecode track.
    void SetUseTCFlag() { m_bTC = true; }
    /// Tracks of one group other than 0 are alternatives to each other.
    void SetAlternateGroup(int16_t nAlternate) { m_nAlternateGroup = nAlternate; }

    template <class Out>
    void Put(Out& out) const {
        constexpr uint32_t kEnabled = 1;
        constexpr uint32_t kInMovie = 2;
        constexpr uint16_t kFullVolume = 0x0100;  // 8.8
        const bool wide = Is64bit();
        kx_mp4::PutFullBoxHeader(out, "tkhd", wide ? 1 : 0, m_bTC ? kInMovie : kEnabled | kInMovie);
        kx_mp4::PutTime(out, wide, 0);
        kx_mp4::PutTime(out, wide, 0);
        out.WriteInt32(kx_mp4::Low32(m_nTrakId));
        out.WriteInt32(0);
        kx_mp4::PutTime(out, wide, WrittenDuration());
        out.WriteInt64(0);
        out.WriteInt16(0);
        out.WriteInt16(kx_mp4::Low16(m_nAlternateGroup));
        out.WriteInt16(m_nWidth != 0 ? 0 : kFullVolume);
        out.WriteInt16(0);
        kx_mp4::PutUnityMatrix(out);
        out.WriteInt32(kx_mp4::Fixed16_16(m_nWidth));
        out.WriteInt32(kx_mp4::Fixed16_16(m_nHeight));
    }

private:
    int32_t m_nTrakId = 0;
    int32_t m_nWidth = 0;
    int32_t m_nHeight = 0;
    int16_t m_nAlternateGroup = 0;
    bool m_bTC = false;
};

#endif  // KX_MP4_TKHD_H
