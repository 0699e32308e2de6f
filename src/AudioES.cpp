#include "AudioES.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "AdtsHeader.h"

using kx_mp4::kAacSampleRates;

namespace {

constexpr int kAacLc = 2;
constexpr int kSbr = 5;
constexpr int kTwinVq = 7;
constexpr int kPs = 29;
constexpr int kExplicitRate = 15;

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

/// Bits, most significant first.
class ConfigWriter {
public:
    explicit ConfigWriter(uint8_t* out) : m_out(out) {}

    void Put(int bits, int value) {
        for (int i = bits - 1; i >= 0; --i, ++m_bits) {
            if (m_bits % 8 == 0) m_out[m_bits / 8] = 0;
            const int bit = value >> i & 1;
            m_out[m_bits / 8] = static_cast<uint8_t>(m_out[m_bits / 8] | bit << (7 - m_bits % 8));
        }
    }
    /// The index of the rate, or the rate itself.
    void PutRate(int sampleRate) {
        const auto* const end = std::end(kAacSampleRates);
        const auto* const at = std::find(std::begin(kAacSampleRates), end, sampleRate);
        const bool listed = at != end;
        Put(4, listed ? static_cast<int>(at - std::begin(kAacSampleRates)) : kExplicitRate);
        if (!listed) Put(24, sampleRate);
    }
    int Bytes() const { return (m_bits + 7) / 8; }

private:
    uint8_t* m_out;
    int m_bits = 0;
};

}  // namespace

int get_sample_by_index(int index) {
    if (index < 0 || index >= static_cast<int>(std::size(kAacSampleRates))) return 0;
    return kAacSampleRates[index];
}

int kx_mp4::SampleRateOfField(uint16_t field) {
    for (const int rate : {88200, 96000}) {
        if ((rate & 0xFFFF) == field) return rate;
    }
    return field;
}

bool CAudioES::CanDescribe(int profile) {
    return (profile >= 0 && profile <= kSbr) || profile == kTwinVq || profile == kPs;
}

int CAudioES::Generate(int profile, int sampleRate, int channels, uint8_t* out) {
    ConfigWriter config(out);
    const int objectType = profile != 0 && CanDescribe(profile) ? profile : kAacLc;
    config.Put(5, objectType);
    if (objectType == kSbr || objectType == kPs) {
        // Hierarchical signalling (ISO/IEC 14496-3, 1.6.5.2): a decoder without the extension stops
        // with a clear answer instead of playing half the band.
        config.PutRate(sampleRate / 2);
        config.Put(4, objectType == kPs ? 1 : channels);
        config.PutRate(sampleRate);
        config.Put(5, kAacLc);
    } else {
        config.Put(4, SampleRateIndex(sampleRate));
        config.Put(4, channels);
    }
    config.Put(3, 0);
    return config.Bytes();
}
