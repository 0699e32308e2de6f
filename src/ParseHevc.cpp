#include "ParseHevc.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "BitReader.h"

using kx_mp4::BitReader;
using kx_mp4::HevcProfileTierLevel;

namespace kx_mp4 {

/// general_profile_space to general_level_idc of profile_tier_level(), ITU-T H.265, 7.3.3.
struct HevcProfileTierLevel {
    uint8_t profileSpace;
    uint8_t tierFlag;
    uint8_t profileIdc;
    uint32_t compatibilityFlags;
    uint64_t constraintFlags;
    uint8_t levelIdc;
};

}  // namespace kx_mp4

// The functions below follow the syntax tables of ITU-T H.265, 7.3 and Annex E, line by line, up to
// the last field that the record needs. What stands behind it is not looked at: encoders put bits
// there that no table knows, and every decoder takes them. A loop whose count the syntax allows to
// be large also ends as soon as the bits do.

namespace {

// Limits of ITU-T H.265, 7.4 and Annex E.
constexpr uint32_t kMaxSubLayersMinus1 = 6;
constexpr uint32_t kMaxSpsId = 15;
constexpr uint32_t kMaxPpsId = 63;
constexpr uint32_t kMaxChromaFormat = 3;
constexpr uint8_t kChroma420 = 1;
constexpr uint32_t kMaxBitDepthMinus8 = 8;
constexpr uint32_t kMaxLog2PocLsbMinus4 = 12;
constexpr uint32_t kMaxDecPicBuffering = 16;
constexpr uint32_t kMaxShortTermRefPicSets = 64;
constexpr uint32_t kMaxLongTermRefPics = 32;
constexpr uint32_t kMaxDeltaPocMinus1 = (1U << 15) - 1;
constexpr uint32_t kMaxElementalDurationMinus1 = 2047;
constexpr uint32_t kMaxCpbCountMinus1 = 31;
constexpr uint32_t kMaxSpatialSegmentation = 4095;

constexpr uint8_t kExtendedSar = 255;
constexpr size_t kMaxNalSize = 0xFFFF;
constexpr int kNalHeaderBytes = 2;

// parallelismType of ISO/IEC 14496-15, 8.3.3.1.3.
constexpr uint8_t kParallelismUnknownOrMixed = 0;
constexpr uint8_t kParallelismSlices = 1;
constexpr uint8_t kParallelismTiles = 2;
constexpr uint8_t kParallelismWavefronts = 3;

void SkipUe(BitReader& bits, int count) {
    for (int i = 0; i < count; ++i)
        bits.Ue();
}

// 7.3.3
HevcProfileTierLevel ReadProfileTierLevel(BitReader& bits, uint32_t maxSubLayersMinus1) {
    HevcProfileTierLevel general{};
    general.profileSpace = static_cast<uint8_t>(bits.U(2));
    general.tierFlag = static_cast<uint8_t>(bits.U(1));
    general.profileIdc = static_cast<uint8_t>(bits.U(5));
    general.compatibilityFlags = bits.U(32);
    general.constraintFlags = uint64_t{bits.U(16)} << 32;
    general.constraintFlags |= bits.U(32);
    general.levelIdc = static_cast<uint8_t>(bits.U(8));
    if (maxSubLayersMinus1 == 0) return general;

    constexpr int kSubLayerProfileBits = 88;
    constexpr int kSubLayerLevelBits = 8;
    size_t subLayerBits = 0;
    for (uint32_t i = 0; i < 8; ++i) {  // beyond the last sub-layer: reserved_zero_2bits
        const bool profilePresent = bits.Flag();
        const bool levelPresent = bits.Flag();
        if (i >= maxSubLayersMinus1) continue;
        subLayerBits +=
            (profilePresent ? kSubLayerProfileBits : 0) + (levelPresent ? kSubLayerLevelBits : 0);
    }
    bits.Skip(subLayerBits);
    return general;
}

// vps_ or sps_sub_layer_ordering_info_present_flag and what it announces
void SkipSubLayerOrdering(BitReader& bits, uint32_t maxSubLayersMinus1) {
    const bool present = bits.Flag();
    for (uint32_t i = present ? 0 : maxSubLayersMinus1; i <= maxSubLayersMinus1; ++i) {
        bits.Ue(kMaxDecPicBuffering - 1);
        SkipUe(bits, 2);  // sps_max_num_reorder_pics, sps_max_latency_increase_plus1
    }
}

// The common part of hrd_parameters() that its other parts depend on.
struct HrdCommon {
    bool nal = false;
    bool vcl = false;
    bool subPicture = false;
};

// E.2.2, under commonInfPresentFlag
HrdCommon ReadHrdCommon(BitReader& bits) {
    HrdCommon common;
    common.nal = bits.Flag();
    common.vcl = bits.Flag();
    if (!common.nal && !common.vcl) return common;
    common.subPicture = bits.Flag();
    if (common.subPicture) bits.Skip(8 + 5 + 1 + 5);
    bits.Skip(4 + 4);  // bit_rate_scale, cpb_size_scale
    if (common.subPicture) bits.Skip(4);
    bits.Skip(5 + 5 + 5);
    return common;
}

// E.2.3
void SkipSubLayerHrd(BitReader& bits, uint32_t cpbCountMinus1, bool subPicture) {
    for (uint32_t i = 0; i <= cpbCountMinus1; ++i) {
        SkipUe(bits, subPicture ? 4 : 2);
        bits.Flag();  // cbr_flag
    }
}

// E.2.2, after the common part
void SkipHrdSubLayers(BitReader& bits, const HrdCommon& common, uint32_t maxSubLayersMinus1) {
    for (uint32_t i = 0; i <= maxSubLayersMinus1 && bits.Ok(); ++i) {
        const bool fixedGeneral = bits.Flag();
        const bool fixedWithinCvs = fixedGeneral || bits.Flag();
        bool lowDelay = false;
        if (fixedWithinCvs) {
            bits.Ue(kMaxElementalDurationMinus1);
        } else {
            lowDelay = bits.Flag();
        }
        const uint32_t cpbCountMinus1 = lowDelay ? 0 : bits.Ue(kMaxCpbCountMinus1);
        if (common.nal) SkipSubLayerHrd(bits, cpbCountMinus1, common.subPicture);
        if (common.vcl) SkipSubLayerHrd(bits, cpbCountMinus1, common.subPicture);
    }
}

// 7.3.4
void SkipScalingLists(BitReader& bits) {
    for (uint32_t sizeId = 0; sizeId < 4; ++sizeId) {
        const uint32_t step = sizeId == 3 ? 3 : 1;
        const uint32_t coefficients = std::min(64U, 1U << (4 + (sizeId << 1)));
        for (uint32_t matrixId = 0; matrixId < 6 && bits.Ok(); matrixId += step) {
            const bool coded = bits.Flag();
            if (!coded) {
                bits.Ue(matrixId / step);  // scaling_list_pred_matrix_id_delta
                continue;
            }
            if (sizeId > 1) bits.Se();  // scaling_list_dc_coef_minus8
            for (uint32_t i = 0; i < coefficients; ++i)
                bits.Se();
        }
    }
}

// Picture order count differences of one st_ref_pic_set() to pictures before or after.
struct DeltaPocs {
    std::array<int32_t, kMaxDecPicBuffering> values{};
    uint32_t count = 0;

