#ifndef KX_MP4_STBL_H
#define KX_MP4_STBL_H

#include "Atom.h"
#include "ChunkOffsets.h"
#include "FileForm.h"
#include "ctts.h"
#include "kx_mp4/kx_mp4.h"
#include "stsc.h"
#include "stsd.h"
#include "stss.h"
#include "stsz.h"
#include "stts.h"

/// Sample Table Box, 'stbl' - ISO/IEC 14496-12, 8.5.1 - inside 'minf' - container of 'stsd',
/// 'stts', 'ctts' (with reordered frames only), 'stsz', 'stsc', 'stco' or 'co64', and for video
/// 'stss'
///
/// The one place where a sample that has just been appended to the media data is recorded. In the
/// fixed-header mode every sample is a chunk of its own, and every table is laid out with room for
/// a maximum number of entries and rewritten in place.
class CMp4StblAtom : public kx_mp4::ContainerAtom<CMp4StblAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "stbl";

    explicit CMp4StblAtom(IBaseIO* pWriter);

    /// 64-bit chunk offsets from now on; recorded ones are carried over. In the fixed-header mode
    /// this comes before SetMaxFrameNum.
    void SetUse64BitSize() { m_offsets.SetUse64BitSize(); }
    /// Duration of the only sample of a track with a single sample, media ticks.
    void SetFrameDuration(int32_t nDuration) { m_stts.SetFrameDuration(nDuration); }
    /// Records composition offsets from now on. Comes before the first sample.
    void SetCompositionOffsets(bool enable) { m_compositionOffsets = enable; }
    /// Whether a recorded composition offset is not 0, so that 'ctts' is written.
    bool HasCompositionOffsets() const { return m_ctts.HasOffsets(); }

    /// Records one sample.
    ///
    /// @param nOffset    position of its first byte in the file
    /// @param nSize      bytes
    /// @param nPts       presentation time, media ticks; used with composition offsets only
    /// @param nDts       decode time, media ticks
    /// @param bNewChunk  whether the sample before it in the file is another track's
    /// @return false when reserved room is full; tables that were fed before keep their entry
    bool OnFrame(int64_t nOffset, int32_t nSize, int64_t nPts, int64_t nDts, bool bNewChunk);

    /// Enters the fixed-header mode, before the first sample and the first Write.
    virtual void SetMaxFrameNum(uint32_t num, uint32_t syncFrameNum);
    /// Rewrites the tables in place (fixed-header mode); the caller restores the position.
    virtual void Update();
    /// Bytes of all samples.
    virtual uint64_t GetDataSize() { return m_stsz.GetDataSize(); }

    template <class F>
    void ForEachChild(F&& visit) {
        visit(Stsd(), &CMp4StblAtom::WriteStsd);
        visit(m_stts);
        visit(m_ctts);
        visit(m_stsz);
        visit(m_stsc);
        visit(m_offsets.Selected());
        if (CMp4Atom* const stss = Stss()) visit(*stss, &CMp4StblAtom::WriteStss);
    }

protected:
    virtual void WriteStsd() { Stsd().Write(); }
    virtual void WriteStss() {
        if (CMp4Atom* const stss = Stss()) stss->Write();
    }
    virtual CMp4Atom& Stsd() = 0;
    /// The sync samples; null in a track in which every sample is one.
    virtual CMp4Atom* Stss() { return nullptr; }

    /// The fixed-header mode with room for `runs` durations.
    void ReserveTables(uint32_t num, uint32_t runs);

    CMp4SttsAtom m_stts;

private:
    bool OnFixedHeaderFrame(int64_t nOffset, int32_t nSize, int64_t nDts);

    CMp4CttsAtom m_ctts;
    CMp4StszAtom m_stsz;
    CMp4StscAtom m_stsc;
    kx_mp4::ChunkOffsets m_offsets;
    bool m_fixedHeaderMode = false;
    bool m_compositionOffsets = false;
};

/// The video track's sample table.
class CMp4VideoStblAtom : public CMp4StblAtom {
public:
    explicit CMp4VideoStblAtom(IBaseIO* pWriter)
        : CMp4StblAtom(pWriter), m_stsd(pWriter), m_stss(pWriter) {}

    void SetResolution(int nWidth, int nHeight) { m_stsd.SetResolution(nWidth, nHeight); }
    void SetH264(const mp4_h264_parameter_set_t* pParam) { m_stsd.SetH264(pParam); }
    void SetHevc(const mp4_hevc_parameter_set_t* pParam) { m_stsd.SetHevc(pParam); }
    void SetProRes(const mp4_prores_parameter_set_t* pParam) { m_stsd.SetProRes(pParam); }
    void SetPresentation(const kx_mp4::Presentation& presentation) {
        m_stsd.SetPresentation(presentation);
    }
    void AddParameterSet(const std::vector<uint8_t>& set) { m_stsd.AddParameterSet(set); }
    /// Chooses the form of the colour box.
    void SetIsMp4File(bool mp4File) { m_stsd.SetIsMp4File(mp4File); }
    void SetForm(kx_mp4::FileForm form) { m_stsd.SetForm(form); }
    /// Marks a sample, by its number from 1, as a sync sample; false when reserved room is full.
    bool AddSyncSample(int32_t iSampleIndex) { return m_stss.AddSyncSample(iSampleIndex); }

