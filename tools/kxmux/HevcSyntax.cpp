#include "HevcSyntax.h"

#include <algorithm>
#include <vector>

#include "BitReader.h"

using kx_mp4::BitReader;

namespace kxmux::hevc {
namespace {

constexpr uint32_t kMaxSpsId = 15;
constexpr uint32_t kMaxPpsId = 63;
constexpr uint32_t kMaxDpbSize = 16;
constexpr uint32_t kMaxSubLayersMinus1 = 6;
// Sides beyond this belong to no level.
constexpr uint32_t kMaxSide = 65535;

/// Reads the header of the base layer's unit of this type.
bool ReadBaseHeader(BitReader& bits, const uint8_t* nal, size_t size, NalType type) {
    NalHeader header;
    if (!ParseNalHeader(nal, size, &header)) return false;
    bits.Skip(16);
    return header.type == type && header.layer_id == 0;
}

/// profile_tier_level(1, maxSubLayersMinus1), 7.3.3.
void SkipProfileTierLevel(BitReader& bits, uint32_t maxSubLayersMinus1) {
    constexpr size_t kProfileBits = 88;
    constexpr size_t kLevelBits = 8;
    bits.Skip(kProfileBits + kLevelBits);
    if (maxSubLayersMinus1 == 0) return;
    const uint32_t present = bits.U(16);  // two flags for each of eight sub-layers
    for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
        if ((present >> (15 - 2 * i)) & 1) bits.Skip(kProfileBits);
        if ((present >> (14 - 2 * i)) & 1) bits.Skip(kLevelBits);
    }
}

bool ReadPictureSize(BitReader& bits, Sps& sps) {
    const uint32_t format = bits.Ue();
    if (format > 3) return false;
    sps.chroma_format_idc = static_cast<uint8_t>(format);
    if (format == 3) sps.separate_colour_plane = bits.Flag();
    sps.width = bits.Ue();
    sps.height = bits.Ue();
    if (!bits.Ok() || sps.width > kMaxSide || sps.height > kMaxSide) return false;
    if (!bits.Flag()) return sps.width > 0 && sps.height > 0;
    const uint32_t unitX = format == 1 || format == 2 ? 2 : 1;
    const uint32_t unitY = format == 1 ? 2 : 1;
    const uint64_t left = bits.Ue();
    const uint64_t cutX = (left + bits.Ue()) * unitX;
    const uint64_t top = bits.Ue();
    const uint64_t cutY = (top + bits.Ue()) * unitY;
    if (!bits.Ok() || cutX >= sps.width || cutY >= sps.height) return false;
    sps.width -= static_cast<uint32_t>(cutX);
    sps.height -= static_cast<uint32_t>(cutY);
    return true;
}

/// Keeps the values of the highest sub-layer, which is the last one written.
bool ReadSubLayerOrdering(BitReader& bits, Sps& sps) {
    const bool allPresent = bits.Flag();
    for (uint32_t i = allPresent ? 0 : sps.max_sub_layers - 1u; i < sps.max_sub_layers; ++i) {
        const uint32_t bufferingMinus1 = bits.Ue();
        const uint32_t reorder = bits.Ue();
        bits.Ue();  // sps_max_latency_increase_plus1
        if (!bits.Ok() || bufferingMinus1 >= kMaxDpbSize || reorder > bufferingMinus1) return false;
        sps.max_dec_pic_buffering = bufferingMinus1 + 1;
        sps.max_num_reorder_pics = reorder;
    }
    return true;
}

/// The set up to the sub-layer ordering; the reader stands behind it.
bool ReadSps(BitReader& bits, const uint8_t* nal, size_t size, Sps* sps) {
    if (!ReadBaseHeader(bits, nal, size, kNalSps)) return false;
    Sps out;
    out.vps_id = static_cast<uint8_t>(bits.U(4));
    const uint32_t maxSubLayersMinus1 = bits.U(3);
    if (maxSubLayersMinus1 > kMaxSubLayersMinus1) return false;
    out.max_sub_layers = static_cast<uint8_t>(maxSubLayersMinus1 + 1);
    bits.Skip(1);  // sps_temporal_id_nesting_flag
    SkipProfileTierLevel(bits, maxSubLayersMinus1);
    const uint32_t id = bits.Ue();
    if (!bits.Ok() || id > kMaxSpsId) return false;
    out.id = static_cast<uint8_t>(id);
    if (!ReadPictureSize(bits, out)) return false;
    const uint32_t lumaMinus8 = bits.Ue();
    const uint32_t chromaMinus8 = bits.Ue();
    const uint32_t log2LsbMinus4 = bits.Ue();
    if (!bits.Ok() || lumaMinus8 > 8 || chromaMinus8 > 8 || log2LsbMinus4 > 12) return false;
    out.bit_depth_luma = static_cast<uint8_t>(8 + lumaMinus8);
    out.bit_depth_chroma = static_cast<uint8_t>(8 + chromaMinus8);
    out.log2_max_pic_order_cnt_lsb = static_cast<uint8_t>(4 + log2LsbMinus4);
    if (!ReadSubLayerOrdering(bits, out)) return false;
    *sps = out;
    return true;
}

void SkipUe(BitReader& bits, int count) {
    for (int i = 0; i < count; ++i)
        bits.Ue();
}

/// scaling_list_data(), 7.3.4.
void SkipScalingLists(BitReader& bits) {
    for (int sizeId = 0; sizeId < 4; ++sizeId) {
        for (int matrix = 0; matrix < 6 && bits.Ok(); matrix += sizeId == 3 ? 3 : 1) {
            const bool coded = bits.Flag();
            if (!coded) bits.Ue();  // scaling_list_pred_matrix_id_delta
            const int coefficients = std::min(64, 1 << (4 + 2 * sizeId));
            if (coded) SkipUe(bits, coefficients + (sizeId > 1 ? 1 : 0));
        }
    }
}

/// st_ref_pic_set(), 7.3.7: the differences of picture order count to the pictures before, nearest
/// first, and then to those after, nearest first.
using RefPicSet = std::vector<int64_t>;

RefPicSet ReadRefPicSet(BitReader& bits) {
    const uint32_t negative = bits.Ue(kMaxDpbSize);
    const uint32_t positive = bits.Ue(kMaxDpbSize - std::min(negative, kMaxDpbSize));
    RefPicSet set;
    int64_t difference = 0;
    for (uint32_t i = 0; i < negative + positive && bits.Ok(); ++i) {
        if (i == negative) difference = 0;
        const int64_t step = int64_t{bits.Ue()} + 1;
        difference += i < negative ? -step : step;
        bits.Skip(1);  // used_by_curr_pic
        set.push_back(difference);
    }
    return set;
}

/// A set that is told by its differences to the one before, equations 7-61 and 7-62.
RefPicSet ReadPredictedRefPicSet(BitReader& bits, const RefPicSet& from) {
    const bool negative = bits.Flag();
    const int64_t distance = int64_t{bits.Ue()} + 1;
    const int64_t delta = negative ? -distance : distance;
    RefPicSet set;
    for (size_t i = 0; i <= from.size() && bits.Ok(); ++i) {
        const bool kept = bits.Flag() || bits.Flag();  // used_by_curr_pic, use_delta
        const int64_t difference = delta + (i < from.size() ? from[i] : 0);
        if (kept && difference != 0) set.push_back(difference);
    }
    std::sort(set.begin(), set.end(), [](int64_t a, int64_t b) {
        if ((a < 0) != (b < 0)) return a < 0;
        return a < 0 ? a > b : a < b;
    });
    return set;
}

bool SkipRefPicSets(BitReader& bits) {
    constexpr uint32_t kMaxSets = 64;
    const uint32_t count = bits.Ue(kMaxSets);
    RefPicSet set;
    for (uint32_t i = 0; i < count && bits.Ok(); ++i) {
        const bool predicted = i > 0 && bits.Flag();
        set = predicted ? ReadPredictedRefPicSet(bits, set) : ReadRefPicSet(bits);
        if (set.size() > kMaxDpbSize) return false;
    }
    return bits.Ok();
}

/// log2_min_luma_coding_block_size_minus3 to strong_intra_smoothing_enabled_flag.
bool SkipSpsTools(BitReader& bits, const Sps& sps) {
    SkipUe(bits, 6);  // sizes of coding and transform blocks
    const bool scalingEnabled = bits.Flag();
    if (scalingEnabled && bits.Flag()) SkipScalingLists(bits);
    bits.Skip(2);  // amp_enabled, sample_adaptive_offset_enabled
    if (bits.Flag()) {
        bits.Skip(8);  // bit depths of PCM
        SkipUe(bits, 2);
        bits.Skip(1);
    }
    if (!SkipRefPicSets(bits)) return false;
    if (bits.Flag()) {
        const uint32_t count = bits.Ue(32);
        for (uint32_t i = 0; i < count && bits.Ok(); ++i)
            bits.Skip(sps.log2_max_pic_order_cnt_lsb + 1u);
    }
    bits.Skip(2);  // sps_temporal_mvp_enabled, strong_intra_smoothing_enabled
    return bits.Ok();
}

/// vui_parameters() up to vui_timing_info_present_flag, E.2.1.
void SkipVuiBeforeTiming(BitReader& bits) {
    constexpr uint32_t kExtendedSar = 255;
    if (bits.Flag() && bits.U(8) == kExtendedSar) bits.Skip(32);
    if (bits.Flag()) bits.Skip(1);  // overscan
    if (bits.Flag()) {
        bits.Skip(4);                    // video_format, video_full_range_flag
        if (bits.Flag()) bits.Skip(24);  // colour description
    }
    if (bits.Flag()) SkipUe(bits, 2);  // chroma sample location
    bits.Skip(3);                      // neutral_chroma_indication, field_seq, frame_field_info
    if (bits.Flag()) SkipUe(bits, 4);  // default display window
}

bool ReadTiming(BitReader& bits, Timing* timing) {
    if (!bits.Flag()) return false;
    timing->num_units_in_tick = bits.U(32);
    timing->time_scale = bits.U(32);
    return bits.Ok();
}

}  // namespace