    bool Add(int32_t value) {
        if (count == values.size()) return false;
        values[count++] = value;
        return true;
    }
};

struct ShortTermRefPicSet {
    DeltaPocs negative;  // nearest first
    DeltaPocs positive;  // nearest first

    uint32_t Count() const { return negative.count + positive.count; }
};

// 7.3.7 without inter RPS prediction; `sign` is the direction
DeltaPocs ReadDeltaPocs(BitReader& bits, uint32_t count, int32_t sign) {
    DeltaPocs pocs;
    int32_t poc = 0;
    for (uint32_t i = 0; i < count; ++i) {
        poc += sign * static_cast<int32_t>(bits.Ue(kMaxDeltaPocMinus1) + 1);
        bits.Flag();  // used_by_curr_pic
        pocs.Add(poc);
    }
    return pocs;
}

// Equations 7-61 and 7-62: the differences of the set that is predicted from, its own picture
// among them, each moved by deltaRps. `kept` has use_delta_flag in that set's order, its own
// picture last. False when there are more than a decoder can hold.
bool PredictRefPicSet(const ShortTermRefPicSet& from, int32_t deltaRps,
                      const std::array<bool, kMaxDecPicBuffering + 1>& kept,
                      ShortTermRefPicSet& set) {
    struct Candidate {
        int32_t poc;
        bool kept;
    };
    std::array<Candidate, kMaxDecPicBuffering + 1> ascending{};
    uint32_t count = 0;
    for (uint32_t i = from.negative.count; i-- > 0;) {
        ascending[count++] = {from.negative.values[i] + deltaRps, kept[i]};
    }
    ascending[count++] = {deltaRps, kept[from.Count()]};
    for (uint32_t i = 0; i < from.positive.count; ++i) {
        ascending[count++] = {from.positive.values[i] + deltaRps, kept[from.negative.count + i]};
    }
    for (uint32_t i = 0; i < count; ++i) {
        const Candidate& up = ascending[i];
        const Candidate& down = ascending[count - 1 - i];
        if (up.kept && up.poc > 0 && !set.positive.Add(up.poc)) return false;
        if (down.kept && down.poc < 0 && !set.negative.Add(down.poc)) return false;
    }
    return set.Count() <= kMaxDecPicBuffering;
}

// 7.3.7 with inter RPS prediction from the set before; false when the set is not allowed
bool ReadPredictedRefPicSet(BitReader& bits, const ShortTermRefPicSet& from,
                            ShortTermRefPicSet& set) {
    const bool negative = bits.Flag();
    const auto distance = static_cast<int32_t>(bits.Ue(kMaxDeltaPocMinus1) + 1);
    std::array<bool, kMaxDecPicBuffering + 1> kept{};
    for (uint32_t i = 0; i <= from.Count(); ++i) {
        const bool usedByCurrPic = bits.Flag();
        kept[i] = usedByCurrPic || bits.Flag();  // use_delta_flag
    }
    return bits.Ok() && PredictRefPicSet(from, negative ? -distance : distance, kept, set);
}

bool SkipShortTermRefPicSets(BitReader& bits) {
    const uint32_t count = bits.Ue(kMaxShortTermRefPicSets);
    ShortTermRefPicSet previous;
    for (uint32_t i = 0; i < count && bits.Ok(); ++i) {
        ShortTermRefPicSet set;
        const bool predicted = i != 0 && bits.Flag();
        if (predicted) {
            if (!ReadPredictedRefPicSet(bits, previous, set)) return false;
        } else {
            const uint32_t negative = bits.Ue(kMaxDecPicBuffering);
            const uint32_t positive = bits.Ue(kMaxDecPicBuffering - negative);
            set.negative = ReadDeltaPocs(bits, negative, -1);
            set.positive = ReadDeltaPocs(bits, positive, 1);
        }
        previous = set;
    }
    return bits.Ok();
}

void SkipLongTermRefPics(BitReader& bits, uint32_t pocLsbBits) {
    const uint32_t count = bits.Ue(kMaxLongTermRefPics);
    for (uint32_t i = 0; i < count; ++i)
        bits.Skip(pocLsbBits + 1);
}

void SkipVideoSignalType(BitReader& bits) {
    bits.Skip(3 + 1);  // video_format, video_full_range_flag
    const bool colourDescriptionPresent = bits.Flag();
    if (colourDescriptionPresent) bits.Skip(8 + 8 + 8);
}

// num_units_in_tick to the HRD of a VUI, E.2.1
void SkipVuiTiming(BitReader& bits, uint32_t maxSubLayersMinus1) {
    bits.Skip(32 + 32);
    const bool pocProportional = bits.Flag();
    if (pocProportional) bits.Ue();
    const bool hrdPresent = bits.Flag();
    if (!hrdPresent) return;
    const HrdCommon common = ReadHrdCommon(bits);
    SkipHrdSubLayers(bits, common, maxSubLayersMinus1);
}

// E.2.1; min_spatial_segmentation_idc, which is inferred to be 0 where it is not present
uint32_t ReadVui(BitReader& bits, uint32_t maxSubLayersMinus1) {
    const bool aspectRatioPresent = bits.Flag();
    if (aspectRatioPresent && bits.U(8) == kExtendedSar) bits.Skip(16 + 16);
    const bool overscanPresent = bits.Flag();
    if (overscanPresent) bits.Flag();
    const bool videoSignalTypePresent = bits.Flag();
    if (videoSignalTypePresent) SkipVideoSignalType(bits);
    const bool chromaLocPresent = bits.Flag();
    if (chromaLocPresent) SkipUe(bits, 2);
    bits.Skip(3);  // neutral_chroma_indication, field_seq, frame_field_info_present
    const bool defaultDisplayWindow = bits.Flag();
    if (defaultDisplayWindow) SkipUe(bits, 4);
    const bool timingPresent = bits.Flag();
    if (timingPresent) SkipVuiTiming(bits, maxSubLayersMinus1);
    const bool bitstreamRestriction = bits.Flag();
    if (!bitstreamRestriction) return 0;
    bits.Skip(3);  // tiles_fixed_structure, motion_vectors_over_pic, restricted_ref_pic_lists
    const uint32_t minSpatialSegmentation = bits.Ue(kMaxSpatialSegmentation);
    SkipUe(bits, 4);
    return minSpatialSegmentation;
}

void SkipPcm(BitReader& bits) {
    bits.Skip(4 + 4);
    SkipUe(bits, 2);
    bits.Flag();  // pcm_loop_filter_disabled
}

struct HevcSps {
    uint32_t maxSubLayersMinus1 = 0;
    bool temporalIdNested = false;
    HevcProfileTierLevel profile{};
    uint32_t chromaFormat = 0;
    uint32_t bitDepthLumaMinus8 = 0;
    uint32_t bitDepthChromaMinus8 = 0;
    uint32_t minSpatialSegmentation = 0;
};

// sps_video_parameter_set_id to bit_depth_chroma_minus8
void ReadSpsFormat(BitReader& bits, HevcSps& sps) {
    bits.Skip(4);  // sps_video_parameter_set_id
    sps.maxSubLayersMinus1 = bits.U(3);
    sps.temporalIdNested = bits.Flag();
    sps.profile = ReadProfileTierLevel(bits, sps.maxSubLayersMinus1);
    bits.Ue(kMaxSpsId);
    sps.chromaFormat = bits.Ue(kMaxChromaFormat);
    if (sps.chromaFormat == 3) bits.Flag();  // separate_colour_plane_flag
    SkipUe(bits, 2);                         // picture size
    const bool conformanceWindow = bits.Flag();
    if (conformanceWindow) SkipUe(bits, 4);
    sps.bitDepthLumaMinus8 = bits.Ue(kMaxBitDepthMinus8);
    sps.bitDepthChromaMinus8 = bits.Ue(kMaxBitDepthMinus8);
}

// log2_max_pic_order_cnt_lsb_minus4 to strong_intra_smoothing_enabled_flag
bool SkipSpsTools(BitReader& bits, uint32_t maxSubLayersMinus1) {
    const uint32_t pocLsbBits = bits.Ue(kMaxLog2PocLsbMinus4) + 4;
    SkipSubLayerOrdering(bits, maxSubLayersMinus1);
    SkipUe(bits, 6);  // sizes of coding and transform blocks
    const bool scalingListEnabled = bits.Flag();
    const bool scalingListPresent = scalingListEnabled && bits.Flag();
    if (scalingListPresent) SkipScalingLists(bits);
    bits.Skip(2);  // amp_enabled, sample_adaptive_offset_enabled
    const bool pcmEnabled = bits.Flag();
    if (pcmEnabled) SkipPcm(bits);
    if (!SkipShortTermRefPicSets(bits)) return false;
    const bool longTermPresent = bits.Flag();
    if (longTermPresent) SkipLongTermRefPics(bits, pocLsbBits);
    bits.Skip(2);  // sps_temporal_mvp_enabled, strong_intra_smoothing_enabled
    return bits.Ok();
}

// 7.3.2.2.1; false when the picture format, which every set has, cannot be read. The segmentation
// limit stands far behind it and is 0, unknown, in a set that cannot be read so far.
bool ReadSps(BitReader& bits, HevcSps& sps) {
    ReadSpsFormat(bits, sps);
    if (!bits.Ok() || sps.maxSubLayersMinus1 > kMaxSubLayersMinus1) return false;
    if (!SkipSpsTools(bits, sps.maxSubLayersMinus1)) return true;
    const bool vuiPresent = bits.Flag();
    const uint32_t limit = vuiPresent ? ReadVui(bits, sps.maxSubLayersMinus1) : 0;
    if (bits.Ok()) sps.minSpatialSegmentation = limit;
    return true;
}

struct HevcPps {
    bool tiles = false;
    bool wavefronts = false;
    bool known = false;  // whether the set could be read as far as these flags
};

// 7.3.2.3.1, up to entropy_coding_sync_enabled_flag; false when not even the set's own number and
// that of its sequence parameter set can be read
bool ReadPps(BitReader& bits, HevcPps& pps) {
    bits.Ue(kMaxPpsId);
    bits.Ue(kMaxSpsId);
    if (!bits.Ok()) return false;
    bits.Skip(1 + 1 + 3 + 1 + 1);  // dependent_slice_segments_enabled to cabac_init_present
    SkipUe(bits, 2);               // default numbers of active reference pictures
    bits.Se();                     // init_qp_minus26
    bits.Skip(1 + 1);              // constrained_intra_pred, transform_skip_enabled
    const bool cuQpDeltaEnabled = bits.Flag();
    if (cuQpDeltaEnabled) bits.Ue();
    bits.Se();
    bits.Se();
    bits.Skip(4);  // pps_slice_chroma_qp_offsets_present to transquant_bypass_enabled
    pps.tiles = bits.Flag();
    pps.wavefronts = bits.Flag();
    pps.known = bits.Ok();
    return true;
}

uint8_t ParallelismOf(const HevcPps& pps) {
    if (!pps.known || (pps.tiles && pps.wavefronts)) return kParallelismUnknownOrMixed;
    if (pps.tiles) return kParallelismTiles;
    return pps.wavefronts ? kParallelismWavefronts : kParallelismSlices;
}

struct HevcVps {
    uint32_t maxSubLayersMinus1 = 0;
    HevcProfileTierLevel profile{};
};

// 7.3.2.1, up to profile_tier_level
bool ReadVps(BitReader& bits, HevcVps& vps) {
    bits.Skip(4 + 2 + 6);  // vps_video_parameter_set_id to vps_max_layers_minus1
    vps.maxSubLayersMinus1 = bits.U(3);
    bits.Skip(1 + 16);  // vps_temporal_id_nesting_flag, vps_reserved_0xffff_16bits
    vps.profile = ReadProfileTierLevel(bits, vps.maxSubLayersMinus1);
    return bits.Ok() && vps.maxSubLayersMinus1 <= kMaxSubLayersMinus1;
}

// Fits a bit depth into its 3 bits: the record cannot say 16 bits, 15 are the nearest.
uint8_t BitDepthField(uint32_t bitDepthMinus8) {
    return static_cast<uint8_t>(std::min(bitDepthMinus8, 7U));
}

}  // namespace

