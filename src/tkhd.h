#ifndef KX_MP4_TKHD_H
#define KX_MP4_TKHD_H

#include "DurationAtom.h"
#include "FileForm.h"
#include "Rescale.h"

/// Track Header Box, 'tkhd' - ISO/IEC 14496-12, 8.3.2 - inside 'trak' - leaf
///
/// | offset v0/v1 | bytes v0/v1 | field                                                   |
/// | 9 / 9        | 3           | flags: 3 enabled in movie; 2 timecode, not enabled      |
/// | 12 / 12      | 8 / 16      | creation, modification time: 0                          |
/// | 20 / 28      | 4, 4        | track ID, reserved                                      |
/// | 28 / 36      | 4 / 8       | duration, ticks of the movie                            |
/// | 32 / 44      | 8           | reserved                                                |
/// | 40 / 52      | 2, 2        | layer 0, alternate group                                |
/// | 44 / 56      | 2, 2        | volume: 1.0 of a track without a width, but not of      |
/// |              |             | timecode in the strict forms; reserved                  |
/// | 48 / 60      | 36          | matrix: unity, or a turn                                |
/// | 84 / 96      | 4, 4        | width as it is shown, height, pixels in 16.16           |
class CMp4TkhdAtom : public kx_mp4::DurationAtom<CMp4TkhdAtom> {
public:
    static constexpr const char* kSource = "src/tkhd";
    static constexpr const char* kNotWritten = "logic error";

    /// What varies.
    struct Values {
        int32_t trackId = 0;
        int32_t width = 0;
        int32_t height = 0;
        uint32_t pixelWidth = 1;  // in relation to the height
        uint32_t pixelHeight = 1;
        uint32_t rotation = 0;  // degrees clockwise
        int16_t alternateGroup = 0;
        bool timecode = false;
        kx_mp4::FileForm form = kx_mp4::FileForm::kUsual;
    };

    using DurationAtom::DurationAtom;

    void SetTrakId(int32_t id) { m_values.trackId = id; }
    /// Pixels.
    void SetResolution(int32_t nWidth, int32_t nHeight) {
        m_values.width = nWidth;
        m_values.height = nHeight;
    }
    /// Width to height of a pixel; 0, 0 when it is not known. Degrees clockwise by which the
    /// picture is to be turned.
    void SetShape(uint32_t pixelWidth, uint32_t pixelHeight, uint32_t rotation) {
        m_values.pixelWidth = pixelHeight != 0 ? pixelWidth : 1;
        m_values.pixelHeight = pixelHeight != 0 ? pixelHeight : 1;
        m_values.rotation = rotation;
    }
    void SetForm(kx_mp4::FileForm form) { m_values.form = form; }
    /// Makes this the header of a timecode track.
    void SetUseTCFlag() { m_values.timecode = true; }
    /// Tracks of one group other than 0 are alternatives to each other.
    void SetAlternateGroup(int16_t nAlternate) { m_values.alternateGroup = nAlternate; }

    template <class Out>
    static constexpr void PutHead(Out& out, bool wide, const Values& values) {
        constexpr uint32_t kEnabled = 1;
        constexpr uint32_t kInMovie = 2;
        kx_mp4::PutFullBoxHeader(out, "tkhd", wide ? 1 : 0,
                                 values.timecode ? kInMovie : kEnabled | kInMovie);
        kx_mp4::PutTime(out, wide, 0);
        kx_mp4::PutTime(out, wide, 0);
        out.WriteInt32(kx_mp4::Low32(values.trackId));
        out.WriteInt32(0);
    }
    template <class Out>
    static constexpr void PutTail(Out& out, bool, const Values& values) {
        constexpr uint16_t kFullVolume = 0x0100;  // 8.8
        out.WriteInt64(0);
        out.WriteInt16(0);
        out.WriteInt16(kx_mp4::Low16(values.alternateGroup));
        const bool silent =
            values.width != 0 || (values.timecode && values.form != kx_mp4::FileForm::kUsual);
        out.WriteInt16(silent ? 0 : kFullVolume);
        out.WriteInt16(0);
        const uint32_t width = kx_mp4::Low32(kx_mp4::Rescale(
            kx_mp4::Fixed16_16(values.width), values.pixelWidth, values.pixelHeight));
        const uint32_t height = kx_mp4::Fixed16_16(values.height);
        switch (values.rotation) {
            case 90:
                kx_mp4::PutMatrix(out, 0, 1, -1, 0, height, 0);
                break;
            case 180:
                kx_mp4::PutMatrix(out, -1, 0, 0, -1, width, height);
                break;
            case 270:
                kx_mp4::PutMatrix(out, 0, -1, 1, 0, 0, width);
                break;
            default:
                kx_mp4::PutUnityMatrix(out);
        }
        out.WriteInt32(width);
        out.WriteInt32(height);
    }

private:
    friend DurationAtom;

    Values m_values;
};
static_assert(kx_mp4::SizeOf<CMp4TkhdAtom>(false, 0, CMp4TkhdAtom::Values{}) == 92 &&
              kx_mp4::SizeOf<CMp4TkhdAtom>(true, 0, CMp4TkhdAtom::Values{}) == 104);

#endif  // KX_MP4_TKHD_H
