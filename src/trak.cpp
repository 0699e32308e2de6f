#include "trak.h"

#include <algorithm>
#include <memory>

#include "AudioES.h"
#include "Log.h"
#include "Rescale.h"

using kx_mp4::AtMost32Bits;
using kx_mp4::Low32;
using kx_mp4::SampleRateOfField;

namespace {

constexpr uint32_t kDefaultTimeScale = 1000;
constexpr uint32_t kMillisecondsPerSecond = 1000;

/// a - b, wrapping.
int64_t Difference(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

/// Takes the step from one timestamp to the next. One that goes back is no duration.
void UpdateStep(uint32_t& step, int64_t from, int64_t to) {
    if (to >= from) step = Low32(Difference(to, from));
}

/// a + b, wrapping.
int64_t Sum(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

}  // namespace

// CMp4TrakAtom

CMp4TrakAtom::CMp4TrakAtom(IBaseIO* pWriter)
    : ContainerAtom(pWriter), m_tkhd(pWriter), m_edts(pWriter) {}

void CMp4TrakAtom::SetTrakID(int32_t iTrakID) {
    m_iTrakID = iTrakID;
    m_tkhd.SetTrakId(iTrakID);
}

void CMp4TrakAtom::SetUse64bitTime() {
    m_tkhd.SetUse64bitTime();
    m_edts.SetUse64bitTime();
    Media().SetUse64bitTime();
}

void CMp4TrakAtom::SetFixedHeaderMode(bool mode) {
    m_fixedHeaderMode = mode;
    m_tkhd.SetFixedHeaderMode(mode);
    m_edts.SetFixedHeaderMode(mode);
    Media().SetFixedHeaderMode(mode);
}

void CMp4TrakAtom::AdvanceClock(int64_t timestamp) {
    // From 0 to the first sample is no step either, but durations have always counted it.
    const bool isFirst = m_keepsStart && GetSampleNumbers() == 1;
    if (!isFirst) UpdateStep(m_lastFrameDuration, m_nLastTs, timestamp);
    m_nLastTs = timestamp;
}

void CMp4TrakAtom::SettleNominalDuration() {
    m_frameDuration = LastSampleDuration(m_lastFrameDuration);
}

int64_t CMp4TrakAtom::PresentedDuration() {
    return Sum(Difference(m_nLastTs, m_nStartTs), LastSampleDuration(m_lastFrameDuration));
}

int64_t CMp4TrakAtom::GetDuration() {
    SettleNominalDuration();
    return PresentedDuration();
}

int64_t CMp4TrakAtom::PresentedDurationMS() {
    return kx_mp4::Rescale(PresentedDuration(), kMillisecondsPerSecond, GetTimeScale());
}

double CMp4TrakAtom::GetBitrate() {
    constexpr int64_t kBytesPerKiB = 1024;
    const int64_t duration = GetDuration();
    if (duration == 0) return 0.0;
    return static_cast<double>(GetDataSize() * GetTimeScale()) /
           (static_cast<double>(duration) * kBytesPerKiB);
}

int64_t CMp4TrakAtom::HeaderDuration() {
    const int64_t duration = PresentedDuration();
    return GetTimeScale() == m_moovTimeScale
               ? duration
               : kx_mp4::Rescale(duration, m_moovTimeScale, GetTimeScale());
}

void CMp4TrakAtom::SetForFragments(int64_t mediaStart) {
    m_forFragments = true;
    m_fragmentsStart = mediaStart;
}

void CMp4TrakAtom::KeepStart(int64_t delay) {
    m_keepsStart = true;
    m_delay = delay;
}

void CMp4TrakAtom::SetHeaderTimes() {
    if (m_forFragments) {
        // Durations of 0 leave it to the fragments how long the track lasts.
        m_edts.SetMediaTime(m_fragmentsStart);
        return;
    }
    const int64_t duration = HeaderDuration();
    m_tkhd.SetDuration(m_delay + duration);
    m_edts.SetEmptyDuration(m_delay);
    m_edts.SetDuration(duration);
    m_edts.SetMediaTime(GetMediaStart());
    Media().SetDuration(GetMediaDuration());
}

void CMp4TrakAtom::Write() {
    if (!IsWritten()) {
        kx_mp4::LogError("write without track data", "src/trak", __LINE__, "Write");
        return;
    }
    SettleNominalDuration();
    SetHeaderTimes();
    ContainerAtom::Write();
}

uint32_t CMp4TrakAtom::GetSize() {
    if (!IsWritten()) return 0;
    SetHeaderTimes();
    return ContainerAtom::GetSize();
}

void CMp4TrakAtom::Update() {
    SettleNominalDuration();
    SetHeaderTimes();
    m_tkhd.Update();
    m_edts.Update();
}

// CMp4VideoTrakAtom

CMp4VideoTrakAtom::CMp4VideoTrakAtom(IBaseIO* pWriter)
    : CMp4TrakAtom(pWriter), m_mdia(pWriter), m_tref(pWriter) {
    m_info.timescale = kDefaultTimeScale;
}

void CMp4VideoTrakAtom::SetCompositionOffsets(bool enable) {
    SampleTable().SetCompositionOffsets(enable);
}

void CMp4VideoTrakAtom::SetVideoInfo(const mp4_video_track_info_t* pTrackInfo) {
    m_info = *pTrackInfo;
    if (m_info.timescale == 0) m_info.timescale = kDefaultTimeScale;
    const auto frameDuration = static_cast<uint32_t>(m_info.frame_duration);
    m_tkhd.SetResolution(m_info.width, m_info.height);
    m_mdia.SetTimeScale(static_cast<int32_t>(m_info.timescale));
    SampleTable().SetResolution(m_info.width, m_info.height);
    SampleTable().SetFrameDuration(static_cast<int32_t>(frameDuration));
    setFrameDuration(frameDuration);
    switch (m_info.codec) {
        case MP4_MVC_H264:
            SampleTable().SetH264(&m_info.h264);
            break;
        case MP4_MVC_HEVC:
            SampleTable().SetHevc(&m_info.hevc);
            break;
        case MP4_MVC_PRORES:
            SampleTable().SetProRes(&m_info.prores);
            break;
        default:
            break;
    }
}

void CMp4VideoTrakAtom::SetPresentation(const kx_mp4::Presentation& presentation) {
    const mp4_video_shape_t& shape = presentation.shape;
    m_tkhd.SetShape(shape.pixel_width, shape.pixel_height, shape.rotation);
    SampleTable().SetPresentation(presentation);
}

bool CMp4VideoTrakAtom::AddTimeCodeReference(int32_t tcTrackID) {
    auto reference = std::make_shared<CMp4RefTrackTypeAtom>(m_pWriter);
    reference->SetRefType(REFERENCE_TRACK_TMCD);
    reference->SetRefTrack(tcTrackID);
    m_tref.AddRefTrackType(std::move(reference));
    m_bAddRefTrackAtom = true;
    return true;
}

bool CMp4VideoTrakAtom::AfterWriteVideoFrame(int64_t nOffset, int cbFrame, int64_t nPts,
                                             int64_t nDts, bool bSync, bool bNewChunk) {
    ++m_nVideoFrames;
    AdvanceClock(nPts);
    ExtendSpan(nPts, nDts);
    if (!SampleTable().OnFrame(nOffset, cbFrame, nPts, nDts, bNewChunk)) return false;
    if (!bSync) return true;
    if (!SampleTable().AddSyncSample(static_cast<int32_t>(m_nVideoFrames))) return false;
    if (m_nVideoFrames == 1) m_nStartTs = nPts;
    return true;
}

void CMp4VideoTrakAtom::ExtendSpan(int64_t nPts, int64_t nDts) {
    if (m_nVideoFrames == 1) {
        m_span = {nDts, nDts, nPts, nPts, 0};
        return;
    }
    UpdateStep(m_span.lastStep, m_span.lastDts, nDts);
    m_span.lastDts = nDts;
    m_span.firstPts = std::min(m_span.firstPts, nPts);
    m_span.lastPts = std::max(m_span.lastPts, nPts);
}

void CMp4VideoTrakAtom::SettleNominalDuration() {
    if (!HasCompositionOffsets()) CMp4TrakAtom::SettleNominalDuration();
}

int64_t CMp4VideoTrakAtom::PresentedDuration() {
    // Without offsets pictures are shown at their decode times, from the first one on.
    if (!HasCompositionOffsets())
        return KeepsStart() ? DecodedDuration() : CMp4TrakAtom::PresentedDuration();
    return Sum(Difference(m_span.lastPts, m_span.firstPts), LastSampleDuration(m_span.lastStep));
}

int64_t CMp4VideoTrakAtom::GetMediaDuration() {
    return HasCompositionOffsets() ? DecodedDuration() : PresentedDuration();
}

int64_t CMp4VideoTrakAtom::FirstShown() {
    return Sum(m_span.firstDts, GetMediaStart());
}

int64_t CMp4VideoTrakAtom::DecodedDuration() const {
    return Sum(Difference(m_span.lastDts, m_span.firstDts), LastSampleDuration(m_span.lastStep));
}

int64_t CMp4VideoTrakAtom::GetMediaStart() {
    if (!HasCompositionOffsets()) return 0;
    // A picture shown before the first decode time lies before the media's timeline: an edit
    // cannot start there.
    return std::max<int64_t>(0, Difference(m_span.firstPts, m_span.firstDts));
}

void CMp4VideoTrakAtom::SetForFragments(int64_t mediaStart) {
    CMp4TrakAtom::SetForFragments(mediaStart);
    SampleTable().SetForFragments();
}

void CMp4VideoTrakAtom::Update() {
    CMp4TrakAtom::Update();
    SampleTable().Update();
    m_mdia.Update();
}

// CMp4AudioTrakAtom

CMp4AudioTrakAtom::CMp4AudioTrakAtom(IBaseIO* pWriter) : CMp4TrakAtom(pWriter), m_mdia(pWriter) {
    constexpr int16_t kSoundGroup = 1;
    m_tkhd.SetAlternateGroup(kSoundGroup);
    m_info.timescale = kDefaultTimeScale;
}

void CMp4AudioTrakAtom::SetAudioInfo(const mp4_audio_track_info_t* pTrackInfo) {
    m_info = *pTrackInfo;
    if (m_info.timescale == 0) m_info.timescale = kDefaultTimeScale;
    const int sampleRate = SampleRateOfField(m_info.sample_rate);
    const auto frameDuration = static_cast<uint32_t>(m_info.frame_duration);
    m_mdia.SetTimeScale(static_cast<int32_t>(m_info.timescale));
    SampleTable().SetSamplerate(sampleRate);
    SampleTable().SetChannels(m_info.channels);
    SampleTable().SetTrakId(m_iTrakID);
    SampleTable().SetFrameDuration(static_cast<int32_t>(frameDuration));
    setFrameDuration(frameDuration);
    if (m_info.codec != MP4_MAC_AAC && m_info.codec != MP4_MAC_ADTS) return;
    if (!CAudioES::CanDescribe(m_info.profile))
        kx_mp4::LogWarn("AAC object type %d cannot be described, it is recorded as AAC LC",
                        "src/trak", __LINE__, "SetAudioInfo", m_info.profile);
    uint8_t szEs[CAudioES::kMaxConfigSize] = {};
    const int size = CAudioES::Generate(m_info.profile, sampleRate, m_info.channels, szEs);
    SampleTable().SetAAC(szEs, size);
}

bool CMp4AudioTrakAtom::AfterWriteAudioFrame(int64_t nOffset, int cbFrame, int64_t nTimeStamp,
                                             bool bNewChunk) {
    ++m_nAudioFrames;
    AdvanceClock(nTimeStamp);
    if (!SampleTable().OnFrame(nOffset, cbFrame, nTimeStamp, nTimeStamp, bNewChunk)) return false;
    if (m_nAudioFrames == 1) m_nStartTs = nTimeStamp;
    return true;
}

int64_t CMp4AudioTrakAtom::PrimingTicks() {
    if (!KeepsStart()) return 0;
    const auto sampleRate = static_cast<uint32_t>(SampleRateOfField(m_info.sample_rate));
    const int64_t ticks = kx_mp4::Rescale(m_priming, m_info.timescale, sampleRate);
    return std::min(ticks, std::max<int64_t>(0, CMp4TrakAtom::PresentedDuration()));
}

int64_t CMp4AudioTrakAtom::PresentedDuration() {
    return Difference(CMp4TrakAtom::PresentedDuration(), PrimingTicks());
}

int64_t CMp4AudioTrakAtom::FirstShown() {
    return Sum(m_nStartTs, PrimingTicks());
}

void CMp4AudioTrakAtom::Update() {
    CMp4TrakAtom::Update();
    SampleTable().Update();
    m_mdia.Update();
}

// CMp4TCTrakAtom

CMp4TCTrakAtom::CMp4TCTrakAtom(IBaseIO* pWriter) : CMp4TrakAtom(pWriter), m_mdia(pWriter) {
    m_tkhd.SetUseTCFlag();
}

void CMp4TCTrakAtom::SetTimecodeTrackInfo(const mp4_time_code_track_info_t* pInfo) {
    m_info = *pInfo;
    const auto timescale = static_cast<int32_t>(m_info.timescale);
    m_mdia.SetTimeScale(timescale);
    m_mdia.SetMinfTimeScale(timescale);
    m_mdia.SetMinfFrameDuration(static_cast<int32_t>(static_cast<uint32_t>(m_info.frame_duration)));
    SampleTable().SetFlags(m_info.flags);
    SampleTable().SetNumOfFrames(m_info.frame_rate);
}

void CMp4TCTrakAtom::SetDuration(int64_t nDuration) {
    m_nLastTs = nDuration;
    m_nStartTs = 0;
}

void CMp4TCTrakAtom::AfterWriteTimeCode(int64_t nOffset, bool bNewChunk) {
    SampleTable().OnTimeCode(nOffset, bNewChunk);
    ++m_nSamples;
}

int32_t CMp4TCTrakAtom::SampleDuration() {
    return static_cast<int32_t>(Low32(AtMost32Bits(PresentedDuration())));
}

void CMp4TCTrakAtom::SetHeaderTimes() {
    CMp4TrakAtom::SetHeaderTimes();
    SampleTable().SetDuration(SampleDuration());
}

void CMp4TCTrakAtom::Update() {
    CMp4TrakAtom::Update();
    m_mdia.Update();
    if (m_nLastUpdateSamples >= m_nSamples) return;
    SampleTable().Update(SampleDuration());
    m_nLastUpdateSamples = m_nSamples;
}

void CMp4TCTrakAtom::SetFixedHeaderMode(bool mode) {
    CMp4TrakAtom::SetFixedHeaderMode(mode);
    SampleTable().SetMaxFrameNum(1, 0);
}

// CMp4SubtitleTrakAtom

CMp4SubtitleTrakAtom::CMp4SubtitleTrakAtom(IBaseIO* pWriter)
    : CMp4TrakAtom(pWriter), m_mdia(pWriter) {}

void CMp4SubtitleTrakAtom::SetSubtitleInfo(const mp4_subtitle_track_info_t* pTrackInfo) {
    m_info = *pTrackInfo;
    if (m_info.timescale == 0) m_info.timescale = kDefaultTimeScale;
    m_mdia.SetTimeScale(static_cast<int32_t>(m_info.timescale));
    SampleTable().SetTrakId(m_iTrakID);
    SampleTable().SetFrameDuration(0);
    SampleTable().SetCodec(m_info.codec);
}

bool CMp4SubtitleTrakAtom::AfterWriteFrame(int64_t nOffset, int cbFrame, int64_t nTimeStamp,
                                           bool bNewChunk) {
    ++m_nFrames;
    AdvanceClock(nTimeStamp);
    const bool result = SampleTable().OnFrame(nOffset, cbFrame, nTimeStamp, nTimeStamp, bNewChunk);
    if (m_nFrames == 1) m_nStartTs = nTimeStamp;
    return result;
}
