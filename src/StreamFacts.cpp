#include "StreamFacts.h"

#include <cstring>
#include <iterator>
#include <numeric>

#include "H264Syntax.h"
#include "HevcSyntax.h"
#include "ProResHeader.h"
#include "SeiMessages.h"
#include "VideoSignal.h"

namespace kx_mp4 {
namespace {

struct Ratio {
    uint32_t width = 0;
    uint32_t height = 0;
};

/// By aspect_ratio_idc; ITU-T H.264, table E-1.
constexpr Ratio kAspectRatios[] = {{0, 0},   {1, 1},    {12, 11}, {10, 11}, {16, 11}, {40, 33},
                                   {24, 11}, {20, 11},  {32, 11}, {80, 33}, {18, 11}, {15, 11},
                                   {64, 33}, {160, 99}, {4, 3},   {3, 2},   {2, 1}};
constexpr uint8_t kExtendedSar = 255;

/// Of the stream's parameter sets; what it does not say is as VideoSignal has it.
VideoSignal SignalOf(const mp4_video_track_info_t& track) {
    if (track.codec == MP4_MVC_H264) {
        h264::Sps sps;
        const mp4_h264_parameter_set_t& sets = track.h264;
        if (h264::ParseSps(sets.sps, static_cast<size_t>(sets.sps_size), &sps)) return sps.signal;
    } else {
        hevc::Sps sps;
        const mp4_hevc_parameter_set_t& sets = track.hevc;
        if (hevc::DescribeSps(sets.sps, static_cast<size_t>(sets.sps_size), &sps))
            return sps.signal;
    }
    return {};
}

Ratio PixelAspect(const VideoSignal& signal) {
    if (signal.aspect_ratio_idc == kExtendedSar) return {signal.sar_width, signal.sar_height};
    if (signal.aspect_ratio_idc < std::size(kAspectRatios))
        return kAspectRatios[signal.aspect_ratio_idc];
    return {};
}

/// Of a pixel, in a picture that is shown 4:3 or 16:9.
Ratio PixelAspect(const ProResHeader& header) {
    constexpr Ratio kPictures[] = {{0, 0}, {0, 0}, {4, 3}, {16, 9}};
    if (header.aspect_ratio_information == 1) return {1, 1};
    if (header.aspect_ratio_information >= std::size(kPictures)) return {};
    const Ratio picture = kPictures[header.aspect_ratio_information];
    const Ratio pixel{picture.width * header.height, picture.height * header.width};
    const uint32_t common = std::gcd(pixel.width, pixel.height);
    return common == 0 ? pixel : Ratio{pixel.width / common, pixel.height / common};
}

/// Of a picture in fields the first one, of a frame the one that is shown first.
mp4_field_order_t FieldOrder(const FirstPicture& picture) {
    h264::ParameterSets sets;
    const mp4_h264_parameter_set_t& given = picture.track.h264;
    h264::Sps sps;
    if (!h264::ParseSps(given.sps, static_cast<size_t>(given.sps_size), &sps) || sps.frame_mbs_only)
        return MP4_FIELDS_NOT_SAID;
    sets.Add(given.sps, static_cast<size_t>(given.sps_size));
    sets.Add(given.pps, static_cast<size_t>(given.pps_size));
    for (const VIDEO_SLICE& unit : picture.units) {
        h264::SliceHeader slice;
        const auto size = static_cast<size_t>(unit.cbData);
        if (!h264::ParseSliceHeader(unit.pbData, size, sets, &slice)) continue;
        if (slice.field_pic)
            return slice.bottom_field ? MP4_FIELDS_BOTTOM_FIRST : MP4_FIELDS_TOP_FIRST;
        if (slice.delta_pic_order_cnt_bottom == 0) return MP4_FIELDS_NOT_SAID;
        return slice.delta_pic_order_cnt_bottom < 0 ? MP4_FIELDS_BOTTOM_FIRST
                                                    : MP4_FIELDS_TOP_FIRST;
    }
    return MP4_FIELDS_NOT_SAID;
}

void SetAspect(Ratio pixel, mp4_video_shape_t& shape) {
    if (shape.pixel_width != 0 || pixel.width == 0 || pixel.height == 0) return;
    shape.pixel_width = pixel.width;
    shape.pixel_height = pixel.height;
}

bool IsColourGiven(const mp4_video_colour_t& colour) {
    return (colour.primaries | colour.transfer | colour.matrix) != 0 || colour.full_range != 0;
}

void TakeLight(const VIDEO_SLICE& unit, size_t headerSize, mp4_video_colour_t& colour) {
    constexpr uint32_t kMasteringDisplay = 137;
    constexpr uint32_t kContentLight = 144;
    const bool wantsDisplay = colour.has_mastering_display == 0;
    const bool wantsLight = colour.has_content_light == 0;
    VisitSeiMessages(
        unit.pbData, static_cast<size_t>(unit.cbData), headerSize,
        [&](uint32_t type, uint32_t bytes, BitReader& bits) {
            if (type == kMasteringDisplay && wantsDisplay && bytes >= 24) {
                const MasteringDisplay display = ReadMasteringDisplay(bits);
                static_assert(sizeof colour.display_primaries == sizeof display.primaries);
                std::memcpy(colour.display_primaries, &display.primaries, sizeof display.primaries);
                std::memcpy(colour.white_point, &display.white_point, sizeof display.white_point);
                colour.max_luminance = display.max_luminance;
                colour.min_luminance = display.min_luminance;
                colour.has_mastering_display = 1;
            }
            if (type == kContentLight && wantsLight && bytes >= 4) {
                const ContentLight light = ReadContentLight(bits);
                colour.max_content_light_level = light.max_content_light_level;
                colour.max_frame_average_light_level = light.max_pic_average_light_level;
                colour.has_content_light = 1;
            }
        });
}

}  // namespace

void TakeShape(const FirstPicture& picture, mp4_video_shape_t& shape) {
    if (picture.track.codec != MP4_MVC_PRORES) {
        SetAspect(PixelAspect(SignalOf(picture.track)), shape);
        if (picture.track.codec == MP4_MVC_H264 && shape.field_order == MP4_FIELDS_NOT_SAID)
            shape.field_order = FieldOrder(picture);
        return;
    }
    const auto header = ReadProResHeader(picture.bytes, picture.size);
    if (!header) return;
    SetAspect(PixelAspect(*header), shape);
    constexpr mp4_field_order_t kOrders[] = {MP4_FIELDS_PROGRESSIVE, MP4_FIELDS_TOP_FIRST,
                                             MP4_FIELDS_BOTTOM_FIRST, MP4_FIELDS_NOT_SAID};
    if (shape.field_order == MP4_FIELDS_NOT_SAID)
        shape.field_order = kOrders[header->interlace_mode];
}

void TakeColour(const FirstPicture& picture, mp4_video_colour_t& colour) {
    if (picture.track.codec == MP4_MVC_PRORES) {
        const auto header = ReadProResHeader(picture.bytes, picture.size);
        if (!header || IsColourGiven(colour)) return;
        colour.primaries = header->colour_primaries;
        colour.transfer = header->transfer_characteristic;
        colour.matrix = header->matrix_coefficients;
        return;
    }
    const VideoSignal signal = SignalOf(picture.track);
    if (signal.has_video_signal_type && !IsColourGiven(colour)) {
        colour.primaries = signal.colour_primaries;
        colour.transfer = signal.transfer_characteristics;
        colour.matrix = signal.matrix_coeffs;
        colour.full_range = signal.video_full_range ? 1 : 0;
    }
    const bool hevc = picture.track.codec == MP4_MVC_HEVC;
    for (const VIDEO_SLICE& unit : picture.units) {
        const uint8_t header = unit.pbData[0];
        if (hevc ? hevc::NalUnitType(header) == hevc::kNalPrefixSei
                 : h264::NalUnitType(header) == h264::kNalSei)
            TakeLight(unit, hevc ? 2 : 1, colour);
    }
}

}  // namespace kx_mp4