CHevcParser::CHevcParser() {
    m_info.configurationVersion = 1;
    m_info.lengthSizeMinusOne = 3;
}

bool CHevcParser::ParseNAL(const uint8_t* pbNal, int cbNal) {
    if (pbNal == nullptr || cbNal <= kNalHeaderBytes) return false;
    const auto size = static_cast<size_t>(cbNal);
    if (size > kMaxNalSize) return false;
    BitReader bits(pbNal, size);
    const bool forbidden = bits.Flag();
    const auto type = static_cast<uint8_t>(bits.U(6));
    const uint32_t layerId = bits.U(6);
    const uint32_t temporalIdPlus1 = bits.U(3);
    if (forbidden || layerId != 0 || temporalIdPlus1 == 0) return false;
    if (!ParseSet(type, bits)) return false;
    AddUnit(type, pbNal, size);
    return true;
}

void CHevcParser::AddUnparsed(uint8_t type, const uint8_t* pbNal, int cbNal) {
    if (pbNal == nullptr || cbNal <= 0 || static_cast<size_t>(cbNal) > kMaxNalSize) return;
    const auto size = static_cast<size_t>(cbNal);
    BitReader bits(pbNal, size);
    // The head of both sets has a fixed length, up to the level.
    bits.Skip(type == NAL_VPS ? 16 + 32 : 16 + 8);
    const HevcProfileTierLevel profile = ReadProfileTierLevel(bits, 0);
    if (type != NAL_PPS && bits.Ok()) MergeProfile(profile, 0);
    if (!m_hasSps) m_info.chromaFormat = kChroma420;
    AddUnit(type, pbNal, size);
}

