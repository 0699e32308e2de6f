// Parameter sets cut from an Annex-B stream: the parser refuses or takes each, and the record it
// leaves has only values that fit the fields it is written to.
#include <cstdlib>
#include <vector>

#include "ParseHevc.h"
#include "VideoFrameParser.h"

namespace {

void Require(bool condition) {
    if (!condition) std::abort();
}

void CheckFields(const HEVCDecoderConfigurationRecord& record) {
    Require(record.general_profile_space < 4 && record.general_tier_flag < 2);
    Require(record.general_profile_idc < 32);
    Require(record.general_constraint_indicator_flags >> 48 == 0);
    Require(record.min_spatial_segmentation_idc < 4096 && record.parallelismType < 4);
    Require(record.chromaFormat < 4);
    Require(record.bitDepthLumaMinus8 < 8 && record.bitDepthChromaMinus8 < 8);
    Require(record.constantFrameRate < 4 && record.numTemporalLayers < 8);
    Require(record.temporalIdNested < 2 && record.lengthSizeMinusOne == 3);
}

size_t Units(const HEVCDecoderConfigurationRecord& record) {
    size_t units = 0;
    for (const HVCCNALUnitArray& array : record.array)
        units += array.Nalus.size();
    return units;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CVideoFrameParser frame;
    frame.Parse(data, static_cast<int>(size));
    CHevcParser parser;
    size_t taken = 0;
    for (const VIDEO_SLICE& slice : frame) {
        // A copy of its own, so that a read past its end is seen.
        const std::vector<uint8_t> unit(slice.pbData, slice.pbData + slice.cbData);
        if (parser.ParseNAL(unit.data(), slice.cbData)) ++taken;
    }
    Require(Units(*parser.GetInfo()) == taken);
    parser.Finish();
    Require(Units(*parser.GetInfo()) == taken);
    CheckFields(*parser.GetInfo());
    return 0;
}
