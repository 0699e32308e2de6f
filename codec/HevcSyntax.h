/// @file
/// Parameter sets and slice segment headers of ITU-T H.265 (7.3.2, 7.3.6), as far as picture size,
/// picture order and the file's description of the stream need them.
///
/// NAL units are given without start code, beginning with the two-byte header. Nothing is read
/// past their end; what is cut off or out of its range is refused. What a set holds behind the
/// fields that are needed is not looked at: encoders put bits there that no table knows, and every
/// decoder takes them.
#ifndef KX_MP4_CODEC_HEVCSYNTAX_H
#define KX_MP4_CODEC_HEVCSYNTAX_H

#include <cstddef>
#include <cstdint>

#include "BitReader.h"
#include "ParameterSetTable.h"
#include "VideoSignal.h"

namespace kx_mp4::hevc {

/// nal_unit_type, table 7-1.
enum NalType : uint8_t {
    kNalTrailN = 0,
    kNalRadlN = 6,
    kNalRaslN = 8,
    kNalRaslR = 9,
    kNalReservedNonIrapLast = 15,
    kNalBlaWLp = 16,
    kNalBlaNLp = 18,
    kNalIdrWRadl = 19,
    kNalIdrNLp = 20,
    kNalCra = 21,
    kNalReservedIrapLast = 23,
    kNalVclLast = 31,
    kNalVps = 32,
    kNalSps = 33,
    kNalPps = 34,
    kNalAccessUnitDelimiter = 35,
    kNalEndOfSequence = 36,
    kNalEndOfBitstream = 37,
    kNalPrefixSei = 39,
    kNalSuffixSei = 40,
};

/// The two-byte NAL unit header, 7.3.1.2.
struct NalHeader {
    uint8_t type = 0;
    uint8_t layer_id = 0;
    uint8_t temporal_id = 0;

    bool IsSlice() const { return type <= kNalVclLast; }
    bool IsIrap() const { return type >= kNalBlaWLp && type <= kNalReservedIrapLast; }
    bool IsIdr() const { return type == kNalIdrWRadl || type == kNalIdrNLp; }
    bool IsBla() const { return type >= kNalBlaWLp && type <= kNalBlaNLp; }
    bool IsRasl() const { return type == kNalRaslN || type == kNalRaslR; }
    bool IsLeading() const { return type >= kNalRadlN && type <= kNalRaslR; }
    /// Sub-layer non-reference picture: the even types below RSV_VCL_R15.
    bool IsSubLayerNonReference() const { return type < kNalReservedNonIrapLast && type % 2 == 0; }
};

/// nal_unit_type of a header by its first byte.
inline uint8_t NalUnitType(uint8_t header) {
    return header >> 1 & 0x3F;
}

/// False when there are fewer than two bytes, forbidden_zero_bit is set or the temporal ID is 0.
bool ParseNalHeader(const uint8_t* nal, size_t size, NalHeader* header);

/// The general part of profile_tier_level(), 7.3.3.
struct ProfileTierLevel {
    uint8_t profile_space = 0;
    uint8_t tier_flag = 0;
    uint8_t profile_idc = 0;
    uint32_t compatibility_flags =
        0;                          ///< general_profile_compatibility_flag[0] is the highest bit.
    uint64_t constraint_flags = 0;  ///< 48 bits, general_progressive_source_flag the highest.
    uint8_t level_idc = 0;
};

/// How long a picture lasts: num_units_in_tick / time_scale seconds.
struct Timing {
    bool present = false;
    uint32_t num_units_in_tick = 0;
    uint32_t time_scale = 0;
};

/// Video parameter set, 7.3.2.1, up to the timing.
struct Vps {
    uint8_t max_sub_layers = 1;
    ProfileTierLevel profile;
    Timing timing;  ///< Not present in a set that cannot be read so far.
};

/// Sequence parameter set, 7.3.2.2.1.
struct Sps {
    uint8_t id = 0;
    uint8_t vps_id = 0;
    uint8_t max_sub_layers = 1;
    bool temporal_id_nesting = false;
    ProfileTierLevel profile;
    uint8_t chroma_format_idc = 1;
    bool separate_colour_plane = false;
    uint32_t width = 0;   ///< Luma samples inside the conformance window.
    uint32_t height = 0;  ///< Luma samples inside the conformance window.
    uint8_t bit_depth_luma = 8;
    uint8_t bit_depth_chroma = 8;
    uint8_t log2_max_pic_order_cnt_lsb = 4;
    /// Of the highest sub-layer.
    uint32_t max_dec_pic_buffering = 1;
    uint32_t max_num_reorder_pics = 0;
    /// Whether the picture size and everything up to the sub-layer ordering is there and allowed.
    bool decodable = false;
    /// VUI, E.2.1; what stands behind something that cannot be read is not present, or 0.
    VideoSignal signal;
    bool field_seq = false;
    Timing timing;
    uint32_t min_spatial_segmentation_idc = 0;
};

/// Picture parameter set, 7.3.2.3.1, up to entropy_coding_sync_enabled_flag.
struct Pps {
    uint8_t id = 0;
    uint8_t sps_id = 0;
    /// Whether the fields that slice headers depend on could be read.
    bool decodable = false;
    bool dependent_slice_segments_enabled = false;
    bool output_flag_present = false;
    uint8_t num_extra_slice_header_bits = 0;
    /// Whether these two could be read.
    bool parallelism_known = false;
    bool tiles_enabled = false;
    bool entropy_coding_sync_enabled = false;
};

/// Slice segment header, 7.3.6.1. Of a segment that is not the first of its picture, only the
/// first two fields are read.
struct SliceHeader {
    NalHeader nal;
    bool first_slice_segment_in_pic = false;
    uint8_t pps_id = 0;
    uint8_t sps_id = 0;
    bool pic_output = true;
    uint32_t pic_order_cnt_lsb = 0;
};

/// Reads the general profile, tier and level at the reader's position and passes over those of the
/// sub-layers.
ProfileTierLevel ReadProfileTierLevel(BitReader& bits, uint32_t maxSubLayersMinus1);

// What the description of a stream in a file takes from a set of the base layer. False when not
// even that is there: for VPS and SPS profile, tier and level, of the SPS also the picture format,
// of the PPS its number.
bool DescribeVps(const uint8_t* nal, size_t size, Vps* vps);
bool DescribeSps(const uint8_t* nal, size_t size, Sps* sps);
bool DescribePps(const uint8_t* nal, size_t size, Pps* pps);

// False also when a decoder could not use the set.
bool ParseSps(const uint8_t* nal, size_t size, Sps* sps);
bool ParsePps(const uint8_t* nal, size_t size, Pps* pps);

/// The parameter sets of the base layer that a stream has sent so far.
class ParameterSets : public ParameterSetTables<Sps, 16, Pps, 64> {
public:
    /// Keeps the set that the unit holds; false when it is a set that cannot be read. Units of
    /// other types and layers are ignored.
    bool Add(const uint8_t* nal, size_t size);
};

/// Reads the header of a slice segment. False also when the parameter sets it refers to are not
/// there.
bool ParseSliceHeader(const uint8_t* nal, size_t size, const ParameterSets& sets,
                      SliceHeader* header);

}  // namespace kx_mp4::hevc

#endif  // KX_MP4_CODEC_HEVCSYNTAX_H
