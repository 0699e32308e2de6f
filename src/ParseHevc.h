/// @file
/// HEVC parameter sets (ITU-T H.265, 7.3.2 and Annex E) and the decoder configuration record that
/// is made of them (ISO/IEC 14496-15, 8.3.3.1).
#ifndef KX_MP4_PARSEHEVC_H
#define KX_MP4_PARSEHEVC_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "HevcSyntax.h"

/// nal_unit_type values that the configuration record is about.
enum NALUnitType {
    NAL_VPS = kx_mp4::hevc::kNalVps,
    NAL_SPS = kx_mp4::hevc::kNalSps,
    NAL_PPS = kx_mp4::hevc::kNalPps,
};

/// One parameter set; the bytes are borrowed.
struct HVCCNALUnit {
    uint16_t len;
    const uint8_t* nal;
};

/// The parameter sets of one type.
struct HVCCNALUnitArray {
    uint8_t array_completeness;  // 1 bit
    uint8_t NAL_unit_type;       // 6 bits
    std::vector<HVCCNALUnit> Nalus;
};

typedef std::vector<HVCCNALUnitArray> ARR_HVCCNALUnitArray;

/// HEVCDecoderConfigurationRecord of ISO/IEC 14496-15, 8.3.3.1.2, field by field.
struct HEVCDecoderConfigurationRecord {
    uint8_t configurationVersion;
    uint8_t general_profile_space;  // 2 bits
    uint8_t general_tier_flag;      // 1 bit
    uint8_t general_profile_idc;    // 5 bits
    uint32_t general_profile_compatibility_flags;
    uint64_t general_constraint_indicator_flags;  // 48 bits
    uint8_t general_level_idc;
    uint16_t min_spatial_segmentation_idc;  // 12 bits
    uint8_t parallelismType;                // 2 bits
    uint8_t chromaFormat;                   // 2 bits
    uint8_t bitDepthLumaMinus8;             // 3 bits
    uint8_t bitDepthChromaMinus8;           // 3 bits
    uint16_t avgFrameRate;
    uint8_t constantFrameRate;   // 2 bits
    uint8_t numTemporalLayers;   // 3 bits
    uint8_t temporalIdNested;    // 1 bit
    uint8_t lengthSizeMinusOne;  // 2 bits
    ARR_HVCCNALUnitArray array;
};

/// Reads parameter sets into a configuration record.
///
/// The sets are given in the order VPS, SPS, PPS. Of each set is read what the record needs; a set
/// in which that is cut off or forbidden is refused, and what stands behind it is not looked at.
/// Nothing is read past a set's end. The record refers to the sets' bytes, which must outlive it.
///
/// Where several sets speak of the same thing, the record says what holds for all of them: the
/// highest profile, tier and level, the flags that all have in common, the smallest segmentation
/// limit, the most temporal layers. Sets of enhancement layers are refused.
class CHevcParser {
public:
    CHevcParser();

    /// Parses one NAL unit without start code, beginning with its two-byte header, merges what it
    /// says into the record and adds it to the array of its type. False when it cannot be parsed
    /// or is not a parameter set; the record is then unchanged.
    bool ParseNAL(const uint8_t* pbNal, int cbNal);

    /// For a set that ParseNAL refuses and that has to be recorded all the same: merges the
    /// profile, tier and level that stand at the beginning of a VPS (`type` 32) or SPS (33), as far
    /// as the set has them, and adds the set to the array of the type.
    void AddUnparsed(uint8_t type, const uint8_t* pbNal, int cbNal);

    /// Completes the record before it is written: a parallelism type says nothing without a
    /// segmentation limit. The arrays keep their sizes; calling it again changes nothing.
    void Finish();

    /// The record, owned by the parser.
    HEVCDecoderConfigurationRecord* GetInfo() { return &m_info; }

private:
    bool ParseSet(uint8_t type, const uint8_t* nal, size_t size);
    bool ParseVps(const uint8_t* nal, size_t size);
    bool ParseSps(const uint8_t* nal, size_t size);
    bool ParsePps(const uint8_t* nal, size_t size);
    void MergeProfile(const kx_mp4::hevc::ProfileTierLevel& profile, uint8_t subLayers);
    HVCCNALUnitArray& ArrayOf(uint8_t type);
    void AddUnit(uint8_t type, const uint8_t* pbNal, size_t size);

    HEVCDecoderConfigurationRecord m_info{};
    bool m_hasProfile = false;
    bool m_hasSps = false;
    bool m_hasPps = false;
    uint8_t m_parallelism = 0;  // parallelismType that the picture parameter sets agree on
};

#endif  // KX_MP4_PARSEHEVC_H