    /// Leaves the sync samples to the movie fragments: an empty list would say that there are none.
    void SetForFragments() { m_forFragments = true; }

    void SetMaxFrameNum(uint32_t num, uint32_t syncFrameNum) override;
    void Update() override;

protected:
    CMp4Atom& Stsd() override { return m_stsd; }
    CMp4Atom* Stss() override { return m_forFragments ? nullptr : &m_stss; }

private:
    CMp4VideoStsdAtom m_stsd;
    CMp4StssAtom m_stss;
    uint32_t m_syncFrameNum = 0;
    bool m_forFragments = false;
};

/// The audio track's sample table. In the fixed-header mode it has room for one duration.
class CMp4AudioStblAtom : public CMp4StblAtom {
public:
    explicit CMp4AudioStblAtom(IBaseIO* pWriter) : CMp4StblAtom(pWriter), m_stsd(pWriter) {}

    void SetSamplerate(int nSamplerate) { m_stsd.SetSamplerate(nSamplerate); }
    void SetChannels(int nChannels) { m_stsd.SetChannels(nChannels); }
    void SetAAC(const uint8_t* pbData, int cbData) { m_stsd.SetAAC(pbData, cbData); }
    void SetTrakId(int iId) { m_stsd.SetTrakId(iId); }
    void SetIsMp4File(bool mp4File) { m_stsd.SetIsMp4File(mp4File); }
    void SetForm(kx_mp4::FileForm form) { m_stsd.SetForm(form); }

    void SetMaxFrameNum(uint32_t num, uint32_t) override { ReserveTables(num, 1); }

protected:
    CMp4Atom& Stsd() override { return m_stsd; }

private:
    CMp4AudioStsdAtom m_stsd;
};

/// The caption track's sample table.
class CMp4SubtitleStblAtom : public CMp4StblAtom {
public:
    explicit CMp4SubtitleStblAtom(IBaseIO* pWriter) : CMp4StblAtom(pWriter), m_stsd(pWriter) {}

    void SetTrakId(int iId) { m_stsd.SetTrakId(iId); }
    void SetCodec(mp4_subtitle_codec codec) { m_stsd.SetCodec(codec); }
    void SetForm(kx_mp4::FileForm form) { m_stsd.SetForm(form); }

protected:
    CMp4Atom& Stsd() override { return m_stsd; }

private:
    CMp4SubtitleStsdAtom m_stsd;
};

/// The timecode track's sample table: container of 'stsd', 'stts', 'stsc', 'stsz', 'stco' or
/// 'co64'. Every sample is a counter of 4 bytes; the only one that is usual lasts as long as the
/// track.
class CMp4TMCDStblAtom : public kx_mp4::ContainerAtom<CMp4TMCDStblAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "stbl";

    explicit CMp4TMCDStblAtom(IBaseIO* pWriter);

    void SetUse64BitSize() { m_offsets.SetUse64BitSize(); }
    void SetTimeScale(int32_t nTimeScale) { m_stsd.SetTimeScale(nTimeScale); }
    void SetFrameDuration(int32_t nDuration) { m_stsd.SetFrameDuration(nDuration); }
    void SetFlags(int32_t nFlags) { m_stsd.SetFlags(nFlags); }
    void SetNumOfFrames(uint8_t nFrames) { m_stsd.SetNumOfFrames(nFrames); }
    void SetForm(kx_mp4::FileForm form) { m_stsd.SetForm(form); }
    /// Duration of the only sample, media ticks.
    void SetDuration(int32_t nDuration) { m_stts.SetFrameDuration(nDuration); }

    /// Records one counter at a position of the file; false when reserved room is full.
    bool OnTimeCode(int64_t nOffset, bool bNewChunk);

    /// Rewrites the tables in place (fixed-header mode) with this duration of the only sample.
    virtual void Update(int32_t nDuration);

    /// Enters the fixed-header mode with room for `num` samples. The table has no sync samples.
    void SetMaxFrameNum(uint32_t num, uint32_t syncFrameNum);

    template <class F>
    void ForEachChild(F&& visit) {
        visit(m_stsd);
        visit(m_stts);
        visit(m_stsc);
        visit(m_stsz);
        visit(m_offsets.Selected());
    }

private:
    CMp4TMCDStsdAutom m_stsd;
    CMp4StszAtom m_stsz;
    CMp4StscAtom m_stsc;
    CMp4SttsAtom m_stts;
    kx_mp4::ChunkOffsets m_offsets;
    bool m_fixedHeaderMode = false;
};

#endif  // KX_MP4_STBL_H
