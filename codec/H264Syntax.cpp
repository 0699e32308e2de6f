#include "H264Syntax.h"

#include <algorithm>

#include "BitReader.h"

namespace kx_mp4::h264 {
namespace {

constexpr uint32_t kMaxSpsId = 31;
constexpr uint32_t kMaxPpsId = 255;
constexpr uint32_t kMaxRefIdx = 32;
// Sides beyond this belong to no level, and would not fit the products below.
constexpr uint32_t kMaxSideInMbs = 4096;

enum SliceType : uint8_t { kP = 0, kB = 1, kI = 2, kSp = 3, kSi = 4 };

bool HasChromaInfo(uint8_t profile) {
    constexpr uint8_t kProfiles[] = {44, 83, 86, 100, 110, 118, 122, 128, 134, 135, 138, 139, 244};
    return std::find(std::begin(kProfiles), std::end(kProfiles), profile) != std::end(kProfiles);
}

/// scaling_list(), 7.3.2.1.1.1.
void SkipScalingList(BitReader& bits, int size) {
    int32_t last = 8;
    int32_t next = 8;
    for (int i = 0; i < size && next != 0 && bits.Ok(); ++i) {
        next = static_cast<int32_t>((int64_t{last} + bits.Se()) & 0xFF);
        if (next != 0) last = next;
    }
}

bool ReadChromaInfo(BitReader& bits, Sps& sps) {
    const uint32_t format = bits.Ue();
    if (format > 3) return false;
    sps.chroma_format_idc = static_cast<uint8_t>(format);
    if (format == 3) sps.separate_colour_plane = bits.Flag();
    const uint32_t luma = bits.Ue();
    const uint32_t chroma = bits.Ue();
    if (luma > 6 || chroma > 6) return false;
    sps.bit_depth_luma = static_cast<uint8_t>(8 + luma);
    sps.bit_depth_chroma = static_cast<uint8_t>(8 + chroma);
    bits.Skip(1);  // qpprime_y_zero_transform_bypass_flag
    if (!bits.Flag()) return bits.Ok();
    const int lists = format == 3 ? 12 : 8;
    for (int i = 0; i < lists && bits.Ok(); ++i) {
        if (bits.Flag()) SkipScalingList(bits, i < 6 ? 16 : 64);
    }
    return bits.Ok();
}

bool ReadOrderCount(BitReader& bits, Sps& sps) {
    const uint32_t type = bits.Ue();
    if (type > 2) return false;
    sps.pic_order_cnt_type = static_cast<uint8_t>(type);
    if (type == 0) {
        const uint32_t log2Lsb = bits.Ue();
        if (log2Lsb > 12) return false;
        sps.log2_max_pic_order_cnt_lsb = static_cast<uint8_t>(4 + log2Lsb);
    } else if (type == 1) {
        sps.delta_pic_order_always_zero = bits.Flag();
        sps.offset_for_non_ref_pic = bits.Se();
        sps.offset_for_top_to_bottom_field = bits.Se();
        const uint32_t count = bits.Ue();
        if (count > 255) return false;
        sps.offset_for_ref_frame.resize(count);
        for (int32_t& offset : sps.offset_for_ref_frame)
            offset = bits.Se();
    }
    return bits.Ok();
}

bool ReadPictureSize(BitReader& bits, Sps& sps) {
    const uint32_t width = bits.Ue();
    const uint32_t height = bits.Ue();
    if (width >= kMaxSideInMbs || height >= kMaxSideInMbs) return false;
    sps.frame_mbs_only = bits.Flag();
    const uint32_t fields = sps.frame_mbs_only ? 1 : 2;
    sps.width_in_mbs = width + 1;
    sps.frame_height_in_mbs = (height + 1) * fields;
    if (!sps.frame_mbs_only) bits.Skip(1);  // mb_adaptive_frame_field_flag
    bits.Skip(1);                           // direct_8x8_inference_flag
    sps.width = sps.width_in_mbs * 16;
    sps.height = sps.frame_height_in_mbs * 16;
    if (!bits.Flag()) return bits.Ok();

    // With separate planes ChromaArrayType is 0, and the units are those of monochrome.
    const int format = sps.separate_colour_plane ? 0 : sps.chroma_format_idc;
    const uint32_t unitX = format == 1 || format == 2 ? 2 : 1;
    const uint32_t unitY = (format == 1 ? 2 : 1) * fields;
    const uint64_t left = bits.Ue();
    const uint64_t cutX = (left + bits.Ue()) * unitX;
    const uint64_t top = bits.Ue();
    const uint64_t cutY = (top + bits.Ue()) * unitY;
    if (!bits.Ok() || cutX >= sps.width || cutY >= sps.height) return false;
    sps.width -= static_cast<uint32_t>(cutX);
    sps.height -= static_cast<uint32_t>(cutY);
    return true;
}

/// hrd_parameters(), E.1.2.
bool SkipHrd(BitReader& bits) {
    const uint32_t cpbCount = bits.Ue();
    if (cpbCount > 31) return false;
    bits.Skip(8);  // bit_rate_scale, cpb_size_scale
    for (uint32_t i = 0; i <= cpbCount && bits.Ok(); ++i) {
        bits.Ue();     // bit_rate_value_minus1
        bits.Ue();     // cpb_size_value_minus1
        bits.Skip(1);  // cbr_flag
    }
    bits.Skip(20);  // lengths of the delays and of the time offset
    return bits.Ok();
}

/// vui_parameters(), E.1.1.
bool ReadVui(BitReader& bits, Sps& sps) {
    sps.signal = ReadVideoSignal(bits);
    if (bits.Flag()) {
        sps.num_units_in_tick = bits.U(32);
        sps.time_scale = bits.U(32);
        bits.Skip(1);  // fixed_frame_rate_flag
    }
    const bool nalHrd = bits.Flag();
    if (nalHrd && !SkipHrd(bits)) return false;
    const bool vclHrd = bits.Flag();
    if (vclHrd && !SkipHrd(bits)) return false;
    if (nalHrd || vclHrd) bits.Skip(1);  // low_delay_hrd_flag
    bits.Skip(1);                        // pic_struct_present_flag
    if (!bits.Flag()) return bits.Ok();
    bits.Skip(1);  // motion_vectors_over_pic_boundaries_flag
    bits.Ue();     // max_bytes_per_pic_denom
    bits.Ue();     // max_bits_per_mb_denom
    bits.Ue();     // log2_max_mv_length_horizontal
    bits.Ue();     // log2_max_mv_length_vertical
    sps.max_num_reorder_frames = bits.Ue();
    sps.max_dec_frame_buffering = bits.Ue();
    sps.has_bitstream_restriction = bits.Ok() && sps.max_num_reorder_frames <= 16;
    return sps.has_bitstream_restriction;
}

/// Slice groups of a picture parameter set, 7.3.2.2.
bool SkipSliceGroups(BitReader& bits, uint32_t groups) {
    const uint32_t mapType = bits.Ue();
    if (groups > 8 || mapType > 6) return false;
    if (mapType == 0) {
        for (uint32_t i = 0; i < groups; ++i)
            bits.Ue();
    } else if (mapType == 2) {
        for (uint32_t i = 0; i + 1 < groups; ++i) {
            bits.Ue();
            bits.Ue();
        }
    } else if (mapType >= 3 && mapType <= 5) {
        bits.Skip(1);
        bits.Ue();
    } else if (mapType == 6) {
        const uint64_t units = uint64_t{bits.Ue()} + 1;
        const uint64_t idBits = groups > 4 ? 3 : groups > 2 ? 2 : 1;
        if (units * idBits > bits.BitsLeft()) return false;
        bits.Skip(static_cast<size_t>(units * idBits));
    }
    return bits.Ok();
}

/// Parses one slice header; each step reads one part of the syntax.
class SliceHeaderReader {
public:
    SliceHeaderReader(const uint8_t* nal, size_t size, const ParameterSets& sets, SliceHeader& out)
        : m_bits(nal, size), m_sets(sets), m_out(out) {}

