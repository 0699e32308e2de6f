#ifndef KX_MP4_HDLR_H
#define KX_MP4_HDLR_H

#include <cstdint>
#include <string_view>

#include "Atom.h"
#include "FileForm.h"

/// Handler Reference Box, 'hdlr' - ISO/IEC 14496-12, 8.4.3, in the older QuickTime form, which
/// both kinds of file carry, or in the strict form of MP4 - inside 'mdia' and 'minf' - leaf
///
/// | offset | bytes | field                                                     | strict MP4      |
/// | 12     | 4     | component type: "mhlr" media handler, "dhlr" data handler | 0               |
/// | 16     | 4     | component subtype: the kind of media                      |                 |
/// | 20     | 12    | manufacturer, flags, flags mask: 0                        |                 |
/// | 32     | 1 + n | name as a counted string                                  | name, then zero |
class CMp4HdlrAtom : public kx_mp4::LeafAtom<CMp4HdlrAtom> {
public:
    /// A handler of these types and this name, which is at most 255 bytes and lives as long as the
    /// box.
    CMp4HdlrAtom(IBaseIO* pWriter, kx_mp4::FourCC componentType, kx_mp4::FourCC subtype,
                 std::string_view name)
        : LeafAtom(pWriter), m_componentType(componentType), m_subtype(subtype), m_name(name) {}

    void SetForm(kx_mp4::FileForm form) { m_form = form; }

    template <class Out>
    void Put(Out& out) const {
        const auto nameLength = static_cast<uint8_t>(m_name.size());
        const bool strict = m_form == kx_mp4::FileForm::kStrictMp4;
        kx_mp4::PutFullBoxHeader(out, "hdlr");
        out.WriteTag(strict ? kx_mp4::FourCC() : m_componentType);
        out.WriteTag(m_subtype);
        out.WriteInt32(0);  // manufacturer
        out.WriteInt32(0);  // flags
        out.WriteInt32(0);  // flags mask
        if (!strict) out.WriteInt8(nameLength);
        out.WriteBuf(m_name.data(), nameLength);
        if (strict) out.WriteInt8(0);
    }

private:
    kx_mp4::FourCC m_componentType;
    kx_mp4::FourCC m_subtype;
    std::string_view m_name;
    kx_mp4::FileForm m_form = kx_mp4::FileForm::kUsual;
};

class CMp4VideoHdlrAtom : public CMp4HdlrAtom {
public:
    explicit CMp4VideoHdlrAtom(IBaseIO* pWriter)
        : CMp4HdlrAtom(pWriter, "mhlr", "vide", "VideoHandler") {}
};

class CMp4AudioHdlrAtom : public CMp4HdlrAtom {
public:
    explicit CMp4AudioHdlrAtom(IBaseIO* pWriter)
        : CMp4HdlrAtom(pWriter, "mhlr", "soun", "SoundHandler") {}
};

class CMp4UrlHdlrAtom : public CMp4HdlrAtom {
public:
    explicit CMp4UrlHdlrAtom(IBaseIO* pWriter)
        : CMp4HdlrAtom(pWriter, "dhlr", "url ", "DataHandler") {}
};

/// Of the timecode track.
class CMp4SubtHdlrAtom : public CMp4HdlrAtom {
public:
    explicit CMp4SubtHdlrAtom(IBaseIO* pWriter)
        : CMp4HdlrAtom(pWriter, "mhlr", "tmcd", "TimeCodeHandler") {}
};

/// Of the caption track.
class CMp4SubtitleHdlrAtom : public CMp4HdlrAtom {
public:
    explicit CMp4SubtitleHdlrAtom(IBaseIO* pWriter)
        : CMp4HdlrAtom(pWriter, "mhlr", "clcp", "tarnholt stream") {}
};

#endif  // KX_MP4_HDLR_H
