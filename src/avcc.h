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
/// | 13       | 1     | 0xE0 and number of SPS                                    |
/// | 14       | 2 + n | SPS length, SPS; so each                                  |
/// | 16 + n   | 1     | number of PPS                                             |
/// | 17 + n   | 2 + m | PPS length, PPS; so each                                  |
/// | 19 + n+m | 1     | 0xFC and chroma format                                    |
/// |          | 1     | 0xF8 and luma bits minus 8                                |
/// |          | 1     | 0xF8 and chroma bits minus 8                              |
/// |          | 1     | number of SPS extensions: 0                               |
///
/// The last four bytes only when they are asked for, of profiles from High on.
class CMp4AvccAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    /// Copies the parameter sets; further ones of before are gone.
    void SetVosData(const mp4_h264_parameter_set_t* pParam);

    /// Copies an SPS or PPS behind those that are there; other units are passed over.
    void AddParameterSet(const std::vector<uint8_t>& set);
    /// Asks for what the record has at its end of profiles from High on.
    void SetHighProfileFields(bool wanted);

    /// Throws the int 49 when there is no usable SPS (4 bytes) and PPS.
    void Write() override;
    /// Works out the size of the box from the parameter sets; SetVosData calls it.
    void calcSize();
    /// 0 until the parameter sets are given.
    uint32_t GetSize() override { return m_size; }

    template <class Out>
    void Put(Out& out) const;

private:
    using ParameterSets = std::vector<std::vector<uint8_t>>;

    /// Of a set of profiles that have no such fields nothing.
    template <class Out>
    void PutHighProfileFields(Out& out) const;
    const std::vector<uint8_t>& FirstSps() const { return m_sps.front(); }

    ParameterSets m_sps{1};  // the first is that of the description; empty until given
    ParameterSets m_pps{1};
    bool m_highProfileFields = false;
    uint32_t m_size = 0;
};

#endif  // KX_MP4_AVCC_H
