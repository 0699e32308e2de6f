#ifndef KX_MP4_TRAK_H
#define KX_MP4_TRAK_H

#include <cstdint>

#include "Atom.h"
#include "FileForm.h"
#include "Presentation.h"
#include "edts.h"
#include "kx_mp4/kx_mp4.h"
#include "mdia.h"
#include "tkhd.h"
#include "tref.h"

/// Track Box, 'trak' - ISO/IEC 14496-12, 8.3.1 - inside 'moov' - container of 'tkhd', 'edts',
/// 'tref' (video with a timecode track) and 'mdia'
///
/// Keeps what the durations of a track need: its first and its last timestamp and the nominal or
/// the last step. Durations of single samples are the sample table's.
class CMp4TrakAtom : public kx_mp4::ContainerAtom<CMp4TrakAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "trak";

    explicit CMp4TrakAtom(IBaseIO* pWriter);

    /// Without ID or samples a track is left out and an error is logged, except in the
    /// fixed-header mode.
    void Write() override;
    uint32_t GetSize() override;
    /// Whether the track has an ID.
    virtual bool valid() { return m_iTrakID > 0; }
    /// Samples recorded.
    virtual int32_t GetSampleNumbers() = 0;
    virtual void SetUse64bitTime();
    /// Ticks per second of the media.
    virtual uint32_t GetTimeScale() = 0;
    /// Rewrites the durations and tables in place (fixed-header mode).
    virtual void Update();
    /// Bytes of all samples.
    virtual uint64_t GetDataSize() { return 0; }
    /// KiB per second; 0 without a duration.
    virtual double GetBitrate();
    /// A track of the fixed-header mode is written even before its first sample.
    virtual void SetFixedHeaderMode(bool mode);
    /// Describes samples that movie fragments list: the track is written without any, its durations
    /// are 0 and its edit starts at `mediaStart` ticks.
    void SetForFragments(int64_t mediaStart);
    /// Keeps the track's place in the movie: nothing is shown before `delay`, in ticks of the
    /// movie. Durations then count what is shown from the first sample on.
    void KeepStart(int64_t delay);
    bool KeepsStart() const { return m_keepsStart; }
    /// Ticks of the timestamps' timeline at which the first sample is shown.
    virtual int64_t FirstShown() { return m_nStartTs; }
    /// End of the presentation of a track that keeps its start, in ticks of the movie.
    int64_t EndInMovie() { return m_delay + HeaderDuration(); }
    bool HasSamples() { return m_iTrakID > 0 && (m_forFragments || GetSampleNumbers() > 0); }

protected:
    virtual void WriteMdia() { Media().Write(); }
    virtual void WriteRefTrack() {
        if (CMp4Atom* const reference = RefTrack()) reference->Write();
    }

public:
    /// Ticks per second of the movie; comes before Write and GetSize.
    void setMoovTimeScale(uint32_t timescale) { m_moovTimeScale = timescale; }
    void SetTrakID(int32_t iTrakID);
    int32_t GetTrakID() const { return m_iTrakID; }
    /// PresentedDuration, after SettleNominalDuration.
    int64_t GetDuration();
    /// Makes the last step the nominal duration when none is known; later steps do not change it.
    virtual void SettleNominalDuration();
    /// What is presented, in ticks of the media: last minus first timestamp, and the last sample
    /// with its nominal duration, or without one with the last step that did not go back.
    virtual int64_t PresentedDuration();
    /// PresentedDuration in milliseconds; 0 without a timescale.
    int64_t PresentedDurationMS();
    /// Nominal duration of a sample in ticks; 0 when not known.
    void setFrameDuration(uint32_t frameDuration) { m_frameDuration = frameDuration; }

    template <class F>
    void ForEachChild(F&& visit) {
        visit(m_tkhd);
        visit(m_edts);
        if (CMp4Atom* const reference = RefTrack()) visit(*reference, &CMp4TrakAtom::WriteRefTrack);
        visit(Media(), &CMp4TrakAtom::WriteMdia);
    }

