/// @file
/// Streams for the examples and the tests, so that neither needs an encoder or a media file:
/// H.264 (ITU-T H.264, baseline profile) of 64 x 64 pixels whose key frames are uncoded grey
/// pictures of changing brightness and whose other pictures repeat the one before, and silent AAC.
#ifndef KX_MP4_EXAMPLES_TEST_PATTERN_H
#define KX_MP4_EXAMPLES_TEST_PATTERN_H

#include <cstdint>
#include <vector>

namespace test_pattern {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kWidth = 64;
constexpr uint16_t kHeight = 64;
constexpr int kKeyFrameDistance = 10;

/// Sequence parameter set: baseline profile, level 1, 64 x 64, order of output is order of coding.
inline const Bytes kSps{0x67, 0x42, 0xC0, 0x0A, 0xDA, 0x10, 0x99};
/// Picture parameter set: one slice group, CAVLC, deblocking controlled by the slices.
inline const Bytes kPps{0x68, 0xCE, 0x3C, 0x80};

/// Bits of a slice, most significant first.
class BitWriter {
public:
    explicit BitWriter(uint8_t nalHeader) : m_bytes{nalHeader} {}

    void Bits(uint32_t value, int count) {
        for (int i = count - 1; i >= 0; --i) {
            if (m_free == 0) m_bytes.push_back(0);
            m_free = (m_free + 7) % 8;
            const auto bit = static_cast<unsigned>(value >> i & 1U) << m_free;
            m_bytes.back() = static_cast<uint8_t>(m_bytes.back() | bit);
        }
    }
    /// Exponential-Golomb code (ITU-T H.264, 9.1).
    void Ue(uint32_t value) {
        int length = 0;
        while ((value + 1) >> (length + 1) != 0)
            ++length;
        Bits(0, length);
        Bits(value + 1, length + 1);
    }
    void AlignWithZeros() { m_free = 0; }
    void StopBit() { Bits(1, 1); }
    const Bytes& Get() const { return m_bytes; }

private:
    Bytes m_bytes;
    int m_free = 0;  // bits of the last byte that are not used yet
};

/// A picture of one grey in which every macroblock is I_PCM.
inline Bytes KeySlice(uint32_t idrId, uint8_t grey) {
    constexpr int kMacroblocks = kWidth / 16 * kHeight / 16;
    constexpr int kSamples = 256 + 64 + 64;  // 4:2:0
    BitWriter slice(0x65);
    slice.Ue(0);          // first_mb_in_slice
    slice.Ue(7);          // slice_type: all I
    slice.Ue(0);          // pic_parameter_set_id
    slice.Bits(0, 4);     // frame_num
    slice.Ue(idrId % 2);  // neighbours differ
    slice.Bits(0, 2);     // dec_ref_pic_marking
    slice.Ue(0);          // slice_qp_delta
    slice.Ue(1);          // disable_deblocking_filter_idc
    for (int block = 0; block < kMacroblocks; ++block) {
        slice.Ue(25);  // mb_type: I_PCM
        slice.AlignWithZeros();
        for (int i = 0; i < kSamples; ++i)
            slice.Bits(i < 256 ? grey : 128U, 8);
    }
    slice.StopBit();
    return slice.Get();
}

/// A picture in which every macroblock is skipped: the picture before it once more.
inline Bytes RepeatSlice(uint32_t frameNum) {
    BitWriter slice(0x41);
    slice.Ue(0);                           // first_mb_in_slice
    slice.Ue(5);                           // slice_type: all P
    slice.Ue(0);                           // pic_parameter_set_id
    slice.Bits(frameNum, 4);               // frame_num
    slice.Bits(0, 3);                      // no override, no reordering, sliding window marking
    slice.Ue(0);                           // slice_qp_delta
    slice.Ue(1);                           // disable_deblocking_filter_idc
    slice.Ue(kWidth / 16 * kHeight / 16);  // mb_skip_run
    slice.StopBit();
    return slice.Get();
}

inline void AppendUnit(Bytes& stream, const Bytes& unit) {
    stream.insert(stream.end(), {0, 0, 0, 1});
    stream.insert(stream.end(), unit.begin(), unit.end());
}

/// The access unit of a picture, counted from 0, in Annex-B form. Every tenth is a key frame that
/// carries its parameter sets.
inline Bytes Picture(uint32_t number) {
    Bytes stream;
    const uint32_t inGroup = number % kKeyFrameDistance;
    if (inGroup != 0) {
        AppendUnit(stream, RepeatSlice(inGroup));
        return stream;
    }
    AppendUnit(stream, kSps);
    AppendUnit(stream, kPps);
    const uint32_t group = number / kKeyFrameDistance;
    AppendUnit(stream, KeySlice(group, static_cast<uint8_t>(16 + group * 40 % 220)));
    return stream;
}

/// One AAC LC frame of silence, mono: 1024 samples.
inline const Bytes kSilence{0x00, 0x00, 0x00, 0x07};

/// A frame of silence behind its ADTS header: AAC LC, 48000 Hz, mono.
inline Bytes AdtsSilence() {
    return {0xFF, 0xF1, 0x4C, 0x40, 0x01, 0x7F, 0xFC, 0x00, 0x00, 0x00, 0x07};
}

}  // namespace test_pattern

#endif  // KX_MP4_EXAMPLES_TEST_PATTERN_H
