/// @file
/// Parameter sets and slice segment headers of ITU-T H.265 (7.3.2, 7.3.6), as far as picture size
/// and picture order need them.
///
/// NAL units are given without start code, beginning with the two-byte header. Nothing is read
/// past their end; what is cut off or out of its range is refused.
#ifndef KXMUX_HEVCSYNTAX_H
#define KXMUX_HEVCSYNTAX_H

#include <cstddef>
#include <cstdint>

#include "ParameterSetTable.h"

namespace kxmux::hevc {

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

/// False when there are fewer than two bytes, forbidden_zero_bit is set or the temporal ID is 0.
bool ParseNalHeader(const uint8_t* nal, size_t size, NalHeader* header);

/// Sequence parameter set, 7.3.2.2.1, up to the sub-layer ordering.
struct Sps {
    uint8_t id = 0;
    uint8_t vps_id = 0;
    uint8_t max_sub_layers = 1;
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
};

/// Picture parameter set, 7.3.2.3.1, up to num_extra_slice_header_bits.
struct Pps {
    uint8_t id = 0;
    uint8_t sps_id = 0;
    bool dependent_slice_segments_enabled = false;
    bool output_flag_present = false;
    uint8_t num_extra_slice_header_bits = 0;
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

bool ParseSps(const uint8_t* nal, size_t size, Sps* sps);
bool ParsePps(const uint8_t* nal, size_t size, Pps* pps);

/// How long a picture lasts: num_units_in_tick / time_scale seconds.
struct Timing {
    uint32_t num_units_in_tick = 0;
    uint32_t time_scale = 0;
};

/// The timing in the VUI of a sequence parameter set, E.2.1; false when there is none.
bool ParseSpsTiming(const uint8_t* nal, size_t size, Timing* timing);
/// The timing in a video parameter set, 7.3.2.1; false when there is none.
bool ParseVpsTiming(const uint8_t* nal, size_t size, Timing* timing);

/// The parameter sets of the base layer that a stream has sent so far.
class ParameterSets {
public:
    /// Keeps the set that the unit holds; false when it is a set that cannot be read. Units of
    /// other types and layers are ignored.
    bool Add(const uint8_t* nal, size_t size);
    /// Null when the stream has not sent the set.
    const Sps* FindSps(uint32_t id) const { return m_sps.Find(id); }
    const Pps* FindPps(uint32_t id) const { return m_pps.Find(id); }

private:
    ParameterSetTable<Sps, 16> m_sps;
    ParameterSetTable<Pps, 64> m_pps;
};

/// Reads the header of a slice segment. False also when the parameter sets it refers to are not
/// there.
bool ParseSliceHeader(const uint8_t* nal, size_t size, const ParameterSets& sets,
                      SliceHeader* header);

}  // namespace kxmux::hevc

#endif  // KXMUX_HEVCSYNTAX_H