protected:
    /// The media box of the kind.
    virtual CMp4MdiaAtom& Media() = 0;
    /// The track reference; null without one.
    virtual CMp4Atom* RefTrack() { return nullptr; }
    /// Duration of all samples as they are decoded, in ticks.
    virtual int64_t GetMediaDuration() { return PresentedDuration(); }
    /// Where the presentation starts on the media's timeline, in ticks.
    virtual int64_t GetMediaStart() { return 0; }

    /// Takes the next sample's timestamp.
    void AdvanceClock(int64_t timestamp);
    bool IsWritten() { return m_fixedHeaderMode || HasSamples(); }
    /// The nominal duration, or this step when none is known.
    uint32_t LastSampleDuration(uint32_t lastStep) const {
        return m_frameDuration != 0 ? m_frameDuration : lastStep;
    }

    int32_t m_iTrakID = 0;
    CMp4TkhdAtom m_tkhd;
    CMp4EdtsAtom m_edts;
    uint32_t m_moovTimeScale = 0;
    int64_t m_nStartTs = 0;
    int64_t m_nLastTs = 0;
    uint32_t m_frameDuration = 0;
    uint32_t m_lastFrameDuration = 0;
    bool m_fixedHeaderMode = false;
    bool m_forFragments = false;
    int64_t m_fragmentsStart = 0;
    bool m_keepsStart = false;
    int64_t m_delay = 0;

    /// Brings the headers up to date; their sizes follow from the times.
    virtual void SetHeaderTimes();

private:
    int64_t HeaderDuration();
};

/// The video track.
class CMp4VideoTrakAtom : public CMp4TrakAtom {
public:
    explicit CMp4VideoTrakAtom(IBaseIO* pWriter);

    int32_t GetSampleNumbers() override { return static_cast<int32_t>(m_nVideoFrames); }
    uint32_t GetTimeScale() override { return m_info.timescale; }
    void Update() override;
    uint64_t GetDataSize() override { return m_mdia.GetDataSize(); }
    void SettleNominalDuration() override;
    int64_t PresentedDuration() override;
    int64_t FirstShown() override;
    void SetPresentation(const kx_mp4::Presentation& presentation);
    void AddParameterSet(const std::vector<uint8_t>& set) { SampleTable().AddParameterSet(set); }
    /// As the base's, and without sync samples.
    void SetForFragments(int64_t mediaStart);

    int32_t GetWidth() const { return m_info.width; }
    int32_t GetHeight() const { return m_info.height; }
    /// Chooses the form of the colour box.
    void SetIsMp4File(bool mp4File) { SampleTable().SetIsMp4File(mp4File); }
    void SetForm(kx_mp4::FileForm form) { m_mdia.SetForm(form); }
    /// 64-bit chunk offsets; recorded ones are carried over.
    void SetUse64BitSize() { m_mdia.MediaInformation().SetUse64BitSize(); }
    /// See CMp4Muxer::SetCompositionOffsets.
    void SetCompositionOffsets(bool enable);
    /// Takes over the description; the parameter sets are copied.
    void SetVideoInfo(const mp4_video_track_info_t* pTrackInfo);
    /// Makes this track refer to a timecode track.
    bool AddTimeCodeReference(int32_t tcTrackID);
    /// Records a sample, see CMp4StblAtom::OnFrame; false when reserved room is full.
    bool AfterWriteVideoFrame(int64_t nOffset, int cbFrame, int64_t nPts, int64_t nDts, bool bSync,
                              bool bNewChunk);

protected:
    CMp4MdiaAtom& Media() override { return m_mdia; }
    CMp4Atom* RefTrack() override { return m_bAddRefTrackAtom ? &m_tref : nullptr; }
    int64_t GetMediaDuration() override;
    int64_t GetMediaStart() override;

private:
    /// Times of all samples recorded, for a track with composition offsets.
    struct Span {
        int64_t firstDts = 0;
        int64_t lastDts = 0;
        int64_t firstPts = 0;
        int64_t lastPts = 0;
        uint32_t lastStep = 0;
    };

    CMp4VideoStblAtom& SampleTable() { return m_mdia.MediaInformation().SampleTable(); }
    bool HasCompositionOffsets() { return SampleTable().HasCompositionOffsets(); }
    void ExtendSpan(int64_t nPts, int64_t nDts);
    int64_t DecodedDuration() const;

    mp4_video_track_info_t m_info{};
    CMp4VideoMdiaAtom m_mdia;
    CMp4RefTrakAtom m_tref;
    int64_t m_nVideoFrames = 0;
    bool m_bAddRefTrackAtom = false;
    Span m_span;
};

/// The audio track.
class CMp4AudioTrakAtom : public CMp4TrakAtom {
public:
    explicit CMp4AudioTrakAtom(IBaseIO* pWriter);

    int32_t GetSampleNumbers() override { return static_cast<int32_t>(m_nAudioFrames); }
    uint32_t GetTimeScale() override { return m_info.timescale; }
    void Update() override;
    uint64_t GetDataSize() override { return m_mdia.GetDataSize(); }
    int64_t PresentedDuration() override;
    int64_t FirstShown() override;
    /// Samples of sound at the beginning that are not to be heard, of a track that keeps its start.
    void SetPriming(uint32_t samples) { m_priming = samples; }

