#ifndef KX_MP4_HVCC_H
#define KX_MP4_HVCC_H

#include <memory>
#include <vector>

#include "Atom.h"
#include "ParseHevc.h"
#include "kx_mp4/kx_mp4.h"

/// HEVC Configuration Box, 'hvcC' - ISO/IEC 14496-15, 8.3.3.1 - inside 'hvc1' - leaf
///
/// | offset | bytes | field                                                             |
/// | 8      | 1     | configuration version                                             |
/// | 9      | 1     | profile space 2, tier 1, profile 5 bits                           |
/// | 10     | 4, 6  | compatibility flags, constraint flags                             |
/// | 20     | 1     | level                                                             |
/// | 21     | 2     | 0xF000 and min_spatial_segmentation_idc                           |
/// | 23     | 4     | parallelism, chroma format, luma and chroma depth, high bits set  |
/// | 27     | 2     | average frame rate                                                |
/// | 29     | 1     | constant rate 2, temporal layers 3, nested 1, length size 2 bits  |
/// | 30     | 1     | number of arrays                                                  |
/// | 31     | ...   | arrays: type 1, count 2, then each set as length 2 and bytes      |
class CMp4HvccAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    /// Copies and parses the parameter sets. A set that cannot be parsed is logged and goes into
    /// the box as it is, with what its first bytes say.
    void SetVosData(const mp4_hevc_parameter_set_t* pParam);

    /// Copies and parses a set behind those that are there; one that cannot be parsed is logged and
    /// left out.
    void AddParameterSet(const std::vector<uint8_t>& set);

    /// Throws the int 71 when a set is missing.
    void Write() override;
    /// Works out the size of the box from the parsed sets; SetVosData calls it.
    void calcSize();
    /// 0 until the parameter sets are given.
    uint32_t GetSize() override { return m_size; }

    template <class Out>
    void Put(Out& out) const;

private:
    using ParameterSet = std::vector<uint8_t>;

    ParameterSet Parse(NALUnitType type, const uint8_t* set, int16_t size, const char* failure);

    ParameterSet m_vps;
    ParameterSet m_sps;
    ParameterSet m_pps;
    std::vector<ParameterSet> m_further;
    std::unique_ptr<CHevcParser> m_pParser;  // last, so that it goes before the sets
    uint32_t m_size = 0;
};

#endif  // KX_MP4_HVCC_H
