#ifndef KX_MP4_WAVE_H
#define KX_MP4_WAVE_H

#include "Atom.h"
#include "esds.h"

/// Sound decompression parameters, 'wave' - QuickTime File Format - inside a version 1 'mp4a'
/// sound description - head and children
///
/// | offset | bytes | field                                     |
/// | 8      | 12    | 'frma': data format "mp4a"                |
/// | 20     | 12    | 'mp4a': 4 zero bytes                      |
/// | 32     | n     | 'esds'                                    |
/// | 32 + n | 8     | terminator: size 8, type four zero bytes  |
class CMp4WaveAtom : public CMp4Atom {
public:
    explicit CMp4WaveAtom(IBaseIO* pWriter) : CMp4Atom(pWriter), m_esds(pWriter) {}

    void SetTrakId(int iId) {
        m_iTrakId = iId;
        m_esds.SetTrakId(iId);
    }
    /// Copies the AudioSpecificConfig.
    void SetVosData(const uint8_t* pbData, int cbData) { m_esds.SetVosData(pbData, cbData); }

    void Write() override;
    uint32_t GetSize() override;

private:
    template <class Out>
    static void PutHead(Out& out);
    template <class Out>
    static void PutTerminator(Out& out);

    int m_iTrakId = 0;
    CMp4EsdsAtom m_esds;
};

#endif  // KX_MP4_WAVE_H