    /// 64-bit chunk offsets; recorded ones are carried over.
    void SetUse64BitSize() { m_mdia.MediaInformation().SetUse64BitSize(); }
    /// Chooses the form of the sample entry.
    void SetIsMp4File(bool mp4File) { SampleTable().SetIsMp4File(mp4File); }
    void SetForm(kx_mp4::FileForm form) { m_mdia.SetForm(form); }
    /// Takes over the description and builds the AudioSpecificConfig.
    void SetAudioInfo(const mp4_audio_track_info_t* pTrackInfo);
    /// Records a sample; false when reserved room is full.
    bool AfterWriteAudioFrame(int64_t nOffset, int cbFrame, int64_t nTimeStamp, bool bNewChunk);

protected:
    CMp4MdiaAtom& Media() override { return m_mdia; }
    int64_t GetMediaDuration() override { return CMp4TrakAtom::PresentedDuration(); }
    int64_t GetMediaStart() override { return PrimingTicks(); }

private:
    CMp4AudioStblAtom& SampleTable() { return m_mdia.MediaInformation().SampleTable(); }
    /// The priming in ticks, at most all of the sound; 0 where starts are not kept.
    int64_t PrimingTicks();

    uint32_t m_priming = 0;
    mp4_audio_track_info_t m_info{};
    CMp4AudioMdiaAtom m_mdia;
    int64_t m_nAudioFrames = 0;
};

/// The timecode track. Its duration is given to it: that of the video track.
class CMp4TCTrakAtom : public CMp4TrakAtom {
public:
    explicit CMp4TCTrakAtom(IBaseIO* pWriter);

    /// 0 without samples, in every mode.
    uint32_t GetSize() override { return HasSamples() ? CMp4TrakAtom::GetSize() : 0; }
    int32_t GetSampleNumbers() override { return static_cast<int32_t>(m_nSamples); }
    uint32_t GetTimeScale() override { return m_info.timescale; }
    void Update() override;
    /// Reserves room for one sample, whatever the mode.
    void SetFixedHeaderMode(bool mode) override;

    void SetUse64BitSize() { m_mdia.MediaInformation().SetUse64BitSize(); }
    /// Chooses the media header.
    void SetIsMp4File(bool mp4File) { m_mdia.MediaInformation().SetMp4Format(mp4File); }
    void SetForm(kx_mp4::FileForm form) {
        m_tkhd.SetForm(form);
        m_mdia.SetForm(form);
    }
    void SetTimecodeTrackInfo(const mp4_time_code_track_info_t* pInfo);
    /// Ticks of the timecode track's timescale.
    void SetDuration(int64_t nDuration);
    void AfterWriteTimeCode(int64_t nOffset, bool bNewChunk);

protected:
    CMp4MdiaAtom& Media() override { return m_mdia; }
    void SetHeaderTimes() override;

private:
    CMp4TMCDStblAtom& SampleTable() { return m_mdia.MediaInformation().SampleTable(); }
    /// Of the only sample, which lasts as long as the track: 'stts' has 32 bits in every version.
    int32_t SampleDuration();

    CMp4TCMdiaAtom m_mdia;
    mp4_time_code_track_info_t m_info{};
    int64_t m_nSamples = 0;
    int64_t m_nLastUpdateSamples = 0;
};

/// The closed-caption track. Its offsets are always 32-bit.
class CMp4SubtitleTrakAtom : public CMp4TrakAtom {
public:
    explicit CMp4SubtitleTrakAtom(IBaseIO* pWriter);

    /// 0 without samples, in every mode.
    uint32_t GetSize() override { return HasSamples() ? CMp4TrakAtom::GetSize() : 0; }
    int32_t GetSampleNumbers() override { return static_cast<int32_t>(m_nFrames); }
    uint32_t GetTimeScale() override { return m_info.timescale; }

    /// Pixels of the video that the captions belong to.
    void SetResolution(int32_t nWidth, int32_t nHeight) { m_tkhd.SetResolution(nWidth, nHeight); }
    void SetSubtitleInfo(const mp4_subtitle_track_info_t* pTrackInfo);
    void SetForm(kx_mp4::FileForm form) { m_mdia.SetForm(form); }
    /// Records a sample; false when reserved room is full.
    bool AfterWriteFrame(int64_t nOffset, int cbFrame, int64_t nTimeStamp, bool bNewChunk);

protected:
    CMp4MdiaAtom& Media() override { return m_mdia; }

private:
    CMp4SubtitleStblAtom& SampleTable() { return m_mdia.MediaInformation().SampleTable(); }

    mp4_subtitle_track_info_t m_info{MP4_SUBTITLE_CODEC_UNKNOWN, 1000};
    CMp4SubtitleMdiaAtom m_mdia;
    int64_t m_nFrames = 0;
};

#endif  // KX_MP4_TRAK_H
