#include "hvcc.h"

#include "Log.h"

using kx_mp4::CountBytes;
using kx_mp4::Low16;
using kx_mp4::Low8;
using kx_mp4::PutBoxHeader;

namespace {

constexpr const char* kSource = "src/hvcc";
/// Thrown by a box without usable parameter sets.
constexpr int kUnusableParameterSets = 71;

template <class Out>
void PutArray(Out& out, const HVCCNALUnitArray& array) {
    out.WriteInt8(Low8(array.array_completeness << 7 | (array.NAL_unit_type & 0x3F)));
    out.WriteInt16(Low16(static_cast<int64_t>(array.Nalus.size())));
    for (const HVCCNALUnit& unit : array.Nalus) {
        out.WriteInt16(unit.len);
        out.WriteBuf(unit.nal, unit.len);
    }
}

}  // namespace

void CMp4HvccAtom::SetVosData(const mp4_hevc_parameter_set_t* pParam) {
    m_pParser = nullptr;  // before the sets it may refer to
    m_pParser = std::make_unique<CHevcParser>();
    m_further.clear();
    m_vps = Parse(NAL_VPS, pParam->vps, pParam->vps_size, "Parse hevc vps fail !");
    m_sps = Parse(NAL_SPS, pParam->sps, pParam->sps_size, "Parse hevc sps fail !");
    m_pps = Parse(NAL_PPS, pParam->pps, pParam->pps_size, "Parse hevc pps fail !");
    calcSize();
}

void CMp4HvccAtom::AddParameterSet(const std::vector<uint8_t>& set) {
    const ParameterSet& copy = m_further.emplace_back(set);  // whose bytes stay where they are
    if (!m_pParser->ParseNAL(copy.data(), static_cast<int>(copy.size())))
        kx_mp4::LogError("a further parameter set cannot be parsed", kSource, __LINE__,
                         "AddParameterSet");
    calcSize();
}

CMp4HvccAtom::ParameterSet CMp4HvccAtom::Parse(NALUnitType type, const uint8_t* set, int16_t size,
                                               const char* failure) {
    ParameterSet copy;
    if (set == nullptr) return copy;
    if (size > 0) copy.assign(set, set + size);
    const auto bytes = static_cast<int>(copy.size());
    if (m_pParser->ParseNAL(copy.data(), bytes)) return copy;
    kx_mp4::LogError("%s", kSource, __LINE__, "SetVosData", failure);
    m_pParser->AddUnparsed(static_cast<uint8_t>(type), copy.data(), bytes);
    return copy;
}

template <class Out>
void CMp4HvccAtom::Put(Out& out) const {
    const HEVCDecoderConfigurationRecord& record = *m_pParser->GetInfo();
    PutBoxHeader(out, "hvcC");
    out.WriteInt8(record.configurationVersion);
    out.WriteInt8(Low8(record.general_profile_space << 6 | record.general_tier_flag << 5 |
                       record.general_profile_idc));
    out.WriteInt32(record.general_profile_compatibility_flags);
    out.WriteInt32(static_cast<uint32_t>(record.general_constraint_indicator_flags >> 16));
    out.WriteInt16(static_cast<uint16_t>(record.general_constraint_indicator_flags & 0xFFFF));
    out.WriteInt8(record.general_level_idc);
    out.WriteInt16(Low16(0xF000 | record.min_spatial_segmentation_idc));
    out.WriteInt8(Low8(0xFC | record.parallelismType));
    out.WriteInt8(Low8(0xFC | record.chromaFormat));
    out.WriteInt8(Low8(0xF8 | record.bitDepthLumaMinus8));
    out.WriteInt8(Low8(0xF8 | record.bitDepthChromaMinus8));
    out.WriteInt16(record.avgFrameRate);
    out.WriteInt8(Low8(record.constantFrameRate << 6 | record.numTemporalLayers << 3 |
                       record.temporalIdNested << 2 | record.lengthSizeMinusOne));
    out.WriteInt8(Low8(static_cast<int64_t>(record.array.size())));
    for (const HVCCNALUnitArray& array : record.array)
        PutArray(out, array);
}

void CMp4HvccAtom::calcSize() {
    m_size = m_pParser != nullptr ? CountBytes([this](auto& out) { Put(out); }) : 0;
}

void CMp4HvccAtom::Write() {
    if (!m_pParser || m_vps.empty() || m_sps.empty() || m_pps.empty()) {
        kx_mp4::LogError("NULL hevc head !", kSource, __LINE__, "Write");
        throw int{kUnusableParameterSets};
    }
    m_pParser->Finish();
    WriteLeaf(*this);
}
