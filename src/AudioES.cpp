#include "AudioES.h"

#include <cstddef>
#include <iterator>

#include "AdtsHeader.h"

namespace {

constexpr int kAacLc = 2;
constexpr int kEscapeObjectType = 31;  // announces 6 more bits, for which 2 bytes have no room

using kx_mp4::kAacSampleRates;

// ISO/IEC 14496-3, table 4.82: the lowest rate that uses the tables of the index of its place; a
// rate below all of them uses those of 8000 Hz.
constexpr int kLowestRates[] = {92017, 75132, 55426, 46009, 37566, 27713,
                                23004, 18783, 13856, 11502, 9391};

int SampleRateIndex(int sampleRate) {
    for (size_t index = 0; index < std::size(kAacSampleRates); ++index) {
        if (kAacSampleRates[index] == sampleRate) return static_cast<int>(index);
    }
    int index = 0;
    for (const int lowest : kLowestRates) {
        if (sampleRate >= lowest) break;
        ++index;
    }
    return index;
}

}  // namespace

int get_sample_by_index(int index) {
    if (index < 0 || index >= static_cast<int>(std::size(kAacSampleRates))) return 0;
    return kAacSampleRates[index];
}

int SampleRateOfField(uint16_t field) {
    for (const int rate : {88200, 96000}) {
        if ((rate & 0xFFFF) == field) return rate;
    }
    return field;
}

void CAudioES::Generate(int profile, int sampleRate, int channels, uint8_t* out) {
    const bool fits = profile > 0 && profile < kEscapeObjectType;
    const int objectType = fits ? profile : kAacLc;
    const int index = SampleRateIndex(sampleRate);
    // 5 bits object type, 4 bits frequency index, 4 bits channels; the 3 bits of the AAC-specific
    // part stay 0: 1024 samples a frame, no core coder, no extension.
    const int config = objectType << 11 | index << 7 | (channels & 0x0F) << 3;
    out[0] = static_cast<uint8_t>(config >> 8);
    out[1] = static_cast<uint8_t>(config & 0xFF);
}
