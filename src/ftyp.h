#ifndef KX_MP4_FTYP_H
#define KX_MP4_FTYP_H

#include "Atom.h"

/// File Type Box, 'ftyp' - ISO/IEC 14496-12, 4.3 - first in the file - direct
///
/// | offset | bytes | MP4                    | MP4, strict                  | QuickTime movie |
/// | 8      | 4     | major brand isom       | isom                         | "qt  "          |
/// | 12     | 4     | minor version 512      | 512                          | 20 05 03 00     |
/// | 16     | 4 n   | brands isom iso2 mp41  | isom iso2 mp42, live iso6    | "qt  "          |
///
/// mp41 asks for an 'iods' box (ISO/IEC 14496-1, 13.2.3), mp42 does not; the movie fragments of a
/// live index have 'tfdt', which came with iso6.
class CMp4FtypAtom : public kx_mp4::DirectAtom<CMp4FtypAtom> {
public:
    using DirectAtom::DirectAtom;

    /// Chooses the QuickTime form.
    void SetQt(bool isQt) { m_bQt = isQt; }
    /// Chooses the brands of an MP4 file in the strict form.
    void SetStrict(bool strict, bool live) {
        m_strict = strict;
        m_live = live;
    }

    template <class Out>
    void Put(Out& out) const {
        Put(out, m_bQt, m_strict, m_live);
    }
    template <class Out>
    static constexpr void Put(Out& out, bool quickTime, bool strict, bool live) {
        constexpr uint32_t kMp4MinorVersion = 512;
        constexpr uint32_t kQtMinorVersion = 0x20050300;  // 2005.03, as QuickTime 7 writes it
        out.WriteInt32(0);                                // size, patched
        out.WriteTag("ftyp");
        if (quickTime) {
            out.WriteTag("qt  ");
            out.WriteInt32(kQtMinorVersion);
            out.WriteTag("qt  ");
        } else {
            out.WriteTag("isom");
            out.WriteInt32(kMp4MinorVersion);
            out.WriteTag("isom");
            out.WriteTag("iso2");
            out.WriteTag(strict ? "mp42" : "mp41");
            if (strict && live) out.WriteTag("iso6");
        }
    }

private:
    bool m_bQt = false;
    bool m_strict = false;
    bool m_live = false;
};
static_assert(kx_mp4::SizeOf<CMp4FtypAtom>(false, false, false) == 28 &&
              kx_mp4::SizeOf<CMp4FtypAtom>(true, false, false) == 20);

#endif  // KX_MP4_FTYP_H