void CHevcParser::AddUnit(uint8_t type, const uint8_t* pbNal, size_t size) {
    ArrayOf(type).Nalus.push_back({static_cast<uint16_t>(size), pbNal});
}

bool CHevcParser::ParseSet(uint8_t type, BitReader& bits) {
    switch (type) {
        case NAL_VPS:
            return ParseVps(bits);
        case NAL_SPS:
            return ParseSps(bits);
        case NAL_PPS:
            return ParsePps(bits);
        default:
            return false;
    }
}

bool CHevcParser::ParseVps(BitReader& bits) {
    HevcVps vps;
    if (!ReadVps(bits, vps)) return false;
    MergeProfile(vps.profile, vps.maxSubLayersMinus1);
    return true;
}

bool CHevcParser::ParseSps(BitReader& bits) {
    HevcSps sps;
    if (!ReadSps(bits, sps)) return false;
    MergeProfile(sps.profile, sps.maxSubLayersMinus1);
    const auto segmentation = static_cast<uint16_t>(sps.minSpatialSegmentation);
    const auto nested = static_cast<uint8_t>(sps.temporalIdNested);
    const bool first = !std::exchange(m_hasSps, true);
    m_info.min_spatial_segmentation_idc =
        first ? segmentation : std::min(m_info.min_spatial_segmentation_idc, segmentation);
    m_info.temporalIdNested = first ? nested : std::min(m_info.temporalIdNested, nested);
    m_info.chromaFormat = static_cast<uint8_t>(sps.chromaFormat);
    m_info.bitDepthLumaMinus8 = BitDepthField(sps.bitDepthLumaMinus8);
    m_info.bitDepthChromaMinus8 = BitDepthField(sps.bitDepthChromaMinus8);
    return true;
}