    bool Read() {
        const uint32_t header = m_bits.U(8);
        m_out.nal_unit_type = NalUnitType(static_cast<uint8_t>(header));
        m_out.nal_ref_idc = (header >> 5) & 3;
        if (!ReadStart() || !ReadOrder()) return false;
        if (!m_out.IsReference()) return m_bits.Ok();
        return SkipReferenceLists() && ReadReferenceMarking();
    }

private:
    bool ReadStart() {
        m_out.first_mb_in_slice = m_bits.Ue();
        const uint32_t type = m_bits.Ue();
        const uint32_t ppsId = m_bits.Ue();
        if (!m_bits.Ok() || type > 9 || ppsId > kMaxPpsId) return false;
        m_out.slice_type = static_cast<uint8_t>(type % 5);
        m_out.pps_id = static_cast<uint8_t>(ppsId);
        m_pps = m_sets.FindPps(ppsId);
        m_sps = m_pps == nullptr ? nullptr : m_sets.FindSps(m_pps->sps_id);
        if (m_sps == nullptr) return false;
        m_out.sps_id = m_sps->id;
        return true;
    }

    bool ReadOrder() {
        if (m_sps->separate_colour_plane) m_bits.Skip(2);
        m_out.frame_num = m_bits.U(m_sps->log2_max_frame_num);
        if (!m_sps->frame_mbs_only) {
            m_out.field_pic = m_bits.Flag();
            if (m_out.field_pic) m_out.bottom_field = m_bits.Flag();
        }
        if (m_out.IsIdr()) m_out.idr_pic_id = m_bits.Ue();
        const bool bottomDelta = m_pps->bottom_field_pic_order_in_frame_present && !m_out.field_pic;
        if (m_sps->pic_order_cnt_type == 0) {
            m_out.pic_order_cnt_lsb = m_bits.U(m_sps->log2_max_pic_order_cnt_lsb);
            if (bottomDelta) m_out.delta_pic_order_cnt_bottom = m_bits.Se();
        } else if (m_sps->pic_order_cnt_type == 1 && !m_sps->delta_pic_order_always_zero) {
            m_out.delta_pic_order_cnt[0] = m_bits.Se();
            if (bottomDelta) m_out.delta_pic_order_cnt[1] = m_bits.Se();
        }
        if (m_pps->redundant_pic_cnt_present) m_out.redundant_pic_cnt = m_bits.Ue();
        return m_bits.Ok();
    }

