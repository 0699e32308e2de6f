/// @file
/// What stands behind CMp4Muxer: the state of one recording after the other.
#ifndef KX_MP4_MUXERSTATE_H
#define KX_MP4_MUXERSTATE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "AdtsInput.h"
#include "BaseIO.h"
#include "Figures.h"
#include "FurtherParameterSets.h"
#include "LiveIndex.h"
#include "Log.h"
#include "MLock.h"
#include "Output.h"
#include "ParameterSetKeeper.h"
#include "Presentation.h"
#include "ReservedHeader.h"
#include "SideFile.h"
#include "StreamFacts.h"
#include "TimestampWatch.h"
#include "VideoFrameParser.h"
#include "free.h"
#include "ftyp.h"
#include "kx_mp4/kx_mp4.h"
#include "mdat.h"
#include "moov.h"

namespace kx_mp4 {

/// A status for whatever an operation throws: nothing escapes the public interface.
template <class Operation>
mp4_status_t Guarded(Operation&& operation) {
    try {
        return operation();
    } catch (const kx_mp4_exception& e) {
        return e.error();
    } catch (...) {
        return MP4_STATUS_UNEXPECTED_ERROR;
    }
}

/// The muxer's fields and its road from a call to the file. The operations that CMp4Muxer has too
/// are what those do, without the guard against exceptions.
struct MuxerState {
    /// The muxer's lock during one call of a frame writer, which is timed. To look at the clock
    /// costs as much as all else that is noted of a small frame: moments with next to nothing
    /// between them share one look.
    class FrameCall {
    public:
        FrameCall(MuxerState& state, Figures::Clock::time_point start, uint32_t bytes)
            : m_state(state), m_start(start) {
            const bool atOnce = state.m_lockWrite.TryLock();
            if (!atOnce) state.m_lockWrite.Lock();
            state.m_moment = atOnce && bytes <= kQuickBytes ? start : Figures::Clock::now();
        }
        ~FrameCall() {
            m_state.m_isOpen = m_state.IsOpen();
            m_state.m_figures.OnCall(m_state.m_moment - m_start);
            m_state.m_lockWrite.Unlock();
        }
        FrameCall(const FrameCall&) = delete;
        FrameCall& operator=(const FrameCall&) = delete;

    private:
        /// Are looked through in far less than a microsecond.
        static constexpr uint32_t kQuickBytes = 4096;

        MuxerState& m_state;
        Figures::Clock::time_point m_start;
    };

    MuxerState() = default;
    MuxerState(const MuxerState&) = delete;
    MuxerState& operator=(const MuxerState&) = delete;
    ~MuxerState();

    // Life of a file

    /// Refuses a request while a file is open, and leaves nothing open when it fails.
    mp4_status_t CreateOrRelease(const OutputRequest& request);
    mp4_status_t Create(const OutputRequest& request);
    mp4_status_t Close();
    /// What a recording leaves behind in the fields.
    void ResetFileState();
    mp4_status_t OpenFiles(const OutputRequest& request);
    void CreateBoxes();
    /// What the creation options say of a movie box.
    void ConfigureMovie(CMp4MoovAtom& movie) const;
    mp4_status_t WriteHeader();
    mp4_status_t WriteHeaderBoxes();
    mp4_status_t EnsureHeader();
    bool FinishMovie(mp4_status_t* status);
    void WriteMovie();
    void FinishLiveMovie();
    void PushMovie();
    mp4_status_t CloseWriter();
    /// Queries go on with what the movie box says now.
    void FreezeIndexFigures();
    void ReleaseBoxes();

    // Queries

    /// What the movie box tells, for any thread at any time; waits for no write.
    struct IndexFigures {
        uint64_t durationMs = 0;
        uint32_t bytes = 0;
        double videoBitrate = -1.0;
        double audioBitrate = -1.0;
    };
    IndexFigures GetIndexFigures();
    uint32_t GetMoovSize();
    mp4_status_t GetStatistics(mp4_statistics_t& statistics);
    bool IsOpen() const { return m_pWriter != nullptr && m_pWriter->IsValid(); }
    mp4_status_t NotOpenAnswer(int line, const char* function) const;
    mp4_status_t Flush();

