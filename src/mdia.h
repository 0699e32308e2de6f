#ifndef KX_MP4_MDIA_H
#define KX_MP4_MDIA_H

#include "Atom.h"
#include "FileForm.h"
#include "hdlr.h"
#include "mdhd.h"
#include "minf.h"

/// Media Box, 'mdia' - ISO/IEC 14496-12, 8.4.1 - inside 'trak' - container of 'mdhd', 'hdlr' and
/// 'minf'
class CMp4MdiaAtom : public kx_mp4::ContainerAtom<CMp4MdiaAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "mdia";

    explicit CMp4MdiaAtom(IBaseIO* pWriter) : ContainerAtom(pWriter), m_mdhd(pWriter) {}

    /// Bytes of all samples.
    virtual uint64_t GetDataSize() { return 0; }

    void SetUse64bitTime() { m_mdhd.SetUse64bitTime(); }
    /// See DurationAtom.
    void SetFixedHeaderMode(bool mode) { m_mdhd.SetFixedHeaderMode(mode); }
    /// Ticks per second.
    void SetTimeScale(int32_t nTimeScale) { m_mdhd.SetTimeScale(nTimeScale); }
    int32_t GetTimeScale() const { return m_mdhd.GetTimeScale(); }
    /// Ticks of the media's timescale.
    void SetDuration(int64_t nDuration) { m_mdhd.SetDuration(nDuration); }
    /// Rewrites the duration in the file.
    void Update() { m_mdhd.Update(); }

    template <class F>
    void ForEachChild(F&& visit) {
        visit(m_mdhd);
        visit(Hdlr(), &CMp4MdiaAtom::WriteHdlr);
        visit(Minf(), &CMp4MdiaAtom::WriteMinf);
    }

protected:
    virtual void WriteHdlr() { Hdlr().Write(); }
    virtual void WriteMinf() { Minf().Write(); }
    virtual CMp4Atom& Hdlr() = 0;
    virtual CMp4Atom& Minf() = 0;

private:
    CMp4MdhdAtom m_mdhd;
};

namespace kx_mp4 {

/// A media box with this handler and this media information.
template <class HdlrAtom, class MinfAtom>
class KindMdiaAtom : public CMp4MdiaAtom {
public:
    explicit KindMdiaAtom(IBaseIO* pWriter)
        : CMp4MdiaAtom(pWriter), m_hdlr(pWriter), m_minf(pWriter) {}

    void SetForm(FileForm form) {
        m_hdlr.SetForm(form);
        m_minf.SetForm(form);
    }
    MinfAtom& MediaInformation() { return m_minf; }

protected:
    CMp4Atom& Hdlr() override { return m_hdlr; }
    CMp4Atom& Minf() override { return m_minf; }

private:
    HdlrAtom m_hdlr;
    MinfAtom m_minf;
};

}  // namespace kx_mp4

class CMp4VideoMdiaAtom : public kx_mp4::KindMdiaAtom<CMp4VideoHdlrAtom, CMp4VideoMinfAtom> {
public:
    using KindMdiaAtom::KindMdiaAtom;
    uint64_t GetDataSize() override { return MediaInformation().GetDataSize(); }
};

class CMp4AudioMdiaAtom : public kx_mp4::KindMdiaAtom<CMp4AudioHdlrAtom, CMp4AudioMinfAtom> {
public:
    using KindMdiaAtom::KindMdiaAtom;
    uint64_t GetDataSize() override { return MediaInformation().GetDataSize(); }
};

class CMp4TCMdiaAtom : public kx_mp4::KindMdiaAtom<CMp4SubtHdlrAtom, CMp4BaseMinfAtom> {
public:
    using KindMdiaAtom::KindMdiaAtom;

    /// Timescale and frame duration of the timecode sample entry.
    void SetMinfTimeScale(int32_t nTimeScale) {
        MediaInformation().SampleTable().SetTimeScale(nTimeScale);
    }
    void SetMinfFrameDuration(int32_t nDuration) {
        MediaInformation().SampleTable().SetFrameDuration(nDuration);
    }
};

class CMp4SubtitleMdiaAtom
    : public kx_mp4::KindMdiaAtom<CMp4SubtitleHdlrAtom, CMp4SubtitleMinfAtom> {
public:
    using KindMdiaAtom::KindMdiaAtom;
};

#endif  // KX_MP4_MDIA_H