    bool IsType(SliceType a, SliceType b) const {
        return m_out.slice_type == a || m_out.slice_type == b;
    }

    bool SkipReferenceLists() {
        if (m_out.slice_type == kB) m_bits.Skip(1);  // direct_spatial_mv_pred_flag
        if (IsType(kI, kSi)) return m_bits.Ok();
        m_refs = {m_pps->num_ref_idx_l0_default, m_pps->num_ref_idx_l1_default};
        if (m_bits.Flag()) {  // num_ref_idx_active_override_flag
            if (!ReadRefCount(m_refs[0])) return false;
            if (m_out.slice_type == kB && !ReadRefCount(m_refs[1])) return false;
        }
        const int lists = m_out.slice_type == kB ? 2 : 1;
        for (int list = 0; list < lists; ++list) {
            if (m_bits.Flag() && !SkipListModification()) return false;
        }
        const bool weighted = (m_pps->weighted_pred && IsType(kP, kSp)) ||
                              (m_pps->weighted_bipred_idc == 1 && m_out.slice_type == kB);
        return weighted ? SkipWeights(lists) : m_bits.Ok();
    }

    bool ReadRefCount(uint32_t& count) {
        const uint32_t minus1 = m_bits.Ue();
        count = minus1 + 1;
        return minus1 < kMaxRefIdx;
    }

    /// ref_pic_list_modification(), 7.3.3.1.
    bool SkipListModification() {
        while (m_bits.Ok()) {
            const uint32_t operation = m_bits.Ue();
            if (operation == 3) return m_bits.Ok();
            if (operation > 3) return false;
            m_bits.Ue();
        }
        return false;
    }

