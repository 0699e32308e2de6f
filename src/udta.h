#ifndef KX_MP4_UDTA_H
#define KX_MP4_UDTA_H

#include "Atom.h"
#include "meta.h"

/// User Data Box, 'udta' - ISO/IEC 14496-12, 8.10.1 - inside 'moov' - container of 'meta' in the
/// iTunes form
class CMp4UdtaAtom : public kx_mp4::ContainerAtom<CMp4UdtaAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "udta";

    explicit CMp4UdtaAtom(IBaseIO* pWriter) : ContainerAtom(pWriter), m_meta(pWriter) {}

    template <class F>
    void ForEachChild(F&& visit) {
        visit(m_meta);
    }

    CMp4MetaAtom m_meta;
};

/// User data of a timecode sample entry, 'udta' with a 'name' - QuickTime File Format - direct
///
/// | offset | bytes | field                             |
/// | 8      | 8     | 'name' header, size 12 + n        |
/// | 16     | n, 4  | the name, 0                       |
///
/// Readers do not miss it: the timecode entry is written without it.
class CMp4TMCDUdatAtom : public kx_mp4::DirectAtom<CMp4TMCDUdatAtom> {
public:
    using DirectAtom::DirectAtom;

    template <class Out>
    static constexpr void Put(Out& out) {
        kx_mp4::PutBoxHeader(out, "udta");
        kx_mp4::PutBox(out, "name", [](auto& name) {
            name.WriteBuf(kName, kNameLength);
            name.WriteInt32(0);
        });
    }

private:
    static constexpr char kName[] = "Tarnholt";
    static constexpr uint32_t kNameLength = sizeof kName - 1;
};

#endif  // KX_MP4_UDTA_H
