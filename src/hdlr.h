#ifndef KX_MP4_HDLR_H
#define KX_MP4_HDLR_H

#include <cstddef>

#include "Atom.h"

/// Handler Reference Box, 'hdlr' - ISO/IEC 14496-12, 8.4.3, in the older QuickTime form, which
/// both kinds of file carry - inside 'mdia' and 'minf' - leaf
///
/// | offset | bytes | field                                                    |
/// | 12     | 4     | component type: "mhlr" media handler, "dhlr" data handler |
/// | 16     | 4     | component subtype: the kind of media                     |
/// | 20     | 12    | manufacturer, flags, flags mask: 0                       |
/// | 32     | 1 + n | name as a counted string                                 |
class CMp4HdlrAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    /// Accepted for the sake of a uniform media box; the bytes do not depend on it.
    void SetUse64bitTime() { m_b64bitTime = true; }

    void Write() override;
    /// Without the part that a variant adds: length byte, name and 8 bytes.
    uint32_t GetSize() override { return 24; }

protected:
    /// Writes component type and subtype.
    virtual void WriteHandlerType() = 0;
    /// Writes the name.
    virtual void WriteHandlerDesc() = 0;

private:
    bool m_b64bitTime = false;
};

namespace kx_mp4 {

/// A handler of constant type and name, both taken from `Kind`.
template <class Kind>
class KindHdlrAtom : public CMp4HdlrAtom {
public:
    using CMp4HdlrAtom::CMp4HdlrAtom;

    uint32_t GetSize() override {
        constexpr uint32_t kTypeAndLengthByte = 9;
        return CMp4HdlrAtom::GetSize() + kTypeAndLengthByte + kNameLength;
    }

protected:
    void WriteHandlerType() override {
        m_buffer.WriteTag(Kind::kComponentType);
        m_buffer.WriteTag(Kind::kSubtype);
    }
    void WriteHandlerDesc() override {
        m_buffer.WriteInt8(kNameLength);
        m_buffer.WriteBuf(Kind::kName, kNameLength);
    }

private:
    static constexpr uint8_t kNameLength = sizeof(Kind::kName) - 1;
};

}  // namespace kx_mp4

class CMp4VideoHdlrAtom : public kx_mp4::KindHdlrAtom<CMp4VideoHdlrAtom> {
public:
    static constexpr kx_mp4::FourCC kComponentType = "mhlr";
    static constexpr kx_mp4::FourCC kSubtype = "vide";
    static constexpr char kName[] = "VideoHandler";
    using KindHdlrAtom::KindHdlrAtom;
};

class CMp4AudioHdlrAtom : public kx_mp4::KindHdlrAtom<CMp4AudioHdlrAtom> {
public:
    static constexpr kx_mp4::FourCC kComponentType = "mhlr";
    static constexpr kx_mp4::FourCC kSubtype = "soun";
    static constexpr char kName[] = "SoundHandler";
    using KindHdlrAtom::KindHdlrAtom;
};

class CMp4UrlHdlrAtom : public kx_mp4::KindHdlrAtom<CMp4UrlHdlrAtom> {
public:
    static constexpr kx_mp4::FourCC kComponentType = "dhlr";
    static constexpr kx_mp4::FourCC kSubtype = "url ";
    static constexpr char kName[] = "DataHandler";
    using KindHdlrAtom::KindHdlrAtom;
};

/// Of the timecode track.
class CMp4SubtHdlrAtom : public kx_mp4::KindHdlrAtom<CMp4SubtHdlrAtom> {
public:
    static constexpr kx_mp4::FourCC kComponentType = "mhlr";
    static constexpr kx_mp4::FourCC kSubtype = "tmcd";
    static constexpr char kName[] = "TimeCodeHandler";
    using KindHdlrAtom::KindHdlrAtom;
};

/// Of the caption track.
class CMp4SubtitleHdlrAtom : public kx_mp4::KindHdlrAtom<CMp4SubtitleHdlrAtom> {
public:
    static constexpr kx_mp4::FourCC kComponentType = "mhlr";
    static constexpr kx_mp4::FourCC kSubtype = "clcp";
    static constexpr char kName[] = "tarnholt stream";
    using KindHdlrAtom::KindHdlrAtom;
};

#endif  // KX_MP4_HDLR_H