    /// pred_weight_table(), 7.3.3.2.
    bool SkipWeights(int lists) {
        const bool chroma = m_sps->chroma_format_idc != 0 && !m_sps->separate_colour_plane;
        m_bits.Ue();
        if (chroma) m_bits.Ue();
        for (int list = 0; list < lists; ++list) {
            for (uint32_t i = 0; i < m_refs[static_cast<size_t>(list)] && m_bits.Ok(); ++i) {
                SkipWeight(2);
                if (chroma) SkipWeight(4);
            }
        }
        return m_bits.Ok();
    }

    void SkipWeight(int values) {
        if (!m_bits.Flag()) return;
        for (int i = 0; i < values; ++i)
            m_bits.Se();
    }

    /// dec_ref_pic_marking(), 7.3.3.3.
    bool ReadReferenceMarking() {
        if (m_out.IsIdr()) {
            m_bits.Skip(2);
            return m_bits.Ok();
        }
        if (!m_bits.Flag()) return m_bits.Ok();
        while (m_bits.Ok()) {
            const uint32_t operation = m_bits.Ue();
            if (operation == 0) return m_bits.Ok();
            if (operation > 6) return false;
            if (operation == 5) m_out.resets_order = true;
            if (operation == 3) m_bits.Ue();  // the one with two operands
            if (operation != 5) m_bits.Ue();
        }
        return false;
    }

