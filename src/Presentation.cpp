#include "Presentation.h"

#include <cstring>

namespace kx_mp4 {
namespace {

constexpr char kVersion = 1;

/// Never change or used again: files out there have them.
enum Tag : uint8_t {
    kStartTimes = 1,         // 1 byte: 1
    kAudioPriming = 2,       // 4
    kPixelAspect = 3,        // 4, 4
    kCleanAperture = 4,      // 4, 4, 4, 4
    kRotation = 5,           // 4
    kFieldOrder = 6,         // 4
    kColour = 7,             // 2, 2, 2, 1
    kMasteringDisplay = 8,   // 2 x 8, 4, 4
    kContentLight = 9,       // 2, 2
    kStrictForm = 10,        // 1 byte: 1
    kAllParameterSets = 11,  // 1 byte: 1
};

/// Lists the facts for a writer and for a reader alike: `fact(tag, present, fields...)`.
template <class Facts, class Fact>
void ForEachFact(Facts& facts, Fact&& fact) {
    auto& shape = facts.shape;
    auto& colour = facts.colour;
    auto& display = colour.display_primaries;
    fact(kStrictForm, facts.strictForm, facts.strictForm);
    fact(kAllParameterSets, facts.allParameterSets, facts.allParameterSets);
    fact(kStartTimes, facts.startTimes, facts.startTimes);
    fact(kAudioPriming, facts.audioPriming != 0, facts.audioPriming);
    fact(kPixelAspect, facts.HasPixelAspect(), shape.pixel_width, shape.pixel_height);
    fact(kCleanAperture, facts.HasCleanAperture(), shape.clean_x, shape.clean_y, shape.clean_width,
         shape.clean_height);
    fact(kRotation, shape.rotation != 0, shape.rotation);
    fact(kFieldOrder, shape.field_order != 0, shape.field_order);
    fact(kColour, facts.HasColour(), colour.primaries, colour.transfer, colour.matrix,
         colour.full_range);
    fact(kMasteringDisplay, colour.has_mastering_display != 0, display[0][0], display[0][1],
         display[1][0], display[1][1], display[2][0], display[2][1], colour.white_point[0],
         colour.white_point[1], colour.max_luminance, colour.min_luminance);
    fact(kContentLight, colour.has_content_light != 0, colour.max_content_light_level,
         colour.max_frame_average_light_level);
}

template <class Integer>
void Append(std::string& out, Integer value) {
    for (size_t shift = 8 * sizeof value; shift != 0; shift -= 8)
        out += static_cast<char>(static_cast<uint64_t>(value) >> (shift - 8));
}

template <class Integer>
void Take(const char*& from, Integer& value) {
    uint64_t number = 0;
    for (size_t i = 0; i < sizeof value; ++i)
        number = number << 8 | static_cast<uint8_t>(*from++);
    value = static_cast<Integer>(number);
}

}  // namespace

bool Presentation::IsOwn(const char* own, const char* key, const char* key_namespace) {
    return key != nullptr && key_namespace != nullptr && std::strcmp(key, own) == 0 &&
           std::strcmp(key_namespace, kNamespace) == 0;
}

std::string Presentation::Record() const {
    std::string record(1, kVersion);
    ForEachFact(*this, [&record](Tag tag, bool present, auto... fields) {
        if (!present) return;
        record += static_cast<char>(tag);
        Append(record, static_cast<uint16_t>((sizeof fields + ...)));
        (Append(record, fields), ...);
    });
    return record;
}

bool Presentation::Read(const std::string& record) {
    constexpr size_t kHeadSize = 3;
    if (record.empty() || record[0] != kVersion) return false;
    Presentation read;
    const char* at = record.data() + 1;
    const char* const end = record.data() + record.size();
    while (at != end) {
        if (end - at < static_cast<ptrdiff_t>(kHeadSize)) return false;
        uint8_t tag = 0;
        uint16_t size = 0;
        Take(at, tag);
        Take(at, size);
        if (end - at < size) return false;
        ForEachFact(read, [&](Tag known, bool, auto&... fields) {
            const char* value = at;
            if (tag == known && size == (sizeof fields + ...)) (Take(value, fields), ...);
        });
        if (tag == kMasteringDisplay) read.colour.has_mastering_display = 1;
        if (tag == kContentLight) read.colour.has_content_light = 1;
        at += size;
    }
    *this = read;
    return true;
}

bool IsPossible(const mp4_video_shape_t& shape) {
    const bool turned = shape.rotation % 90 == 0 && shape.rotation < 360;
    const bool aspect = (shape.pixel_width == 0) == (shape.pixel_height == 0);
    const bool clean = (shape.clean_width == 0) == (shape.clean_height == 0);
    return turned && aspect && clean && shape.field_order <= MP4_FIELDS_BOTTOM_FIRST;
}

}  // namespace kx_mp4
