#ifndef KX_MP4_MOOV_H
#define KX_MP4_MOOV_H

#include <array>
#include <cstdint>
#include <memory>

#include "Atom.h"
#include "FileForm.h"
#include "kx_mp4/kx_mp4.h"
#include "meta.h"
#include "mvex.h"
#include "mvhd.h"
#include "trak.h"
#include "udta.h"

/// Milliseconds of the system clock since the epoch. Logged durations are differences of two.
int64_t GetTimeTick();

/// Movie Box, 'moov' - ISO/IEC 14496-12, 8.2.1 - at the end of the file - container of 'mvhd', the
/// video, audio, timecode and caption 'trak' that have samples, 'meta' (custom keys), 'udta' and,
/// in a live index, 'mvex'
///
/// The index of the file. Tracks get their IDs, from 1, in the order in which they are declared;
/// every sample that was appended to the media data is reported here and reaches its track's
/// tables. A new chunk begins whenever the sample before it in the file was another track's.
class CMp4MoovAtom : public kx_mp4::ContainerAtom<CMp4MoovAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "moov";

    /// In fast-write mode `pWriter` is a CBufferIO that is flushed to `pFileWriter` in one piece.
    CMp4MoovAtom(IBaseIO* pWriter, bool fastWrite, IBaseIO* pFileWriter);

    /// 64-bit chunk offsets for video, audio and timecode.
    void SetUse64bitSize();
    /// 64-bit times for the movie, video and audio.
    void SetUse64bitTime();
    /// Chooses between the forms of MP4 and QuickTime.
    void SetIsMp4File(bool mp4File);
    /// See CMp4Muxer::SetCompositionOffsets.
    void SetCompositionOffsets(bool enable) { m_trakVideo.SetCompositionOffsets(enable); }

    /// What the file says beside the described boxes, see Presentation.h; comes before Write and
    /// GetSize and may be given again.
    void SetPresentation(const kx_mp4::Presentation& presentation);

    /// Declares the video track; a second call keeps the ID and replaces the description.
    bool SetVideoTrack(const mp4_video_track_info* pTrackInfo);
    /// Puts a further parameter set, of the video track's codec, behind those of its description.
    void AddParameterSet(const std::vector<uint8_t>& set) { m_trakVideo.AddParameterSet(set); }
    /// Declares the audio track; every call hands out a new ID. The same holds for those below.
    bool SetAudioTrack(const mp4_audio_track_info_t* pTrackInfo);
    bool SetSubtitleTrack(const mp4_subtitle_track_info_t* pTrackInfo);
    /// Declares the timecode track and makes the video track refer to it.
    bool SetTCMDTrack(const mp4_time_code_track_info_t* pTrackInfo);
    /// Offers an item to the iTunes form, and what that does not take to the QuickTime form; false
    /// when neither takes it.
    bool SetMetaData(const char* pKey, const char* pData, uint32_t size, mp4_meta_data_type_t type,
                     const char* key_namespace);

    /// Takes the metadata of another movie box in place of its own.
    void CopyMetadata(const CMp4MoovAtom& from) {
        m_udta.m_meta.CopyItems(from.m_udta.m_meta);
        m_meta.CopyItems(from.m_meta);
        m_has_meta = from.m_has_meta;
    }

    /// Makes this the movie box of a file whose samples are listed by movie fragments: the tracks
    /// declared so far are written without samples, the video's edit starts at `videoStart` ticks.
    void SetForFragments(int64_t videoStart);

    /// Records a video sample: position in the file, bytes, times in the track's ticks. False when
    /// reserved room is full. A track whose offsets pass 32 bits moves to 64-bit ones.
    bool AfterWriteVideoFrame(int64_t nOffset, int cbFrame, int64_t nPts, int64_t nDts, bool bSync);
    /// Records an audio sample; false without a declared track, or when reserved room is full.
    bool AfterWriteAudioFrame(int64_t nOffset, int cbFrame, int64_t nTimeStamp);
    /// Records a caption sample; its offset must fit 32 bits.
    void AfterWriteSubtitleFrame(int64_t nOffset, int cbFrame, int64_t nTimeStamp);
    /// Records a timecode sample of 4 bytes.
    void AfterWriteTimeCode(int64_t nOffSet);

    /// Bytes that are no sample lie before the next one, which therefore opens a chunk.
    void EndChunk() { m_iLastTrakId = 0; }

    /// The longer of the video and the audio duration in milliseconds.
    uint64_t GetDurationMS();
    /// KiB per second.
    double GetVideoBitrate() { return m_trakVideo.GetBitrate(); }
    double GetAudioBitrate() { return m_trakAudio.GetBitrate(); }

    void Write() override;
    uint32_t GetSize() override;
    /// Rewrites durations and tables of a box that lies in the file already (fixed-header mode),
    /// and restores the writer's position.
    void Update();

    /// A track that was never declared says in the log that it is left out, if it is video or
    /// audio.
    template <class F>
    void ForEachChild(F&& visit) {
        visit(m_mvhd);
        if (m_mvex == nullptr || m_trakVideo.valid()) visit(m_trakVideo);
        if (m_mvex == nullptr || m_trakAudio.valid()) visit(m_trakAudio);
        if (m_trackTC.valid()) visit(m_trackTC);
        if (m_trakSubtitle.valid()) visit(m_trakSubtitle);
        if (m_has_meta) visit(m_meta);
        visit(m_udta);
        if (m_mvex != nullptr) visit(*m_mvex);
    }

    CMp4UdtaAtom m_udta;
    CMp4MetaAtom m_meta;
    bool m_has_meta = false;

private:
    void SetForm(kx_mp4::FileForm form);
    int32_t NextTrakId();
    /// Whether a sample of this track opens a chunk; the track is then the last one written.
    bool OpensChunk(const CMp4TrakAtom& track);
    int64_t MovieDuration();
    int64_t TimecodeDuration();
    /// Those whose samples have times of their own.
    std::array<CMp4TrakAtom*, 3> TimedTracks() {
        return {&m_trakVideo, &m_trakAudio, &m_trakSubtitle};
    }
    /// In which the durations of all tracks are whole numbers, as far as 31 bits allow it.
    uint32_t ExactTimeScale();
    /// Gives every track its place on the movie's timeline, which begins with the first of them.
    void KeepStartTimes();
    void SettleNominalDurations();
    /// Brings up to date what one track takes from another; sizes follow from it.
    void SetDerivedFields();
    void VerifySize(int64_t start);

    int32_t m_nTrakCount = 0;
    CMp4MvhdAtom m_mvhd;
    CMp4VideoTrakAtom m_trakVideo;
    CMp4AudioTrakAtom m_trakAudio;
    CMp4TCTrakAtom m_trackTC;
    CMp4SubtitleTrakAtom m_trakSubtitle;
    int32_t m_iLastTrakId = 0;
    bool m_fastWrite;
    IBaseIO* m_pFileWriter;
    bool m_isQtFile = false;
    bool m_keepsStartTimes = false;
    std::unique_ptr<CMp4MvexAtom> m_mvex;
};

#endif  // KX_MP4_MOOV_H
