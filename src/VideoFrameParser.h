/// @file
/// Splits an Annex-B access unit (ITU-T H.264 and H.265, Annex B) into its NAL units and tells
/// what they are.
#ifndef KX_MP4_VIDEOFRAMEPARSER_H
#define KX_MP4_VIDEOFRAMEPARSER_H

#include <cstdint>

#include "InlineArray.h"

/// One NAL unit inside the caller's buffer, from its header byte up to the next start code.
typedef struct _VIDEO_SLICE {
    int cbData;             ///< Bytes.
    const uint8_t* pbData;  ///< The NAL header; borrowed.
} VIDEO_SLICE;

/// NAL units in the order of the stream. A picture of 32 slices with what goes before it fits
/// inside.
typedef kx_mp4::InlineArray<VIDEO_SLICE, 48> VIDEO_SLICE_ARRAY;

/// The NAL units of the access unit that was parsed last. They are valid as long as the caller's
/// buffer is; nothing is copied, and usually nothing is allocated.
class CVideoFrameParser : public VIDEO_SLICE_ARRAY {
public:
    CVideoFrameParser() = default;
    virtual ~CVideoFrameParser() = default;

    /// Replaces the array with the NAL units of the frame; true when there is at least one.
    /// Bytes before the first start code are ignored; the zero byte of a four-byte start code does
    /// not belong to the unit before it; a start code that ends the frame is not taken for one.
    bool Parse(const uint8_t* pbFrame, int cbFrame);

    /// The same for units behind their lengths of 1, 2 or 4 bytes (ISO/IEC 14496-15, 5.3.2). False
    /// unless the lengths fill the frame exactly; empty units are left out.
    bool ParseLengths(const uint8_t* pbFrame, int cbFrame, uint32_t lengthSize);
};

/// Classifies NAL units by their header. `pbData` points at the header byte.
class IVideoNalParser {
public:
    IVideoNalParser() = default;
    virtual ~IVideoNalParser() = default;
    IVideoNalParser(const IVideoNalParser&) = delete;
    IVideoNalParser& operator=(const IVideoNalParser&) = delete;

    /// nal_unit_type.
    virtual uint8_t GetTag(const uint8_t* pbData, int cbData) = 0;
    /// Whether the unit belongs to the picture rather than describing the stream.
    virtual bool IsPayload(const uint8_t* pbData, int cbData) = 0;
    /// Whether the unit is a slice of an IDR picture.
    virtual bool IsKeyFrame(const uint8_t* pbData, int cbData) = 0;
    /// Whether the unit is a slice of any picture that decoding can start at.
    virtual bool IsRandomAccess(const uint8_t* pbData, int cbData) = 0;
};

/// ITU-T H.264, table 7-1.
class CH264Nal : public IVideoNalParser {
public:
    uint8_t GetTag(const uint8_t* pbData, int cbData) override;
    bool IsPayload(const uint8_t* pbData, int cbData) override;
    bool IsKeyFrame(const uint8_t* pbData, int cbData) override;
    bool IsRandomAccess(const uint8_t* pbData, int cbData) override;
};

/// ITU-T H.265, table 7-1.
class CHevcNal : public IVideoNalParser {
public:
    uint8_t GetTag(const uint8_t* pbData, int cbData) override;
    bool IsPayload(const uint8_t* pbData, int cbData) override;
    bool IsKeyFrame(const uint8_t* pbData, int cbData) override;
    bool IsRandomAccess(const uint8_t* pbData, int cbData) override;
};

#endif  // KX_MP4_VIDEOFRAMEPARSER_H
