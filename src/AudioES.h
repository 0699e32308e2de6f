/// @file
/// AAC configuration (ISO/IEC 14496-3, 1.6).
#ifndef KX_MP4_AUDIOES_H
#define KX_MP4_AUDIOES_H

#include <cstdint>

/// Sampling frequency in Hz by its index (ISO/IEC 14496-3, table 1.18); 0 for a reserved index.
int get_sample_by_index(int index);

namespace kx_mp4 {

/// The rate that a 16-bit field stands for: 88200 and 96000 Hz do not fit and are stood for by
/// their low 16 bits, 22664 and 30464; any other value is itself.
int SampleRateOfField(uint16_t field);

}  // namespace kx_mp4

class CAudioES {
public:
    /// Bytes of the longest configuration that Generate makes.
    static constexpr int kMaxConfigSize = 10;

    /// Whether Generate has a form for the object type: 0 to 4 (0 counts as 2, AAC LC), 5 (SBR, in
    /// HE-AAC), 7 (TwinVQ) and 29 (PS, in HE-AAC version 2). Any other counts as AAC LC.
    static bool CanDescribe(int profile);

    /// Writes the AudioSpecificConfig to `out`, which has room for kMaxConfigSize bytes.
    ///
    /// | bits | field                                                                 |
    /// | 5    | object type                                                           |
    /// | 4    | sampling frequency index; of types 5 and 29 that of the core          |
    /// | 4    | channel configuration; of type 29 that of the core, 1                 |
    /// | 4, 5 | types 5 and 29 only: index of the output rate, core object type 2     |
    /// | 3    | GASpecificConfig: 1024 samples a frame, no core coder, no extension   |
    ///
    /// An index of 15 is followed by 24 bits of the rate itself; 2-byte configurations have no room
    /// for that.
    ///
    /// @param profile     MPEG-4 audio object type.
    /// @param sampleRate  Hz of the decoded sound: with types 5 and 29 the core runs at half of it.
    ///                    With other types, a rate without an index of its own takes the index
    ///                    whose tables it uses (ISO/IEC 14496-3, table 4.82).
    /// @param channels    channel configuration, 4 bits.
    /// @return Bytes written: 2, or with types 5 and 29 4 to 10.
    static int Generate(int profile, int sampleRate, int channels, uint8_t* out);
};

#endif  // KX_MP4_AUDIOES_H
