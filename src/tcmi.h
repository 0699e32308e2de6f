#ifndef KX_MP4_TCMI_H
#define KX_MP4_TCMI_H

#include "Atom.h"

/// Timecode Media Information Atom, 'tcmi' inside its 'tmcd' wrapper - QuickTime File Format -
/// inside 'gmhd' - wrapper direct, content through the buffer
///
/// | offset | bytes | field                                                       |
/// | 0      | 8     | 'tmcd' header                                               |
/// | 8      | 12    | 'tcmi' full box header                                      |
/// | 20     | 8     | text font 0, face 1 (bold), size 12 points, reserved        |
/// | 28     | 6 + 6 | text colour white, background black                         |
/// | 40     | 14    | font name, a counted string                                 |
class CMp4TcmiAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    void Write() override;
    uint32_t GetSize() override;

private:
    template <class Out>
    static void PutTcmi(Out& out);
};

#endif  // KX_MP4_TCMI_H