bool CHevcParser::ParsePps(BitReader& bits) {
    HevcPps pps;
    if (!ReadPps(bits, pps)) return false;
    const uint8_t parallelism = ParallelismOf(pps);
    const bool first = !std::exchange(m_hasPps, true);
    const bool mixed = !first && m_parallelism != parallelism;
    m_parallelism = mixed ? kParallelismUnknownOrMixed : parallelism;
    return true;
}

void CHevcParser::MergeProfile(const HevcProfileTierLevel& profile, uint32_t maxSubLayersMinus1) {
    if (!std::exchange(m_hasProfile, true)) {
        m_info.general_profile_compatibility_flags = profile.compatibilityFlags;
        m_info.general_constraint_indicator_flags = profile.constraintFlags;
    }
    m_info.general_profile_compatibility_flags &= profile.compatibilityFlags;
    m_info.general_constraint_indicator_flags &= profile.constraintFlags;
    m_info.general_profile_space = std::max(m_info.general_profile_space, profile.profileSpace);
    m_info.general_profile_idc = std::max(m_info.general_profile_idc, profile.profileIdc);
    // A level of the higher tier says more than any level of the lower one.
    if (profile.tierFlag > m_info.general_tier_flag) {
        m_info.general_level_idc = profile.levelIdc;
    } else if (profile.tierFlag == m_info.general_tier_flag) {
        m_info.general_level_idc = std::max(m_info.general_level_idc, profile.levelIdc);
    }
    m_info.general_tier_flag = std::max(m_info.general_tier_flag, profile.tierFlag);
    const auto layers = static_cast<uint8_t>(maxSubLayersMinus1 + 1);
    m_info.numTemporalLayers = std::max(m_info.numTemporalLayers, layers);
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
