/// @file
/// AAC configuration (ISO/IEC 14496-3, 1.6).
#ifndef KX_MP4_AUDIOES_H
#define KX_MP4_AUDIOES_H

#include <cstdint>

/// Sampling frequency in Hz by its index (ISO/IEC 14496-3, table 1.18); 0 for a reserved index.
int get_sample_by_index(int index);

/// The rate that a 16-bit field stands for: 88200 and 96000 Hz do not fit and are stood for by
/// their low 16 bits, 22664 and 30464; any other value is itself.
int SampleRateOfField(uint16_t field);

class CAudioES {
public:
    /// Writes the 2-byte AudioSpecificConfig to `out`.
    ///
    /// @param profile     MPEG-4 audio object type; 0 counts as 2, AAC LC.
    /// @param sampleRate  Hz; a rate without an index of its own takes the index whose tables it
    ///                    uses (ISO/IEC 14496-3, table 4.82), since an explicit rate does not fit.
    /// @param channels    channel configuration, 4 bits.
    static void Generate(int profile, int sampleRate, int channels, uint8_t* out);
};

#endif  // KX_MP4_AUDIOES_H
