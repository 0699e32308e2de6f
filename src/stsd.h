#ifndef KX_MP4_STSD_H
#define KX_MP4_STSD_H

#include <string>

#include "Atom.h"
#include "FileForm.h"
#include "Presentation.h"
#include "avcc.h"
#include "esds.h"
#include "fiel.h"
#include "hvcc.h"
#include "kx_mp4/kx_mp4.h"
#include "udta.h"
#include "wave.h"

/// Sample Description Box, 'stsd' - ISO/IEC 14496-12, 8.5.2 - inside 'stbl' - head and children
///
/// | offset | bytes | field                    |
/// | 12     | 4     | entry count: 1           |
/// | 16     | ...   | the entry of the variant |
class CMp4StsdAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    void SetForm(kx_mp4::FileForm form) { m_form = form; }
    void Write() override;
    /// Without the entry.
    uint32_t GetSize() override;

protected:
    /// Writes the one entry.
    virtual void WriteMediaInfo() = 0;
    bool IsStrict() const { return m_form != kx_mp4::FileForm::kUsual; }

private:
    kx_mp4::FileForm m_form = kx_mp4::FileForm::kUsual;
};

/// Visual sample entry - ISO/IEC 14496-12, 12.1.3, with QuickTime's details for ProRes
///
/// | offset | bytes | field                                                             |
/// | 4      | 4     | "avc1", "hvc1" or the ProRes code                                 |
/// | 14     | 2     | data reference index: 1                                           |
/// | 20     | 4     | vendor: "appl" for ProRes                                         |
/// | 32     | 2, 2  | width, height, pixels                                             |
/// | 36     | 4, 4  | horizontal, vertical resolution: 72 dpi                           |
/// | 48     | 2     | frame count: 1                                                    |
/// | 50     | 32    | compressor name, counted, zero-padded                             |
/// | 82     | 2     | depth: 24, with alpha 32                                          |
/// | 84     | 2     | colour table: none (-1)                                           |
/// | 86     | ...   | 'avcC' or 'hvcC'                                                  |
/// | ...    | 10    | 'fiel': fields; of ProRes always                                  |
/// | ...    | 18/19 | 'colr': ITU-T H.273 code points                                   |
/// | ...    | 16    | 'pasp': width to height of a pixel; of ProRes always              |
/// | ...    | 40    | 'clap': the part of the picture to be shown                       |
/// | ...    | 32    | 'mdcv': the mastering display                                     |
/// | ...    | 12    | 'clli': content light levels                                      |
///
/// Of the boxes behind the configuration, those of which the presentation says something are
/// written. A track that was declared as ProRes before keeps its vendor and name, but not in a
/// strict form.
class CMp4VideoStsdAtom : public CMp4StsdAtom {
public:
    explicit CMp4VideoStsdAtom(IBaseIO* pWriter);

    /// Pixels; the file keeps the low 16 bits.
    void SetResolution(int nWidth, int nHeight) {
        m_nWidth = nWidth;
        m_nHeight = nHeight;
    }
    /// What is known of shape and colour; may be given again.
    void SetPresentation(const kx_mp4::Presentation& presentation) {
        m_presentation = presentation;
        m_avcc.SetHighProfileFields(presentation.allParameterSets);
    }
    /// Chooses the form of the colour box.
    void SetIsMp4File(bool mp4File) { m_qt = !mp4File; }
    void SetH264(const mp4_h264_parameter_set_t* pParam);
    void SetHevc(const mp4_hevc_parameter_set_t* pParam);
    /// A further one of the codec that was set.
    void AddParameterSet(const std::vector<uint8_t>& set);
    /// An unknown format is logged and changes nothing but the codec.
    void SetProRes(const mp4_prores_parameter_set_t* pParam);

    uint32_t GetSize() override;

protected:
    void WriteMediaInfo() override;

private:
    template <class Out>
    void PutEntry(Out& out) const;
    template <class Out>
    void PutPresentation(Out& out) const;
    uint32_t PresentationSize() const;
    template <class Out>
    void PutColour(Out& out) const;
    template <class Out>
    void PutLight(Out& out) const;
    template <class Out>
    void PutCleanAperture(Out& out) const;
    template <class Out>
    void PutCompressorName(Out& out) const;
    bool HasAlpha() const;
    bool IsProRes() const;
    /// The codec's configuration box, null when it has none.
    CMp4Atom* Configuration();

    kx_mp4::FourCC m_szTag;
    int m_nWidth = 0;
    int m_nHeight = 0;
    mp4_video_codec m_codec = MP4_MVC_UNKNOWN;
    kx_mp4::FourCC m_fourcc;  // of ProRes; four zero bytes otherwise
    std::string m_compressor;
    kx_mp4::Presentation m_presentation;
    bool m_qt = false;
    CMp4HvccAtom m_hvcc;
    CMp4AvccAtom m_avcc;
};

