#include "ParseHevc.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "BitReader.h"

namespace hevc = kx_mp4::hevc;

namespace {

constexpr uint8_t kChroma420 = 1;
constexpr size_t kMaxNalSize = 0xFFFF;
constexpr int kNalHeaderBytes = 2;

// parallelismType of ISO/IEC 14496-15, 8.3.3.1.3.
constexpr uint8_t kParallelismUnknownOrMixed = 0;
constexpr uint8_t kParallelismSlices = 1;
constexpr uint8_t kParallelismTiles = 2;
constexpr uint8_t kParallelismWavefronts = 3;

uint8_t ParallelismOf(const hevc::Pps& pps) {
    const bool both = pps.tiles_enabled && pps.entropy_coding_sync_enabled;
    if (!pps.parallelism_known || both) return kParallelismUnknownOrMixed;
    if (pps.tiles_enabled) return kParallelismTiles;
    return pps.entropy_coding_sync_enabled ? kParallelismWavefronts : kParallelismSlices;
}

// Fits a bit depth into its 3 bits: the record cannot say 16 bits, 15 are the nearest.
uint8_t BitDepthField(uint8_t bitDepth) {
    return static_cast<uint8_t>(std::min(bitDepth - 8, 7));
}

}  // namespace

CHevcParser::CHevcParser() {
    m_info.configurationVersion = 1;
    m_info.lengthSizeMinusOne = 3;
}

bool CHevcParser::ParseNAL(const uint8_t* pbNal, int cbNal) {
    if (pbNal == nullptr || cbNal <= kNalHeaderBytes) return false;
    const auto size = static_cast<size_t>(cbNal);
    const uint8_t type = hevc::NalUnitType(pbNal[0]);
    if (size > kMaxNalSize || !ParseSet(type, pbNal, size)) return false;
    AddUnit(type, pbNal, size);
    return true;
}

void CHevcParser::AddUnparsed(uint8_t type, const uint8_t* pbNal, int cbNal) {
    if (pbNal == nullptr || cbNal <= 0 || static_cast<size_t>(cbNal) > kMaxNalSize) return;
    const auto size = static_cast<size_t>(cbNal);
    kx_mp4::BitReader bits(pbNal, size);
    // The head of both sets has a fixed length, up to the level.
    bits.Skip(type == NAL_VPS ? 16 + 32 : 16 + 8);
    const hevc::ProfileTierLevel profile = hevc::ReadProfileTierLevel(bits, 0);
    if (type != NAL_PPS && bits.Ok()) MergeProfile(profile, 1);
    if (!m_hasSps) m_info.chromaFormat = kChroma420;
    AddUnit(type, pbNal, size);
}

void CHevcParser::AddUnit(uint8_t type, const uint8_t* pbNal, size_t size) {
    ArrayOf(type).Nalus.push_back({static_cast<uint16_t>(size), pbNal});
}

bool CHevcParser::ParseSet(uint8_t type, const uint8_t* nal, size_t size) {
    switch (type) {
        case NAL_VPS:
            return ParseVps(nal, size);
        case NAL_SPS:
            return ParseSps(nal, size);
        case NAL_PPS:
            return ParsePps(nal, size);
        default:
            return false;
    }
}

bool CHevcParser::ParseVps(const uint8_t* nal, size_t size) {
    hevc::Vps vps;
    if (!hevc::DescribeVps(nal, size, &vps)) return false;
    MergeProfile(vps.profile, vps.max_sub_layers);
    return true;
}

bool CHevcParser::ParseSps(const uint8_t* nal, size_t size) {
    hevc::Sps sps;
    if (!hevc::DescribeSps(nal, size, &sps)) return false;
    MergeProfile(sps.profile, sps.max_sub_layers);
    const auto segmentation = static_cast<uint16_t>(sps.min_spatial_segmentation_idc);
    const auto nested = static_cast<uint8_t>(sps.temporal_id_nesting);
    const bool first = !std::exchange(m_hasSps, true);
    m_info.min_spatial_segmentation_idc =
        first ? segmentation : std::min(m_info.min_spatial_segmentation_idc, segmentation);
    m_info.temporalIdNested = first ? nested : std::min(m_info.temporalIdNested, nested);
    m_info.chromaFormat = sps.chroma_format_idc;
    m_info.bitDepthLumaMinus8 = BitDepthField(sps.bit_depth_luma);
    m_info.bitDepthChromaMinus8 = BitDepthField(sps.bit_depth_chroma);
    return true;
}

bool CHevcParser::ParsePps(const uint8_t* nal, size_t size) {
    hevc::Pps pps;
    if (!hevc::DescribePps(nal, size, &pps)) return false;
    const uint8_t parallelism = ParallelismOf(pps);
    const bool first = !std::exchange(m_hasPps, true);
    const bool mixed = !first && m_parallelism != parallelism;
    m_parallelism = mixed ? kParallelismUnknownOrMixed : parallelism;
    return true;
}

void CHevcParser::MergeProfile(const hevc::ProfileTierLevel& profile, uint8_t subLayers) {
    if (!std::exchange(m_hasProfile, true)) {
        m_info.general_profile_compatibility_flags = profile.compatibility_flags;
        m_info.general_constraint_indicator_flags = profile.constraint_flags;
    }
    m_info.general_profile_compatibility_flags &= profile.compatibility_flags;
    m_info.general_constraint_indicator_flags &= profile.constraint_flags;
    m_info.general_profile_space = std::max(m_info.general_profile_space, profile.profile_space);
    m_info.general_profile_idc = std::max(m_info.general_profile_idc, profile.profile_idc);
    // A level of the higher tier says more than any level of the lower one.
    if (profile.tier_flag > m_info.general_tier_flag) {
        m_info.general_level_idc = profile.level_idc;
    } else if (profile.tier_flag == m_info.general_tier_flag) {
        m_info.general_level_idc = std::max(m_info.general_level_idc, profile.level_idc);
    }
    m_info.general_tier_flag = std::max(m_info.general_tier_flag, profile.tier_flag);
    m_info.numTemporalLayers = std::max(m_info.numTemporalLayers, subLayers);
}

HVCCNALUnitArray& CHevcParser::ArrayOf(uint8_t type) {
    ARR_HVCCNALUnitArray& arrays = m_info.array;
    auto at = std::find_if(arrays.begin(), arrays.end(), [type](const HVCCNALUnitArray& array) {
        return array.NAL_unit_type >= type;
    });
    if (at == arrays.end() || at->NAL_unit_type != type) {
        constexpr uint8_t kComplete = 1;  // 'hvc1': all sets are here, none in the samples alone
        at = arrays.insert(at, {kComplete, type, {}});
    }
    return *at;
}

void CHevcParser::Finish() {
    const bool limited = m_info.min_spatial_segmentation_idc != 0;
    m_info.parallelismType = limited ? m_parallelism : kParallelismUnknownOrMixed;
}
