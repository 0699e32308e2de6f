// The parameter set readers of kxmux: a set that is taken describes a picture that can exist.

#include <cstdint>
#include <cstdlib>

#include "H264Syntax.h"
#include "HevcSyntax.h"

namespace h264 = kx_mp4::h264;
namespace hevc = kx_mp4::hevc;

namespace {

void Require(bool holds) {
    if (!holds) std::abort();
}

void ReadH264(const uint8_t* nal, size_t size) {
    h264::Sps sps;
    if (h264::ParseSps(nal, size, &sps)) {
        Require(sps.width > 0 && sps.height > 0);
        Require(sps.log2_max_frame_num <= 16 && sps.log2_max_pic_order_cnt_lsb <= 16);
        Require(sps.offset_for_ref_frame.size() <= 255 && sps.MaxReorderFrames() <= 16);
    }
    h264::Pps pps;
    h264::ParsePps(nal, size, &pps);
    h264::ParameterSets sets;
    sets.Add(nal, size);
}

void ReadHevc(const uint8_t* nal, size_t size) {
    hevc::Sps sps;
    if (hevc::ParseSps(nal, size, &sps)) {
        Require(sps.width > 0 && sps.height > 0);
        Require(sps.log2_max_pic_order_cnt_lsb <= 16 && sps.max_sub_layers <= 7);
    }
    hevc::Pps pps;
    hevc::ParsePps(nal, size, &pps);
    hevc::ParameterSets sets;
    sets.Add(nal, size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    ReadH264(data, size);
    ReadHevc(data, size);
    return 0;
}
