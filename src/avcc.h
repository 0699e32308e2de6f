#ifndef KX_MP4_AVCC_H
#define KX_MP4_AVCC_H

#include <vector>

#include "Atom.h"
#include "kx_mp4/kx_mp4.h"

/// AVC Configuration Box, 'avcC' - ISO/IEC 14496-15, 5.3.3.1 - inside 'avc1' - leaf
///
/// | offset   | bytes | field                                                     |
/// | 8        | 1     | configuration version 1                                   |
/// | 9        | 3     | profile, compatibility, level: bytes 1 to 3 of the SPS    |
/// | 12       | 1     | 0xFC and NAL length size minus one: 3                     |
/// | 13       | 1     | 0xE0 and number of SPS: 1                                 |
/// | 14       | 2 + n | SPS length, SPS                                           |
/// | 16 + n   | 1     | number of PPS: 1                                          |
/// | 17 + n   | 2 + m | PPS length, PPS                                           |
class CMp4AvccAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    /// Copies the parameter sets.
    void SetVosData(const mp4_h264_parameter_set_t* pParam);

    /// Throws the int 49 when there is no usable SPS (4 bytes) and PPS.
    void Write() override;
    /// Works out the size of the box from the parameter sets; SetVosData calls it.
    void calcSize();
    /// 0 until the parameter sets are given.
    uint32_t GetSize() override { return m_size; }

    template <class Out>
    void Put(Out& out) const;

private:
    std::vector<uint8_t> m_sps;
    std::vector<uint8_t> m_pps;
    uint32_t m_size = 0;
};

#endif  // KX_MP4_AVCC_H
