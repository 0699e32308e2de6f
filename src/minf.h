#ifndef KX_MP4_MINF_H
#define KX_MP4_MINF_H

#include "Atom.h"
#include "FileForm.h"
#include "dinf.h"
#include "gmhd.h"
#include "hdlr.h"
#include "nmhd.h"
#include "smhd.h"
#include "stbl.h"
#include "vmhd.h"

/// Media Information Box, 'minf' - ISO/IEC 14496-12, 8.4.4 - inside 'mdia' - container of the media
/// header, the data handler 'hdlr' (not in the strict form of MP4), 'dinf' and 'stbl'
class CMp4MinfAtom : public kx_mp4::ContainerAtom<CMp4MinfAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "minf";

    explicit CMp4MinfAtom(IBaseIO* pWriter)
        : ContainerAtom(pWriter), m_dinf(pWriter), m_UrlHdlr(pWriter) {}

    void SetForm(kx_mp4::FileForm form) { m_form = form; }
    /// Bytes of all samples.
    virtual uint64_t GetDataSize() { return 0; }

    template <class F>
    void ForEachChild(F&& visit) {
        visit(Mhd(), &CMp4MinfAtom::WriteMhd);
        if (!IsStrictMp4()) visit(m_UrlHdlr);
        visit(m_dinf);
        visit(Stbl(), &CMp4MinfAtom::WriteStbl);
    }

protected:
    virtual void WriteMhd() { Mhd().Write(); }
    virtual void WriteStbl() { Stbl().Write(); }
    /// The media header.
    virtual CMp4Atom& Mhd() = 0;
    virtual CMp4Atom& Stbl() = 0;
    bool IsStrictMp4() const { return m_form == kx_mp4::FileForm::kStrictMp4; }

private:
    CMp4DinfAtom m_dinf;
    CMp4UrlHdlrAtom m_UrlHdlr;
    kx_mp4::FileForm m_form = kx_mp4::FileForm::kUsual;
};

namespace kx_mp4 {

/// A media information box with this media header and this sample table.
template <class MhdAtom, class StblAtom>
class KindMinfAtom : public CMp4MinfAtom {
public:
    explicit KindMinfAtom(IBaseIO* pWriter)
        : CMp4MinfAtom(pWriter), m_mhd(pWriter), m_stbl(pWriter) {}

    void SetUse64BitSize() { m_stbl.SetUse64BitSize(); }
    void SetForm(FileForm form) {
        CMp4MinfAtom::SetForm(form);
        m_stbl.SetForm(form);
    }
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

/// The media header is 'gmhd', in the strict form of MP4 'nmhd'.
class CMp4SubtitleMinfAtom : public kx_mp4::KindMinfAtom<CMp4GmhdAtom, CMp4SubtitleStblAtom> {
public:
    explicit CMp4SubtitleMinfAtom(IBaseIO* pWriter) : KindMinfAtom(pWriter), m_nmhd(pWriter) {}

protected:
    CMp4Atom& Mhd() override {
        if (IsStrictMp4()) return m_nmhd;
        return KindMinfAtom::Mhd();
    }

private:
    kx_mp4::StrictNmhdAtom m_nmhd;
};

/// The timecode track's media information box: container of 'nmhd' (MP4) or 'gmhd' (QuickTime),
/// the data handler 'hdlr' (not in the strict form of MP4), 'dinf' and 'stbl'
class CMp4BaseMinfAtom : public kx_mp4::ContainerAtom<CMp4BaseMinfAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "minf";

    explicit CMp4BaseMinfAtom(IBaseIO* pWriter)
        : ContainerAtom(pWriter),
          m_gmhd(pWriter),
          m_nmhd(pWriter),
          m_strictNmhd(pWriter),
          m_Urlhdlr(pWriter),
          m_dinf(pWriter),
          m_stbl(pWriter) {}

    void SetUse64BitSize() { m_stbl.SetUse64BitSize(); }
    /// Chooses the media header.
    void SetMp4Format(bool isMp4Format) { m_isMp4Format = isMp4Format; }
    void SetForm(kx_mp4::FileForm form) {
        m_strictMp4 = form == kx_mp4::FileForm::kStrictMp4;
        m_stbl.SetForm(form);
    }
    CMp4TMCDStblAtom& SampleTable() { return m_stbl; }

    template <class F>
    void ForEachChild(F&& visit) {
        if (m_strictMp4)
            visit(m_strictNmhd);
        else if (m_isMp4Format)
            visit(m_nmhd);
        else
            visit(m_gmhd);
        if (!m_strictMp4) visit(m_Urlhdlr);
        visit(m_dinf);
        visit(m_stbl);
    }

private:
    CMp4GmhdAtom m_gmhd;
    CMp4NmhdAtom m_nmhd;
    kx_mp4::StrictNmhdAtom m_strictNmhd;
    CMp4UrlHdlrAtom m_Urlhdlr;
    CMp4DinfAtom m_dinf;
    CMp4TMCDStblAtom m_stbl;
    bool m_isMp4Format = false;
    bool m_strictMp4 = false;
};

#endif  // KX_MP4_MINF_H