    // Set-up

    mp4_status_t SetCompositionOffsets(bool enable);
    mp4_status_t SetLiveIndex(uint32_t interval_ms);
    /// Gives the movie box of the live index these tracks and the metadata so far.
    void FillLiveMovie(CMp4MoovAtom& movie, const std::vector<LiveTrack>& tracks) const;
    /// Before the first frame; the record in the repair info file follows.
    template <class Change>
    mp4_status_t ChangePresentation(const char* function, Change&& change) {
        const mp4_status_t ready = CheckPresentationCall(function);
        if (ready != MP4_STATUS_SUCCESS) return ready;
        change(m_presentation);
        return TellPresentation();
    }
    mp4_status_t SetStrictForm(bool strict);
    mp4_status_t CheckPresentationCall(const char* function) const;
    mp4_status_t TellPresentation();
    mp4_status_t RecordPresentation(CInfoWriter& writer) const;
    /// Of the first picture, when the stream was to be asked.
    void TakeStreamFacts(const FirstPicture& picture);
    mp4_status_t AddParameterSet(const uint8_t* nal, uint32_t size);
    /// Those of a picture that go into the description.
    void TakeFurtherSets(const CVideoFrameParser& frame);
    void TakeFurtherSet(const uint8_t* nal, size_t size);
    void TellFurtherSet(const FurtherParameterSets::Set& set);
    mp4_status_t SetVideoTrack(const mp4_video_track_info* pTrackInfo);
    mp4_status_t SetVideoTrack(const mp4_video_track_info* pTrackInfo, const uint8_t* record,
                               uint32_t recordSize);
    /// What both have in common; the size is m_nalLengthSize.
    mp4_status_t DeclareVideoTrack(mp4_video_track_info_t info, uint32_t nalLengthSize);
    /// Changes what the movie box says, with no query in between.
    template <class Change>
    auto ChangeIndex(Change&& change) {
        CMAutoLock lock(m_indexLock);
        return change(*m_moov);
    }
    mp4_status_t SetAudioTrack(const mp4_audio_track_info_t* pTrackInfo);
    mp4_status_t SetSubtitleTrack(const mp4_subtitle_track_info_t* pTrackInfo);
    mp4_status_t SetTCMDTrack(const mp4_time_code_track_info_t* pTrackInfo);
    mp4_status_t SetMetadata(const char* pKey, const char* pData, uint32_t size,
                             mp4_meta_data_type_t type, const char* key_namespace);
    /// When the repair info file is on: writes the header if need be, then the record. Only the
    /// header's failure is returned.
    template <class Record>
    mp4_status_t RecordInRepairInfo(Record&& record);

    // What the frame writers share

    /// What every operation on a recording asks first.
    mp4_status_t CheckRecording(int line, const char* function) const;
    static mp4_status_t CheckSampleSize(uint64_t bytes, const char* function);
    /// Whether the file can describe a sample of this many bytes; logs when it cannot.
    bool HasRoomInFile(uint64_t bytes, const char* function) const;
    /// Writes a sample's bytes; `logUnexpected` reports a failure that is not one of I/O.
    template <class Write, class LogUnexpected>
    mp4_status_t WriteSample(Write&& write, LogUnexpected&& logUnexpected);
    /// Ends the interval of the live index when it is over before this sample.
    mp4_status_t IndexInterval(LiveTrack track, int64_t dts);
    /// Takes note of a sample whose bytes are in the output: in the movie box (`index`, false when
    /// it refuses), in the repair info file (`record`), in the next sample's offset. The caller
    /// holds the muxer's lock.
    template <class Index, class Record>
    mp4_status_t AddSample(int bytes, Index&& index, Record&& record);

    // Video

