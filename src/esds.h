#ifndef KX_MP4_ESDS_H
#define KX_MP4_ESDS_H

#include <cstdint>
#include <vector>

#include "Atom.h"

/// Elementary Stream Descriptor Box, 'esds' - ISO/IEC 14496-14, 5.6 and ISO/IEC 14496-1, 7.2.6 -
/// inside 'mp4a' or 'wave' - leaf
///
/// Nested descriptors, each a tag byte and its length in 4 bytes of 7 bits:
/// | tag | content                                                               |
/// | 3   | ES_Descriptor: ES_ID 2 (the track ID), flags 1, then 4 and 6          |
/// | 4   | DecoderConfig: 0x40 MPEG-4 audio, 0x15 audio stream, buffer 3, rates 8 |
/// | 5   | DecoderSpecificInfo: the AudioSpecificConfig, inside 4, when given    |
/// | 6   | SLConfig: predefined 2 (MP4 file)                                     |
class CMp4EsdsAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    void SetTrakId(int iId) { m_iTrakId = iId; }
    /// Copies the AudioSpecificConfig.
    void SetVosData(const uint8_t* pbData, int cbData);

    void Write() override;
    uint32_t GetSize() override;

    template <class Out>
    void Put(Out& out) const;

private:
    /// Tag, length and the content that `put` lists.
    template <class Out, class Content>
    static void PutDesc(Out& out, int nTag, Content&& put);

    int m_iTrakId = 0;
    std::vector<uint8_t> m_vosData;
};

#endif  // KX_MP4_ESDS_H
