#ifndef KX_MP4_MINF_H
#define KX_MP4_MINF_H

#include "Atom.h"
#include "dinf.h"
#include "gmhd.h"
#include "hdlr.h"
#include "nmhd.h"
#include "smhd.h"
#include "stbl.h"
#include "vmhd.h"

/// Media Information Box, 'minf' - ISO/IEC 14496-12, 8.4.4 - inside 'mdia' - container of the media
/// header, the data handler 'hdlr', 'dinf' and 'stbl'
class CMp4MinfAtom : public kx_mp4::ContainerAtom<CMp4MinfAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "minf";

    explicit CMp4MinfAtom(IBaseIO* pWriter)
        : ContainerAtom(pWriter), m_dinf(pWriter), m_UrlHdlr(pWriter) {}

    /// Bytes of all samples.
    virtual uint64_t GetDataSize() { return 0; }

    template <class F>
    void ForEachChild(F&& visit) {
        visit(Mhd(), &CMp4MinfAtom::WriteMhd);
        visit(m_UrlHdlr);
        visit(m_dinf);
        visit(Stbl(), &CMp4MinfAtom::WriteStbl);
    }

protected:
    virtual void WriteMhd() { Mhd().Write(); }
    virtual void WriteStbl() { Stbl().Write(); }
    /// The media header.
    virtual CMp4Atom& Mhd() = 0;
    virtual CMp4Atom& Stbl() = 0;

private:
    CMp4DinfAtom m_dinf;
    CMp4UrlHdlrAtom m_UrlHdlr;
};

namespace kx_mp4 {

/// A media information box with this media header and this sample table.
template <class MhdAtom, class StblAtom>
class KindMinfAtom : public CMp4MinfAtom {
public:
    explicit KindMinfAtom(IBaseIO* pWriter)
        : CMp4MinfAtom(pWriter), m_mhd(pWriter), m_stbl(pWriter) {}

    void SetUse64BitSize() { m_stbl.SetUse64BitSize(); }
    StblAtom& SampleTable() { return m_stbl; }

protected:
    CMp4Atom& Mhd() override { return m_mhd; }
    CMp4Atom& Stbl() override { return m_stbl; }

private:
    MhdAtom m_mhd;
    StblAtom m_stbl;
};

}  // namespace kx_mp4

class CMp4VideoMinfAtom : public kx_mp4::KindMinfAtom<CMp4VmhdAtom, CMp4VideoStblAtom> {
public:
    using KindMinfAtom::KindMinfAtom;
    uint64_t GetDataSize() override { return SampleTable().GetDataSize(); }
};

class CMp4AudioMinfAtom : public kx_mp4::KindMinfAtom<CMp4SmhdAtom, CMp4AudioStblAtom> {
public:
    using KindMinfAtom::KindMinfAtom;
    uint64_t GetDataSize() override { return SampleTable().GetDataSize(); }
};

class CMp4SubtitleMinfAtom : public kx_mp4::KindMinfAtom<CMp4GmhdAtom, CMp4SubtitleStblAtom> {
public:
    using KindMinfAtom::KindMinfAtom;
};

/// The timecode track's media information box: container of 'nmhd' (MP4) or 'gmhd' (QuickTime),
/// the data handler 'hdlr', 'dinf' and 'stbl'
class CMp4BaseMinfAtom : public kx_mp4::ContainerAtom<CMp4BaseMinfAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "minf";

    explicit CMp4BaseMinfAtom(IBaseIO* pWriter)
        : ContainerAtom(pWriter),
          m_gmhd(pWriter),
          m_nmhd(pWriter),
          m_Urlhdlr(pWriter),
          m_dinf(pWriter),
          m_stbl(pWriter) {}

    void SetUse64BitSize() { m_stbl.SetUse64BitSize(); }
    /// Chooses the media header.
    void SetMp4Format(bool isMp4Format) { m_isMp4Format = isMp4Format; }
    CMp4TMCDStblAtom& SampleTable() { return m_stbl; }

    template <class F>
    void ForEachChild(F&& visit) {
        if (m_isMp4Format)
            visit(m_nmhd);
        else
            visit(m_gmhd);
        visit(m_Urlhdlr);
        visit(m_dinf);
        visit(m_stbl);
    }

private:
    CMp4GmhdAtom m_gmhd;
    CMp4NmhdAtom m_nmhd;
    CMp4UrlHdlrAtom m_Urlhdlr;
    CMp4DinfAtom m_dinf;
    CMp4TMCDStblAtom m_stbl;
    bool m_isMp4Format = false;
};

#endif  // KX_MP4_MINF_H