    BitReader m_bits;
    const ParameterSets& m_sets;
    SliceHeader& m_out;
    const Pps* m_pps = nullptr;
    const Sps* m_sps = nullptr;
    std::array<uint32_t, 2> m_refs{};
};

}  // namespace

uint32_t Sps::MaxDpbFrames() const {
    struct Limit {
        uint8_t level;
        uint32_t maxDpbMbs;
    };
    constexpr Limit kLimits[] = {{9, 396},     {10, 396},    {11, 900},    {12, 2376},
                                 {13, 2376},   {20, 2376},   {21, 4752},   {22, 8100},
                                 {30, 8100},   {31, 18000},  {32, 20480},  {40, 32768},
                                 {41, 32768},  {42, 34816},  {50, 110400}, {51, 184320},
                                 {52, 184320}, {60, 696320}, {61, 696320}, {62, 696320}};
    constexpr uint32_t kMost = 16;
    // Level 1b is written as 11 with constraint_set3_flag by the profiles older than High.
    const bool level1b = level_idc == 11 && profile_idc <= 88 && (constraint_flags & 0x10) != 0;
    const uint8_t level = level1b ? 9 : level_idc;
    const auto* limit = std::find_if(std::begin(kLimits), std::end(kLimits),
                                     [level](const Limit& l) { return l.level == level; });
    const uint32_t mbs = width_in_mbs * frame_height_in_mbs;
    if (limit == std::end(kLimits) || mbs == 0) return kMost;
    return std::min(limit->maxDpbMbs / mbs, kMost);
}

uint32_t Sps::MaxReorderFrames() const {
    if (pic_order_cnt_type == 2) return 0;  // output order is decoding order, 8.2.1.3
    if (has_bitstream_restriction) return max_num_reorder_frames;
    // Intra profiles, for which E.2.1 infers 0.
    constexpr uint8_t kIntra[] = {44, 86, 100, 110, 122, 244};
    const bool intra =
        (constraint_flags & 0x10) != 0 &&
        std::find(std::begin(kIntra), std::end(kIntra), profile_idc) != std::end(kIntra);
    return intra ? 0 : MaxDpbFrames();
}

bool ParseSps(const uint8_t* nal, size_t size, Sps* sps) {
    BitReader bits(nal, size);
    if (NalUnitType(static_cast<uint8_t>(bits.U(8))) != kNalSps) return false;
    Sps out;
    out.profile_idc = static_cast<uint8_t>(bits.U(8));
    out.constraint_flags = static_cast<uint8_t>(bits.U(8));
    out.level_idc = static_cast<uint8_t>(bits.U(8));
    const uint32_t id = bits.Ue();
    if (!bits.Ok() || id > kMaxSpsId) return false;
    out.id = static_cast<uint8_t>(id);
    if (HasChromaInfo(out.profile_idc) && !ReadChromaInfo(bits, out)) return false;
    const uint32_t log2FrameNum = bits.Ue();
    if (log2FrameNum > 12) return false;
    out.log2_max_frame_num = static_cast<uint8_t>(4 + log2FrameNum);
    if (!ReadOrderCount(bits, out)) return false;
    out.max_num_ref_frames = bits.Ue();
    out.gaps_in_frame_num_allowed = bits.Flag();
    if (!ReadPictureSize(bits, out)) return false;
    if (bits.Flag() && !ReadVui(bits, out)) return false;
    if (!bits.Ok()) return false;
    *sps = std::move(out);
    return true;
}

bool ParsePps(const uint8_t* nal, size_t size, Pps* pps) {
    BitReader bits(nal, size);
    if (NalUnitType(static_cast<uint8_t>(bits.U(8))) != kNalPps) return false;
    Pps out;
    const uint32_t id = bits.Ue();
    const uint32_t spsId = bits.Ue();
    if (!bits.Ok() || id > kMaxPpsId || spsId > kMaxSpsId) return false;
    out.id = static_cast<uint8_t>(id);
    out.sps_id = static_cast<uint8_t>(spsId);
    bits.Skip(1);  // entropy_coding_mode_flag
    out.bottom_field_pic_order_in_frame_present = bits.Flag();
    const uint32_t groupsMinus1 = bits.Ue();
    if (groupsMinus1 > 7 || (groupsMinus1 > 0 && !SkipSliceGroups(bits, groupsMinus1 + 1))) {
        return false;
    }
    const uint32_t l0 = bits.Ue();
    const uint32_t l1 = bits.Ue();
    if (l0 >= kMaxRefIdx || l1 >= kMaxRefIdx) return false;
    out.num_ref_idx_l0_default = static_cast<uint8_t>(l0 + 1);
    out.num_ref_idx_l1_default = static_cast<uint8_t>(l1 + 1);
    out.weighted_pred = bits.Flag();
    out.weighted_bipred_idc = static_cast<uint8_t>(bits.U(2));
    for (int i = 0; i < 3; ++i)
        bits.Se();  // initial quantisers, chroma offset
    bits.Skip(2);   // deblocking control, constrained intra prediction
    out.redundant_pic_cnt_present = bits.Flag();
    if (!bits.Ok()) return false;
    *pps = out;
    return true;
}

bool ParameterSets::Add(const uint8_t* nal, size_t size) {
    if (size == 0) return true;
    const uint8_t type = NalUnitType(nal[0]);
    if (type == kNalSps) return m_sps.Add(ParseSps, nal, size);
    if (type == kNalPps) return m_pps.Add(ParsePps, nal, size);
    return true;
}

bool ParseSliceHeader(const uint8_t* nal, size_t size, const ParameterSets& sets,
                      SliceHeader* header) {
    *header = {};
    return SliceHeaderReader(nal, size, sets, *header).Read();
}

bool StartsNewPicture(const SliceHeader& previous, const SliceHeader& current) {
    if (previous.frame_num != current.frame_num || previous.pps_id != current.pps_id ||
        previous.sps_id != current.sps_id || previous.field_pic != current.field_pic ||
        previous.bottom_field != current.bottom_field ||
        previous.IsReference() != current.IsReference() || previous.IsIdr() != current.IsIdr()) {
        return true;
    }
    return previous.idr_pic_id != current.idr_pic_id ||
           previous.pic_order_cnt_lsb != current.pic_order_cnt_lsb ||
           previous.delta_pic_order_cnt_bottom != current.delta_pic_order_cnt_bottom ||
           previous.delta_pic_order_cnt != current.delta_pic_order_cnt;
}

}  // namespace kx_mp4::h264