/// Audio sample entry 'mp4a' - ISO/IEC 14496-12, 12.2.3 with 'esds', or QuickTime's sound
/// description version 1 with 'wave'
///
/// | offset | bytes | MP4                     | QuickTime movie                 |
/// | 14     | 2     | data reference index: 1 | data reference index: 1         |
/// | 16     | 8     | reserved                | version 1, revision 0, vendor 0 |
/// | 24     | 2, 2  | channels 2, bits 16     | channels 2, bits 16             |
/// | 28     | 2, 2  | 0, 0                    | compression -2, packet size 0   |
/// | 32     | 4     | sample rate, Hz in 16.16; 0 from 65536 Hz on              |
/// | 36     | 16    |                         | samples and bytes per packet, 0 |
/// | 36, 52 | ...   | 'esds'                  | 'wave'                          |
///
/// The true number of channels is in the AudioSpecificConfig only; in the strict forms here, too.
class CMp4AudioStsdAtom : public CMp4StsdAtom {
public:
    explicit CMp4AudioStsdAtom(IBaseIO* pWriter)
        : CMp4StsdAtom(pWriter), m_wave(pWriter), m_esds(pWriter) {}

    /// Hz.
    void SetSamplerate(int nSamplerate) { m_nSamplerate = nSamplerate; }
    /// The channel configuration (ISO/IEC 14496-3, 1.6.3.5).
    void SetChannels(int nChannels) { m_nChannels = nChannels; }
    /// Copies the AudioSpecificConfig.
    void SetAAC(const uint8_t* pbData, int cbData);
    void SetTrakId(int iId);
    /// Chooses between the two forms.
    void SetIsMp4File(bool mp4File) { m_qt = !mp4File; }

    uint32_t GetSize() override;

protected:
    void WriteMediaInfo() override;
    virtual void WriteMp4MediaInfo();
    virtual void WriteQtMediaInfo();

private:
    template <class Out>
    void PutMp4Entry(Out& out) const;
    template <class Out>
    void PutQtEntry(Out& out) const;
    uint32_t SampleRateField() const;
    uint16_t ChannelField() const;

    kx_mp4::FourCC m_szTag;
    int m_nSamplerate = 0;
    int m_nChannels = 0;
    CMp4WaveAtom m_wave;
    CMp4EsdsAtom m_esds;
    bool m_qt = false;
};

/// Closed-caption sample entry - QuickTime File Format
///
/// | offset | bytes | field                     |
/// | 4      | 4     | "c608" or "c708"          |
/// | 14     | 2     | data reference index: 1   |
class CMp4SubtitleStsdAtom : public CMp4StsdAtom {
public:
    using CMp4StsdAtom::CMp4StsdAtom;

    /// An unknown codec is logged and changes nothing.
    void SetCodec(mp4_subtitle_codec codec);
    /// Accepted for the sake of a uniform sample table; the entry carries no track ID.
    void SetTrakId(int) {}

    uint32_t GetSize() override;

protected:
    void WriteMediaInfo() override;

private:
    template <class Out>
    void PutEntry(Out& out) const;

    kx_mp4::FourCC m_szTag;
};

/// Timecode sample entry 'tmcd' - QuickTime File Format
///
/// | offset | bytes | field                                 |
/// | 14     | 2     | data reference index: 1               |
/// | 20     | 4     | flags: 1 drop frame ...               |
/// | 24     | 4, 4  | timescale, frame duration in its ticks |
/// | 32     | 1     | frames per second, as counted         |
/// | 34     | 2     | 0; not in the strict forms            |
class CMp4TMCDStsdAutom : public CMp4StsdAtom {
public:
    explicit CMp4TMCDStsdAutom(IBaseIO* pWriter) : CMp4StsdAtom(pWriter), m_udat(pWriter) {}

    void SetTimeScale(int32_t nTimeScale) { m_nTimeScale = nTimeScale; }
    void SetFrameDuration(int32_t nFrameDuration) { m_nFrameDuration = nFrameDuration; }
    void SetFlags(int32_t nFlags) { m_nFlags = nFlags; }
    void SetNumOfFrames(uint8_t nNumOfFrames) { m_nNumOfFrames = nNumOfFrames; }

    uint32_t GetSize() override;

protected:
    void WriteMediaInfo() override;

private:
    template <class Out>
    void PutEntry(Out& out) const;

    CMp4TMCDUdatAtom m_udat;
    int32_t m_nTimeScale = 30000;
    int32_t m_nFrameDuration = 1001;
    int32_t m_nFlags = 0;
    uint8_t m_nNumOfFrames = 0;
};

#endif  // KX_MP4_STSD_H
