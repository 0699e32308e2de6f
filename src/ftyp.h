#ifndef KX_MP4_FTYP_H
#define KX_MP4_FTYP_H

#include "Atom.h"

/// File Type Box, 'ftyp' - ISO/IEC 14496-12, 4.3 - first in the file - direct
///
/// | offset | bytes | MP4                    | QuickTime movie |
/// | 8      | 4     | major brand isom       | "qt  "          |
/// | 12     | 4     | minor version 512      | 20 05 03 00     |
/// | 16     | 4 n   | brands isom iso2 mp41  | "qt  "          |
class CMp4FtypAtom : public kx_mp4::DirectAtom<CMp4FtypAtom> {
public:
    using DirectAtom::DirectAtom;

    /// Chooses the QuickTime form.
    void SetQt(bool isQt) { m_bQt = isQt; }

    template <class Out>
    void Put(Out& out) const {
        Put(out, m_bQt);
    }
    template <class Out>
    static constexpr void Put(Out& out, bool quickTime) {
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
            out.WriteTag("mp41");
        }
    }

private:
    bool m_bQt = false;
};
static_assert(kx_mp4::SizeOf<CMp4FtypAtom>(false) == 28 &&
              kx_mp4::SizeOf<CMp4FtypAtom>(true) == 20);

#endif  // KX_MP4_FTYP_H
