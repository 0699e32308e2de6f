#include "moov.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <initializer_list>
#include <numeric>

#include "Log.h"
#include "Rescale.h"

using kx_mp4::FileForm;

namespace {

constexpr const char* kSource = "src/moov";

bool Needs64bitOffset(int64_t offset) {
    return offset > int64_t{UINT32_MAX};
}

}  // namespace

int64_t GetTimeTick() {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    return duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

CMp4MoovAtom::CMp4MoovAtom(IBaseIO* pWriter, bool fastWrite, IBaseIO* pFileWriter)
    : ContainerAtom(pWriter),
      m_udta(pWriter),
      m_meta(pWriter),
      m_mvhd(pWriter),
      m_trakVideo(pWriter),
      m_trakAudio(pWriter),
      m_trackTC(pWriter),
      m_trakSubtitle(pWriter),
      m_fastWrite(fastWrite),
      m_pFileWriter(pFileWriter) {
    const uint32_t movieTimeScale = m_mvhd.GetTimeScale();
    m_trakVideo.setMoovTimeScale(movieTimeScale);
    m_trakAudio.setMoovTimeScale(movieTimeScale);
    m_trackTC.setMoovTimeScale(movieTimeScale);
    m_trakSubtitle.setMoovTimeScale(movieTimeScale);
}

// Configuration

void CMp4MoovAtom::SetUse64bitSize() {
    m_trakVideo.SetUse64BitSize();
    m_trakAudio.SetUse64BitSize();
    m_trackTC.SetUse64BitSize();
}

void CMp4MoovAtom::SetUse64bitTime() {
    m_mvhd.SetUse64bitTime();
    m_trakVideo.SetUse64bitTime();
    m_trakAudio.SetUse64bitTime();
}

void CMp4MoovAtom::SetIsMp4File(bool mp4File) {
    m_trakVideo.SetIsMp4File(mp4File);
    m_trackTC.SetIsMp4File(mp4File);
    m_trakAudio.SetIsMp4File(mp4File);
    m_isQtFile = !mp4File;
}

void CMp4MoovAtom::SetPresentation(const kx_mp4::Presentation& presentation) {
    m_keepsStartTimes = presentation.startTimes;
    if (m_keepsStartTimes)
        for (CMp4TrakAtom* const track : TimedTracks())
            track->KeepStart(0);
    m_trakVideo.SetPresentation(presentation);
    m_trakAudio.SetPriming(presentation.audioPriming);
    SetForm(!presentation.strictForm ? FileForm::kUsual
            : m_isQtFile             ? FileForm::kStrictQuickTime
                                     : FileForm::kStrictMp4);
}

void CMp4MoovAtom::SetForm(FileForm form) {
    m_trakVideo.SetForm(form);
    m_trakAudio.SetForm(form);
    m_trackTC.SetForm(form);
    m_trakSubtitle.SetForm(form);
    m_meta.SetForm(form);
}

int32_t CMp4MoovAtom::NextTrakId() {
    ++m_nTrakCount;
    m_mvhd.SetMaxTrakId(m_nTrakCount);
    return m_nTrakCount;
}

bool CMp4MoovAtom::SetVideoTrack(const mp4_video_track_info* pTrackInfo) {
    if (!m_trakVideo.valid()) m_trakVideo.SetTrakID(NextTrakId());
    m_trakVideo.SetVideoInfo(pTrackInfo);
    return true;
}

bool CMp4MoovAtom::SetAudioTrack(const mp4_audio_track_info_t* pTrackInfo) {
    m_trakAudio.SetTrakID(NextTrakId());
    m_trakAudio.SetAudioInfo(pTrackInfo);
    return true;
}

bool CMp4MoovAtom::SetSubtitleTrack(const mp4_subtitle_track_info_t* pTrackInfo) {
    m_trakSubtitle.SetTrakID(NextTrakId());
    m_trakSubtitle.SetSubtitleInfo(pTrackInfo);
    return true;
}

bool CMp4MoovAtom::SetTCMDTrack(const mp4_time_code_track_info_t* pTrackInfo) {
    m_trackTC.SetTrakID(NextTrakId());
    m_trackTC.SetTimecodeTrackInfo(pTrackInfo);
    m_trakVideo.AddTimeCodeReference(m_trackTC.GetTrakID());
    return true;
}

bool CMp4MoovAtom::SetMetaData(const char* pKey, const char* pData, uint32_t size,
                               mp4_meta_data_type_t type, const char* key_namespace) {
    if (!CMp4IlstAtom::IsValidItem(pData, size, type)) return false;
    if (m_udta.m_meta.SetMetaData(pKey, pData, size, type, key_namespace)) return true;
    if (!m_meta.SetMetaData(pKey, pData, size, type, key_namespace)) return false;
    m_has_meta = true;
    return true;
}

void CMp4MoovAtom::SetForFragments(int64_t videoStart) {
    m_mvex = std::make_unique<CMp4MvexAtom>(m_pWriter);
    m_trakVideo.SetForFragments(videoStart);
    m_trakAudio.SetForFragments(0);
    m_trackTC.SetForFragments(0);
    m_trakSubtitle.SetForFragments(0);
    for (CMp4TrakAtom* const track : std::initializer_list<CMp4TrakAtom*>{
             &m_trakVideo, &m_trakAudio, &m_trackTC, &m_trakSubtitle}) {
        if (track->valid()) m_mvex->AddTrack(track->GetTrakID());
    }
}

// Samples

bool CMp4MoovAtom::OpensChunk(const CMp4TrakAtom& track) {
    const bool opensChunk = m_iLastTrakId != track.GetTrakID();
    m_iLastTrakId = track.GetTrakID();
    return opensChunk;
}

bool CMp4MoovAtom::AfterWriteVideoFrame(int64_t nOffset, int cbFrame, int64_t nPts, int64_t nDts,
                                        bool bSync) {
    if (Needs64bitOffset(nOffset)) m_trakVideo.SetUse64BitSize();
    return m_trakVideo.AfterWriteVideoFrame(nOffset, cbFrame, nPts, nDts, bSync,
                                            OpensChunk(m_trakVideo));
}

bool CMp4MoovAtom::AfterWriteAudioFrame(int64_t nOffset, int cbFrame, int64_t nTimeStamp) {
    // Also for a track that is not there: its bytes end the chunk of the track before.
    const bool opensChunk = OpensChunk(m_trakAudio);
    if (!m_trakAudio.valid()) return false;
    if (Needs64bitOffset(nOffset)) m_trakAudio.SetUse64BitSize();
    return m_trakAudio.AfterWriteAudioFrame(nOffset, cbFrame, nTimeStamp, opensChunk);
}

void CMp4MoovAtom::AfterWriteSubtitleFrame(int64_t nOffset, int cbFrame, int64_t nTimeStamp) {
    m_trakSubtitle.AfterWriteFrame(nOffset, cbFrame, nTimeStamp, OpensChunk(m_trakSubtitle));
}

void CMp4MoovAtom::AfterWriteTimeCode(int64_t nOffSet) {
    // A counter may come before its track is declared; as a chunk of its own it stays indexed.
    const bool opensChunk = OpensChunk(m_trackTC) || !m_trackTC.valid();
    if (Needs64bitOffset(nOffSet)) m_trackTC.SetUse64BitSize();
    m_trackTC.AfterWriteTimeCode(nOffSet, opensChunk);
}

// Queries

int64_t CMp4MoovAtom::MovieDuration() {
    if (m_mvex != nullptr) return 0;
    return std::max(m_trakVideo.PresentedDurationMS(), m_trakAudio.PresentedDurationMS());
}

void CMp4MoovAtom::SettleNominalDurations() {
    m_trakVideo.SettleNominalDuration();
    m_trakAudio.SettleNominalDuration();
}

uint64_t CMp4MoovAtom::GetDurationMS() {
    SettleNominalDurations();
    return static_cast<uint64_t>(MovieDuration());
}

int64_t CMp4MoovAtom::TimecodeDuration() {
    return kx_mp4::Rescale(m_trakVideo.PresentedDuration(), m_trackTC.GetTimeScale(),
                           m_trakVideo.GetTimeScale());
}

void CMp4MoovAtom::SetDerivedFields() {
    m_mvhd.SetDuration(MovieDuration());
    m_trackTC.SetDuration(TimecodeDuration());
    m_trakSubtitle.SetResolution(m_trakVideo.GetWidth(), m_trakVideo.GetHeight());
    if (m_keepsStartTimes && m_mvex == nullptr) KeepStartTimes();
}

uint32_t CMp4MoovAtom::ExactTimeScale() {
    uint64_t timescale = 1;
    for (CMp4TrakAtom* const track : TimedTracks()) {
        if (!track->HasSamples()) continue;
        const uint64_t common = std::lcm(timescale, uint64_t{track->GetTimeScale()});
        if (common <= INT32_MAX) timescale = common;
    }
    return static_cast<uint32_t>(timescale);
}

void CMp4MoovAtom::KeepStartTimes() {
    const uint32_t timescale = ExactTimeScale();
    m_mvhd.SetTimeScale(timescale);
    const auto startOf = [timescale](CMp4TrakAtom& track) {
        return kx_mp4::Rescale(track.FirstShown(), timescale, track.GetTimeScale());
    };
    int64_t movieStart = INT64_MAX;
    for (CMp4TrakAtom* const track : TimedTracks())
        if (track->HasSamples()) movieStart = std::min(movieStart, startOf(*track));
    int64_t movieEnd = 0;
    for (CMp4TrakAtom* const track : TimedTracks()) {
        track->setMoovTimeScale(timescale);
        if (!track->HasSamples()) continue;
        track->KeepStart(startOf(*track) - movieStart);
        movieEnd = std::max(movieEnd, track->EndInMovie());
    }
    m_mvhd.SetDuration(movieEnd);
    // The counter is that of the first picture.
    m_trackTC.setMoovTimeScale(timescale);
    if (m_trakVideo.HasSamples()) m_trackTC.KeepStart(startOf(m_trakVideo) - movieStart);
}

uint32_t CMp4MoovAtom::GetSize() {
    SetDerivedFields();
    return ContainerAtom::GetSize();
}

// Serialisation

void CMp4MoovAtom::Write() {
    int64_t start = WriterPos();
    if (m_fastWrite) {
        constexpr uint32_t kSlack = 1024;
        static_cast<CBufferIO*>(m_pWriter)->Init(m_pFileWriter, GetSize() + kSlack);
        start = 0;
    }
    SettleNominalDurations();
    SetDerivedFields();
    ContainerAtom::Write();
    kx_mp4::LogInfo("moov update size finished", kSource, __LINE__, "Write");
    VerifySize(start);
    if (!m_fastWrite) return;
    const uint64_t size = m_pWriter->Ftell();
    m_pWriter->Flush();
    kx_mp4::LogInfo("moov flush finished, size:%llu", kSource, __LINE__, "Write",
                    static_cast<unsigned long long>(size));
}

void CMp4MoovAtom::VerifySize(int64_t start) {
    const int64_t written = WriterPos() - start;
    if (written == int64_t{GetSize()}) return;
    kx_mp4::LogWarn("calc size(%u) not equal to moov real size:%lli", kSource, __LINE__, "Write",
                    GetSize(), static_cast<long long>(written));
    kx_mp4::LogInfo(
        "m_mvhd size:%u, m_trakVideo size:%u, m_trakAudio size:%u, m_trakSubtitle size:%u, "
        "m_trackTC size:%u, m_udta size:%u",
        kSource, __LINE__, "Write", m_mvhd.GetSize(), m_trakVideo.GetSize(), m_trakAudio.GetSize(),
        m_trakSubtitle.GetSize(), m_trackTC.GetSize(), m_udta.GetSize());
}

void CMp4MoovAtom::Update() {
    const int64_t position = WriterPos();
    SettleNominalDurations();
    SetDerivedFields();
    m_mvhd.Update();
    m_trakAudio.Update();
    m_trakVideo.Update();
    if (m_trackTC.valid()) m_trackTC.Update();
    m_pWriter->Seek(position, SEEK_SET);
}
