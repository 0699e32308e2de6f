/// @file
/// Parameter sets and slice headers of ITU-T H.264 (7.3.2, 7.3.3, Annex E), as far as picture
/// size, picture order and the file's description of the stream need them.
///
/// NAL units are given without start code, beginning with the header byte. Nothing is read past
/// their end; what is cut off or out of its range is refused. Sets of scalable and multiview
/// extensions (subset parameter sets) are not read.
#ifndef KX_MP4_CODEC_H264SYNTAX_H
#define KX_MP4_CODEC_H264SYNTAX_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ParameterSetTable.h"
#include "VideoSignal.h"

namespace kx_mp4::h264 {

/// nal_unit_type, table 7-1.
enum NalType : uint8_t {
    kNalSlice = 1,
    kNalPartitionA = 2,
    kNalIdrSlice = 5,
    kNalSei = 6,
    kNalSps = 7,
    kNalPps = 8,
    kNalAccessUnitDelimiter = 9,
    kNalEndOfSequence = 10,
    kNalEndOfStream = 11,
};

/// Sequence parameter set, 7.3.2.1.1.
struct Sps {
    uint8_t profile_idc = 0;
    uint8_t constraint_flags = 0;  ///< constraint_set0_flag is the highest bit.
    uint8_t level_idc = 0;
    uint8_t id = 0;
    uint8_t chroma_format_idc = 1;
    bool separate_colour_plane = false;
    uint8_t bit_depth_luma = 8;
    uint8_t bit_depth_chroma = 8;
    uint8_t log2_max_frame_num = 4;
    uint8_t pic_order_cnt_type = 0;
    uint8_t log2_max_pic_order_cnt_lsb = 4;
    bool delta_pic_order_always_zero = false;
    int32_t offset_for_non_ref_pic = 0;
    int32_t offset_for_top_to_bottom_field = 0;
    std::vector<int32_t> offset_for_ref_frame;  ///< One per frame of the cycle, at most 255.
    uint32_t max_num_ref_frames = 0;
    bool gaps_in_frame_num_allowed = false;
    uint32_t width_in_mbs = 0;
    uint32_t frame_height_in_mbs = 0;
    bool frame_mbs_only = true;
    uint32_t width = 0;   ///< Luma samples of a frame after cropping.
    uint32_t height = 0;  ///< Luma samples of a frame after cropping.
    /// VUI, Annex E; numbers that the stream does not give are 0.
    VideoSignal signal;
    uint32_t num_units_in_tick = 0;
    uint32_t time_scale = 0;
    bool has_bitstream_restriction = false;
    uint32_t max_num_reorder_frames = 0;
    uint32_t max_dec_frame_buffering = 0;

    /// MaxDpbFrames of the level, A.3.1 h); 16 for a level that the standard does not list.
    uint32_t MaxDpbFrames() const;
    /// The most frames that can precede a frame in decoding order and follow it in output order.
    uint32_t MaxReorderFrames() const;
};

/// Picture parameter set, 7.3.2.2, up to redundant_pic_cnt_present_flag.
struct Pps {
    uint8_t id = 0;
    uint8_t sps_id = 0;
    bool bottom_field_pic_order_in_frame_present = false;
    uint8_t num_ref_idx_l0_default = 1;
    uint8_t num_ref_idx_l1_default = 1;
    bool weighted_pred = false;
    uint8_t weighted_bipred_idc = 0;
    bool redundant_pic_cnt_present = false;
};

/// Slice header, 7.3.3, up to dec_ref_pic_marking.
struct SliceHeader {
    uint8_t nal_unit_type = 0;
    uint8_t nal_ref_idc = 0;
    uint32_t first_mb_in_slice = 0;
    uint8_t slice_type = 0;  ///< 0 to 4: P, B, I, SP, SI.
    uint8_t pps_id = 0;
    uint8_t sps_id = 0;
    uint32_t frame_num = 0;
    bool field_pic = false;
    bool bottom_field = false;
    uint32_t idr_pic_id = 0;
    uint32_t pic_order_cnt_lsb = 0;
    int32_t delta_pic_order_cnt_bottom = 0;
    std::array<int32_t, 2> delta_pic_order_cnt{};
    uint32_t redundant_pic_cnt = 0;
    bool resets_order = false;  ///< memory_management_control_operation 5 is there.

    bool IsIdr() const { return nal_unit_type == kNalIdrSlice; }
    bool IsReference() const { return nal_ref_idc != 0; }
};

inline uint8_t NalUnitType(uint8_t header) {
    return header & 0x1F;
}

bool ParseSps(const uint8_t* nal, size_t size, Sps* sps);
bool ParsePps(const uint8_t* nal, size_t size, Pps* pps);

/// The parameter sets that a stream has sent so far.
class ParameterSets : public ParameterSetTables<Sps, 32, Pps, 256> {
public:
    /// Keeps the set that the unit holds; false when it is a set that cannot be read. Units of
    /// other types are ignored.
    bool Add(const uint8_t* nal, size_t size);
};

/// Reads the header of a slice (nal_unit_type 1 or 5, or 2 of a data-partitioned slice). False
/// also when the parameter sets it refers to are not there.
bool ParseSliceHeader(const uint8_t* nal, size_t size, const ParameterSets& sets,
                      SliceHeader* header);

/// Whether `current` is the first slice of another primary coded picture than `previous`,
/// 7.4.1.2.4. Slices of redundant pictures (redundant_pic_cnt not 0) must be left out.
bool StartsNewPicture(const SliceHeader& previous, const SliceHeader& current);

}  // namespace kx_mp4::h264

#endif  // KX_MP4_CODEC_H264SYNTAX_H
