#include "HevcSyntax.h"

#include <algorithm>
#include <array>

namespace kx_mp4::hevc {
namespace {

// The functions below follow the syntax tables of ITU-T H.265, 7.3 and Annex E, line by line. A
// loop whose count the syntax allows to be large also ends as soon as the bits do.

// Limits of 7.4 and Annex E.
constexpr uint32_t kMaxSubLayersMinus1 = 6;
constexpr uint32_t kMaxSpsId = 15;
constexpr uint32_t kMaxPpsId = 63;
constexpr uint32_t kMaxChromaFormat = 3;
constexpr uint32_t kMaxBitDepthMinus8 = 8;
constexpr uint32_t kMaxLog2PocLsbMinus4 = 12;
constexpr uint32_t kMaxDecPicBuffering = 16;
constexpr uint32_t kMaxShortTermRefPicSets = 64;
constexpr uint32_t kMaxLongTermRefPics = 32;
constexpr uint32_t kMaxDeltaPocMinus1 = (1U << 15) - 1;
constexpr uint32_t kMaxElementalDurationMinus1 = 2047;
constexpr uint32_t kMaxCpbCountMinus1 = 31;
constexpr uint32_t kMaxSpatialSegmentation = 4095;
constexpr uint32_t kMaxLayerSetsMinus1 = 1023;
// Sides beyond this belong to no level.
constexpr uint32_t kMaxSide = 65535;

void SkipUe(BitReader& bits, int count) {
    for (int i = 0; i < count; ++i)
        bits.Ue();
}

/// Reads the header of the base layer's unit of this type.
bool ReadBaseHeader(BitReader& bits, const uint8_t* nal, size_t size, NalType type) {
    NalHeader header;
    if (!ParseNalHeader(nal, size, &header)) return false;
    bits.Skip(16);
    return header.type == type && header.layer_id == 0;
}

/// pic_width_in_luma_samples to the conformance window; whether the size is one.
bool ReadPictureSize(BitReader& bits, Sps& sps) {
    sps.width = bits.Ue();
    sps.height = bits.Ue();
    const bool conformanceWindow = bits.Flag();
    uint64_t cutX = 0;
    uint64_t cutY = 0;
    if (conformanceWindow) {
        const uint32_t format = sps.chroma_format_idc;
        const uint32_t unitX = format == 1 || format == 2 ? 2 : 1;
        const uint32_t unitY = format == 1 ? 2 : 1;
        const uint64_t left = bits.Ue();
        cutX = (left + bits.Ue()) * unitX;
        const uint64_t top = bits.Ue();
        cutY = (top + bits.Ue()) * unitY;
    }
    if (sps.width > kMaxSide || sps.height > kMaxSide || cutX >= sps.width || cutY >= sps.height)
        return false;
    sps.width -= static_cast<uint32_t>(cutX);
    sps.height -= static_cast<uint32_t>(cutY);
    return true;
}

/// The ordering of the highest sub-layer, which is the last one written.
struct SubLayerOrdering {
    uint32_t bufferingMinus1 = 0;
    uint32_t reorder = 0;
    bool allowed = true;
};

// vps_ or sps_sub_layer_ordering_info_present_flag and what it announces
SubLayerOrdering ReadSubLayerOrdering(BitReader& bits, uint32_t maxSubLayers) {
    const bool allPresent = bits.Flag();
    SubLayerOrdering ordering;
    for (uint32_t i = allPresent ? 0 : maxSubLayers - 1; i < maxSubLayers; ++i) {
        ordering.bufferingMinus1 = bits.Ue(kMaxDecPicBuffering - 1);
        ordering.reorder = bits.Ue();
        bits.Ue();  // max_latency_increase_plus1
        if (ordering.reorder > ordering.bufferingMinus1) ordering.allowed = false;
    }
    return ordering;
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

Timing ReadTiming(BitReader& bits) {
    Timing timing;
    timing.num_units_in_tick = bits.U(32);
    timing.time_scale = bits.U(32);
    timing.present = bits.Ok();
    return timing;
}

// behind num_units_in_tick and time_scale of a VUI, E.2.1
void SkipTimingDetails(BitReader& bits, uint32_t maxSubLayersMinus1) {
    const bool pocProportional = bits.Flag();
    if (pocProportional) bits.Ue();
    const bool hrdPresent = bits.Flag();
    if (!hrdPresent) return;
    const HrdCommon common = ReadHrdCommon(bits);
    SkipHrdSubLayers(bits, common, maxSubLayersMinus1);
}

// E.2.1
void ReadVui(BitReader& bits, Sps& sps) {
    const VideoSignal signal = ReadVideoSignal(bits);
    bits.Skip(1);  // neutral_chroma_indication_flag
    const bool fieldSeq = bits.Flag();
    bits.Skip(1);  // frame_field_info_present_flag
    if (!bits.Ok()) return;
    sps.signal = signal;
    sps.field_seq = fieldSeq;
    const bool defaultDisplayWindow = bits.Flag();
    if (defaultDisplayWindow) SkipUe(bits, 4);
    const bool timingPresent = bits.Flag();
    if (timingPresent) {
        sps.timing = ReadTiming(bits);
        SkipTimingDetails(bits, sps.max_sub_layers - 1U);
    }
    const bool bitstreamRestriction = bits.Flag();
    if (!bitstreamRestriction) return;
    bits.Skip(3);  // tiles_fixed_structure, motion_vectors_over_pic, restricted_ref_pic_lists
    const uint32_t minSpatialSegmentation = bits.Ue(kMaxSpatialSegmentation);
    SkipUe(bits, 4);
    if (bits.Ok()) sps.min_spatial_segmentation_idc = minSpatialSegmentation;
}

void SkipPcm(BitReader& bits) {
    bits.Skip(4 + 4);
    SkipUe(bits, 2);
    bits.Flag();  // pcm_loop_filter_disabled
}

// log2_min_luma_coding_block_size_minus3 to strong_intra_smoothing_enabled_flag
bool SkipSpsTools(BitReader& bits, uint32_t pocLsbBits) {
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

// sps_video_parameter_set_id to bit_depth_chroma_minus8; `sizeAllowed` tells of the picture size
bool ReadSpsFormat(BitReader& bits, Sps& sps, bool& sizeAllowed) {
    sps.vps_id = static_cast<uint8_t>(bits.U(4));
    const uint32_t maxSubLayersMinus1 = bits.U(3);
    sps.max_sub_layers = static_cast<uint8_t>(maxSubLayersMinus1 + 1);
    sps.temporal_id_nesting = bits.Flag();
    sps.profile = ReadProfileTierLevel(bits, maxSubLayersMinus1);
    sps.id = static_cast<uint8_t>(bits.Ue(kMaxSpsId));
    sps.chroma_format_idc = static_cast<uint8_t>(bits.Ue(kMaxChromaFormat));
    if (sps.chroma_format_idc == 3) sps.separate_colour_plane = bits.Flag();
    sizeAllowed = ReadPictureSize(bits, sps);
    sps.bit_depth_luma = static_cast<uint8_t>(8 + bits.Ue(kMaxBitDepthMinus8));
    sps.bit_depth_chroma = static_cast<uint8_t>(8 + bits.Ue(kMaxBitDepthMinus8));
    return bits.Ok() && maxSubLayersMinus1 <= kMaxSubLayersMinus1;
}

// slice_segment_header_extension_present_flag and before, to entropy_coding_sync_enabled_flag
void ReadParallelism(BitReader& bits, Pps& pps) {
    bits.Skip(1 + 1);  // sign_data_hiding_enabled, cabac_init_present
    SkipUe(bits, 2);   // default numbers of active reference pictures
    bits.Se();         // init_qp_minus26
    bits.Skip(1 + 1);  // constrained_intra_pred, transform_skip_enabled
    const bool cuQpDeltaEnabled = bits.Flag();
    if (cuQpDeltaEnabled) bits.Ue();
    bits.Se();
    bits.Se();
    bits.Skip(4);  // pps_slice_chroma_qp_offsets_present to transquant_bypass_enabled
    const bool tiles = bits.Flag();
    const bool wavefronts = bits.Flag();
    pps.parallelism_known = bits.Ok();
    pps.tiles_enabled = tiles && pps.parallelism_known;
    pps.entropy_coding_sync_enabled = wavefronts && pps.parallelism_known;
}

}  // namespace

bool ParseNalHeader(const uint8_t* nal, size_t size, NalHeader* header) {
    if (size < 2 || (nal[0] & 0x80) != 0 || (nal[1] & 7) == 0) return false;
    header->type = NalUnitType(nal[0]);
    header->layer_id = static_cast<uint8_t>((nal[0] & 1) << 5 | nal[1] >> 3);
    header->temporal_id = static_cast<uint8_t>((nal[1] & 7) - 1);
    return true;
}

// 7.3.3
ProfileTierLevel ReadProfileTierLevel(BitReader& bits, uint32_t maxSubLayersMinus1) {
    ProfileTierLevel general;
    general.profile_space = static_cast<uint8_t>(bits.U(2));
    general.tier_flag = static_cast<uint8_t>(bits.U(1));
    general.profile_idc = static_cast<uint8_t>(bits.U(5));
    general.compatibility_flags = bits.U(32);
    general.constraint_flags = uint64_t{bits.U(16)} << 32;
    general.constraint_flags |= bits.U(32);
    general.level_idc = static_cast<uint8_t>(bits.U(8));
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

bool DescribeVps(const uint8_t* nal, size_t size, Vps* vps) {
    BitReader bits(nal, size);
    if (!ReadBaseHeader(bits, nal, size, kNalVps)) return false;
    Vps out;
    bits.Skip(4 + 2 + 6);  // vps_video_parameter_set_id to vps_max_layers_minus1
    const uint32_t maxSubLayersMinus1 = bits.U(3);
    out.max_sub_layers = static_cast<uint8_t>(maxSubLayersMinus1 + 1);
    bits.Skip(1 + 16);  // vps_temporal_id_nesting_flag, vps_reserved_0xffff_16bits
    out.profile = ReadProfileTierLevel(bits, maxSubLayersMinus1);
    if (!bits.Ok() || maxSubLayersMinus1 > kMaxSubLayersMinus1) return false;
    *vps = out;
    if (!ReadSubLayerOrdering(bits, out.max_sub_layers).allowed) return true;
    const uint32_t layerIds = bits.U(6) + 1;
    const uint32_t layerSetsMinus1 = bits.Ue(kMaxLayerSetsMinus1);
    if (!bits.Ok()) return true;
    bits.Skip(size_t{layerSetsMinus1} * layerIds);  // layer_id_included_flag
    const bool timingPresent = bits.Flag();
    if (timingPresent) vps->timing = ReadTiming(bits);
    return true;
}

bool DescribeSps(const uint8_t* nal, size_t size, Sps* sps) {
    BitReader bits(nal, size);
    if (!ReadBaseHeader(bits, nal, size, kNalSps)) return false;
    Sps out;
    bool sizeAllowed = false;
    if (!ReadSpsFormat(bits, out, sizeAllowed)) return false;
    out.log2_max_pic_order_cnt_lsb = static_cast<uint8_t>(4 + bits.Ue(kMaxLog2PocLsbMinus4));
    const SubLayerOrdering ordering = ReadSubLayerOrdering(bits, out.max_sub_layers);
    out.max_dec_pic_buffering = ordering.bufferingMinus1 + 1;
    out.max_num_reorder_pics = ordering.reorder;
    out.decodable = bits.Ok() && sizeAllowed && ordering.allowed;
    if (SkipSpsTools(bits, out.log2_max_pic_order_cnt_lsb)) {
        const bool vuiPresent = bits.Flag();
        if (vuiPresent) ReadVui(bits, out);
    }
    *sps = out;
    return true;
}

bool DescribePps(const uint8_t* nal, size_t size, Pps* pps) {
    BitReader bits(nal, size);
    if (!ReadBaseHeader(bits, nal, size, kNalPps)) return false;
    Pps out;
    out.id = static_cast<uint8_t>(bits.Ue(kMaxPpsId));
    out.sps_id = static_cast<uint8_t>(bits.Ue(kMaxSpsId));
    if (!bits.Ok()) return false;
    out.dependent_slice_segments_enabled = bits.Flag();
    out.output_flag_present = bits.Flag();
    out.num_extra_slice_header_bits = static_cast<uint8_t>(bits.U(3));
    out.decodable = bits.Ok();
    ReadParallelism(bits, out);
    *pps = out;
    return true;
}

bool ParseSps(const uint8_t* nal, size_t size, Sps* sps) {
    return DescribeSps(nal, size, sps) && sps->decodable;
}

bool ParsePps(const uint8_t* nal, size_t size, Pps* pps) {
    return DescribePps(nal, size, pps) && pps->decodable;
}

bool ParameterSets::Add(const uint8_t* nal, size_t size) {
    NalHeader header;
    if (!ParseNalHeader(nal, size, &header) || header.layer_id != 0) return true;
    if (header.type == kNalSps) return m_sps.Add(ParseSps, nal, size);
    if (header.type == kNalPps) return m_pps.Add(ParsePps, nal, size);
    return true;
}

bool ParseSliceHeader(const uint8_t* nal, size_t size, const ParameterSets& sets,
                      SliceHeader* header) {
    *header = {};
    if (!ParseNalHeader(nal, size, &header->nal)) return false;
    BitReader bits(nal, size);
    bits.Skip(16);
    header->first_slice_segment_in_pic = bits.Flag();
    if (!header->first_slice_segment_in_pic) return bits.Ok();
    if (header->nal.IsIrap()) bits.Skip(1);  // no_output_of_prior_pics_flag
    const uint32_t ppsId = bits.Ue();
    const Pps* pps = bits.Ok() ? sets.FindPps(ppsId) : nullptr;
    const Sps* sps = pps == nullptr ? nullptr : sets.FindSps(pps->sps_id);
    if (sps == nullptr) return false;
    header->pps_id = pps->id;
    header->sps_id = sps->id;
    bits.Skip(pps->num_extra_slice_header_bits);
    bits.Ue();  // slice_type
    if (pps->output_flag_present) header->pic_output = bits.Flag();
    if (sps->separate_colour_plane) bits.Skip(2);
    if (!header->nal.IsIdr()) header->pic_order_cnt_lsb = bits.U(sps->log2_max_pic_order_cnt_lsb);
    return bits.Ok();
}

}  // namespace kx_mp4::hevc