    mp4_status_t WriteVideoFrame(const uint8_t* buf, uint32_t size, uint64_t pts, uint64_t dts);
    /// Into NAL units, by start codes or lengths.
    bool Split(CVideoFrameParser& frame, const uint8_t* buf, int size) const;
    mp4_status_t RecordVideoFrame(const uint8_t* buf, uint32_t size, const CVideoFrameParser& frame,
                                  bool parsed, uint64_t pts, uint64_t dts);
    mp4_status_t CheckVideoFrame(bool parsed) const;
    /// Whether a picture of these times can be described; refused before anything is written.
    mp4_status_t CheckVideoTimes(int64_t pts, int64_t dts) const;
    /// True when the video track is now configured.
    bool GetVideoCodecData(const CVideoFrameParser& frame);
    /// Takes the unit if it is a parameter set; logs one that cannot be described.
    void TakeCodecData(const VIDEO_SLICE& unit);
    mp4_status_t DropVideoFrame();
    /// The search for parameter sets has ended.
    void ReportDroppedFrames(int line, const char* function);
    mp4_status_t AppendVideoFrame(const uint8_t* buf, uint32_t size, const CVideoFrameParser& frame,
                                  int64_t pts, int64_t dts);
    void WriteNalUnits(const CVideoFrameParser& frame);
    bool HasSyncSlice(const CVideoFrameParser& frame) const;

    // Audio, captions, timecode

    mp4_status_t WriteAudioFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp);
    mp4_status_t ConfigureAdts(const uint8_t* buf, uint32_t size);
    mp4_status_t AppendAudioFrame(const uint8_t* sample, uint32_t size, int64_t timestamp);
    mp4_status_t WriteSubtitleFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp);
    mp4_status_t CheckCaption(uint32_t size) const;
    mp4_status_t AppendCaption(const uint8_t* buf, uint32_t size, int64_t timestamp);
    mp4_status_t WriteTimeCode(int nTimeCode);

    LogSink m_log;
    Figures m_figures;
    Figures::Clock::time_point
        m_moment;  // of the running frame call, the latest that was looked at
    std::unique_ptr<IBaseIO> m_pWriter;
    ReservedHeader m_reserved;
    SideFile m_sideFile{m_figures};
    wchar_t m_pwszFilePath[1024] = {};
    SharedNumber<int64_t> m_nCurFileSize;
    mp4_video_track_info_t m_videoTrack{};
    bool m_videoHasCodecData = true;
    mp4_audio_track_info_t m_audioTrack{};
    bool m_audioHasCodecData = false;
    mp4_subtitle_track_info_t m_subtitleTrack{};
    mp4_time_code_track_info_t m_timecodeTrack{};
    uint32_t m_flags = 0;  // of the configuration
    LiveIndex m_live;
    Presentation m_presentation;
    std::unique_ptr<CMp4FtypAtom> m_ftyp;
    std::unique_ptr<CMp4FreeAtom> m_free;
    std::unique_ptr<CMp4MdatAtom> m_mdat;
    std::unique_ptr<CMp4MoovAtom> m_moov;
    std::unique_ptr<CBufferIO> m_headerWriter;
    bool m_fastHeaderWrite = false;
    std::unique_ptr<IVideoNalParser> m_pVideoNalParser;
    CMLock m_lockWrite;
    bool m_bIsQtFile = false;
    bool m_writeHeader = false;

    IFileIOBase* m_gatheringWriter = nullptr;  // m_pWriter in file mode, else null
    bool m_hasSamples = false;
    bool m_indexLost = false;
    bool m_compositionOffsets = false;
    bool m_setWarned = false;  // about parameter sets in the stream that are not taken
    ParameterSetKeeper m_parameterSets;
    FurtherParameterSets m_furtherSets{FurtherParameterSets::Counts::kFirst};
    uint64_t m_droppedVideoFrames = 0;  // while parameter sets are looked for
    AdtsInput m_adts;
    TimestampWatch m_times;
    uint32_t m_nalLengthSize = 0;  // of the caller's frames; 0 for start codes

    // What queries see. The lock is never held over I/O; where both are, it is taken second.
    CMLock m_indexLock;
    bool m_indexOpen = false;  // the movie box answers, else what it said last
    IndexFigures m_lastIndex;
    std::atomic<bool> m_isOpen{false};
};

}  // namespace kx_mp4

#endif  // KX_MP4_MUXERSTATE_H