bool ParseNalHeader(const uint8_t* nal, size_t size, NalHeader* header) {
    if (size < 2 || (nal[0] & 0x80) != 0 || (nal[1] & 7) == 0) return false;
    header->type = (nal[0] >> 1) & 0x3F;
    header->layer_id = static_cast<uint8_t>((nal[0] & 1) << 5 | nal[1] >> 3);
    header->temporal_id = static_cast<uint8_t>((nal[1] & 7) - 1);
    return true;
}

bool ParseSps(const uint8_t* nal, size_t size, Sps* sps) {
    BitReader bits(nal, size);
    return ReadSps(bits, nal, size, sps);
}

bool ParseSpsTiming(const uint8_t* nal, size_t size, Timing* timing) {
    BitReader bits(nal, size);
    Sps sps;
    if (!ReadSps(bits, nal, size, &sps) || !SkipSpsTools(bits, sps)) return false;
    if (!bits.Flag()) return false;  // vui_parameters_present_flag
    SkipVuiBeforeTiming(bits);
    return ReadTiming(bits, timing);
}

bool ParseVpsTiming(const uint8_t* nal, size_t size, Timing* timing) {
    BitReader bits(nal, size);
    if (!ReadBaseHeader(bits, nal, size, kNalVps)) return false;
    bits.Skip(4 + 2 + 6);  // vps_video_parameter_set_id to vps_max_layers_minus1
    const uint32_t maxSubLayersMinus1 = bits.U(3);
    if (maxSubLayersMinus1 > kMaxSubLayersMinus1) return false;
    bits.Skip(1 + 16);  // vps_temporal_id_nesting_flag, vps_reserved_0xffff_16bits
    SkipProfileTierLevel(bits, maxSubLayersMinus1);
    Sps ordering;
    ordering.max_sub_layers = static_cast<uint8_t>(maxSubLayersMinus1 + 1);
    if (!ReadSubLayerOrdering(bits, ordering)) return false;
    constexpr uint32_t kMaxLayerSetsMinus1 = 1023;
    const uint32_t layerIds = bits.U(6) + 1;
    const uint32_t layerSetsMinus1 = bits.Ue(kMaxLayerSetsMinus1);
    if (!bits.Ok()) return false;
    bits.Skip(size_t{layerSetsMinus1} * layerIds);  // layer_id_included_flag
    return ReadTiming(bits, timing);
}

bool ParsePps(const uint8_t* nal, size_t size, Pps* pps) {
    BitReader bits(nal, size);
    if (!ReadBaseHeader(bits, nal, size, kNalPps)) return false;
    const uint32_t id = bits.Ue();
    const uint32_t spsId = bits.Ue();
    if (!bits.Ok() || id > kMaxPpsId || spsId > kMaxSpsId) return false;
    Pps out;
    out.id = static_cast<uint8_t>(id);
    out.sps_id = static_cast<uint8_t>(spsId);
    out.dependent_slice_segments_enabled = bits.Flag();
    out.output_flag_present = bits.Flag();
    out.num_extra_slice_header_bits = static_cast<uint8_t>(bits.U(3));
    if (!bits.Ok()) return false;
    *pps = out;
    return true;
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

}  // namespace kxmux::hevc
