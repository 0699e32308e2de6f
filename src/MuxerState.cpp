#include "MuxerState.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <string>
#include <utility>

#include "CaptionAtoms.h"
#include "Log.h"
#include "TrackChecks.h"
#include "ctts.h"

namespace kx_mp4 {
namespace {

constexpr const char* kSource = "src/MuxerState";
constexpr uint32_t kNalLengthSize = 4;

std::unique_ptr<IVideoNalParser> NalParserOf(mp4_video_codec codec) {
    switch (codec) {
        case MP4_MVC_H264:
            return std::make_unique<CH264Nal>();
        case MP4_MVC_HEVC:
            return std::make_unique<CHevcNal>();
        default:
            return nullptr;
    }
}

void DropLine(void*, mp4_log_level_t, const char*, int, const char*, const char*) {}
const LogSink kSilence = {DropLine, nullptr};

/// Bytes of the NAL units, each behind its length.
uint64_t LengthPrefixedSize(const CVideoFrameParser& frame) {
    uint64_t size = 0;
    for (const VIDEO_SLICE& unit : frame)
        size += kNalLengthSize + static_cast<uint64_t>(unit.cbData);
    return size;
}

/// Sample sizes are signed 32-bit numbers on their way to the tables.
bool IsSampleSize(uint64_t bytes) {
    return bytes <= INT32_MAX;
}

unsigned long long Elapsed(int64_t start) {
    return static_cast<unsigned long long>(GetTimeTick() - start);
}

}  // namespace

MuxerState::~MuxerState() {
    Guarded([this] {
        if (m_pWriter != nullptr) m_pWriter->Uninit();
        return MP4_STATUS_SUCCESS;
    });
    m_pVideoNalParser = nullptr;
}

// Life of a file

mp4_status_t MuxerState::CreateOrRelease(const OutputRequest& request) {
    if (!request.name.IsValid()) return MP4_STATUS_INVALID_PARAMETER;
    if (m_pWriter != nullptr) return MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
    const mp4_status_t status = Guarded([&] { return Create(request); });
    if (status == MP4_STATUS_SUCCESS) return status;
    CMAutoLock lock(m_lockWrite);
    Close();
    return status;
}

mp4_status_t MuxerState::Create(const OutputRequest& request) {
    ResetFileState();
    LogFlags(request.config);
    m_fastHeaderWrite = WantsFastHeaderWrite(request.config);
    m_bIsQtFile = IsQuickTime(request);
    const mp4_status_t opened = OpenFiles(request);
    m_flags = request.config.flags;
    if (opened == MP4_STATUS_SUCCESS) CreateBoxes();
    m_isOpen = opened == MP4_STATUS_SUCCESS;
    return opened;
}

void MuxerState::ResetFileState() {
    m_reserved.Restart();
    m_sideFile.Reset();
    m_pwszFilePath[0] = L'\0';
    m_nCurFileSize = 0;
    m_videoTrack = {};
    m_videoHasCodecData = true;
    m_audioTrack = {};
    m_audioHasCodecData = false;
    m_subtitleTrack = {};
    m_timecodeTrack = {};
    m_live.Reset();
    m_presentation = {};
    m_fastHeaderWrite = false;
    m_pVideoNalParser = nullptr;
    m_bIsQtFile = false;
    m_writeHeader = false;
    m_hasSamples = false;
    m_indexLost = false;
    m_compositionOffsets = false;
    m_setWarned = false;
    m_furtherSets.Clear();
    m_droppedVideoFrames = 0;
    m_adts = {};
    m_times = {};
    m_nalLengthSize = 0;
    m_figures.Reset();
}

/// The repair info file comes last: it may hold all that is left of an earlier recording.
mp4_status_t MuxerState::OpenFiles(const OutputRequest& request) {
    const bool repairInfo = (request.config.flags & MP4_FLAG_REPAIR_INFO) != 0;
    if (repairInfo) {
        const mp4_status_t named = m_sideFile.SetName(request.name);
        if (named != MP4_STATUS_SUCCESS) return named;
    }
    const std::wstring& path = request.name.WideString();
    if (path.size() >= std::size(m_pwszFilePath)) {
        LogError("file path reach the max path size 1024", kSource, __LINE__, "Create");
        return MP4_STATUS_FILE_NAME_TOO_LONG;
    }
    std::wcscpy(m_pwszFilePath, path.c_str());
    const mp4_status_t opened = OpenOutput(request, m_pWriter, m_gatheringWriter);
    if (opened != MP4_STATUS_SUCCESS || !repairInfo) return opened;
    return m_sideFile.Open(request.config.flags);
}

void MuxerState::CreateBoxes() {
    IBaseIO* const writer = m_pWriter.get();
    m_ftyp = std::make_unique<CMp4FtypAtom>(writer);
    m_free = std::make_unique<CMp4FreeAtom>(writer);
    m_mdat = std::make_unique<CMp4MdatAtom>(writer, (m_flags & MP4_FLAG_64BIT_SIZE) != 0);
    if (m_fastHeaderWrite) {
        m_headerWriter = std::make_unique<CBufferIO>();
        m_headerWriter->Init(writer);
        m_moov = std::make_unique<CMp4MoovAtom>(m_headerWriter.get(), true, writer);
    } else {
        m_moov = std::make_unique<CMp4MoovAtom>(writer, false, nullptr);
    }
    ConfigureMovie(*m_moov);
    m_mdat->SetFreeBoxBefore(!m_bIsQtFile);
    m_ftyp->SetQt(m_bIsQtFile);
    CMAutoLock lock(m_indexLock);
    m_indexOpen = true;
}

void MuxerState::ConfigureMovie(CMp4MoovAtom& movie) const {
    if ((m_flags & MP4_FLAG_64BIT_SIZE) != 0) movie.SetUse64bitSize();
    if ((m_flags & MP4_FLAG_64BIT_TIME) != 0) movie.SetUse64bitTime();
    movie.m_meta.SetIsQtff(true);
    movie.SetIsMp4File(!m_bIsQtFile);
    movie.SetPresentation(m_presentation);
}

mp4_status_t MuxerState::WriteHeader() {
    const int64_t start = GetTimeTick();
    if (m_writeHeader) {
        LogError("header already write", kSource, __LINE__, "WriteHeader");
        LogInfo("write header cost time %llums", kSource, __LINE__, "WriteHeader", Elapsed(start));
        return MP4_STATUS_SUCCESS;
    }
    const mp4_status_t status = WriteHeaderBoxes();
    m_isOpen = IsOpen();
    if (status != MP4_STATUS_SUCCESS) return status;
    m_writeHeader = true;
    m_sideFile.Write([this](CInfoWriter& writer) {
        const int64_t mdat = m_live.IsOn() ? m_live.MdatPosition() : m_mdat->GetStartPos();
        mp4_status_t written = writer.WriteMdatOffset(static_cast<uint32_t>(mdat));
        if (written == MP4_STATUS_SUCCESS && m_presentation.SaysAnything())
            written = RecordPresentation(writer);
        return written == MP4_STATUS_SUCCESS ? writer.Flush() : written;
    });
    LogInfo("write header cost time %llums", kSource, __LINE__, "WriteHeader", Elapsed(start));
    return MP4_STATUS_SUCCESS;
}

mp4_status_t MuxerState::WriteHeaderBoxes() {
    try {
        m_ftyp->SetStrict(m_presentation.strictForm, m_live.IsOn());
        m_ftyp->Write();
        if (m_live.IsOn()) {
            m_live.WriteHeader(*m_pWriter);
        } else {
            if (!m_bIsQtFile) m_free->Write();
            if (m_reserved.IsOn()) m_moov->Write();
            m_mdat->Write();
        }
        m_nCurFileSize = static_cast<int64_t>(m_pWriter->Ftell());
        return MP4_STATUS_SUCCESS;
    } catch (const kx_mp4_exception& e) {
        return e.error();
    } catch (const std::exception& e) {
        LogError("exception:%s", kSource, __LINE__, "WriteHeader", e.what());
    } catch (...) {
        LogError("exception", kSource, __LINE__, "WriteHeader");
    }
    m_indexLost = true;  // a second header would not stand where the first began
    return MP4_STATUS_UNEXPECTED_ERROR;
}

mp4_status_t MuxerState::EnsureHeader() {
    if (m_writeHeader) return MP4_STATUS_SUCCESS;
    const mp4_status_t status = WriteHeader();
    m_moment = Figures::Clock::now();
    return status;
}

mp4_status_t MuxerState::Close() {
    mp4_status_t status = MP4_STATUS_SUCCESS;
    if (m_indexLost) status = MP4_STATUS_UNEXPECTED_ERROR;
    if (m_pWriter != nullptr && !m_pWriter->IsValid()) status = m_pWriter->get_error_code();
    if (m_sideFile.IsOpen()) m_sideFile.Close();
    ReportDroppedFrames(__LINE__, "Close");
    FreezeIndexFigures();
    int64_t start = 0;
    if (!m_writeHeader) {
        LogInfo("no data, ignore finish call", kSource, __LINE__, "Close");
    } else if (FinishMovie(&status)) {
        start = GetTimeTick();
        m_sideFile.Remove();
        LogInfo("Muxer - Close - remove info file takes %lld ms", kSource, __LINE__, "Close",
                static_cast<long long>(GetTimeTick() - start));
    }
    start = GetTimeTick();
    const mp4_status_t closed = Guarded([this] { return CloseWriter(); });
    if (status == MP4_STATUS_SUCCESS) status = closed;
    LogInfo("Muxer - Close - uninit takes %lld ms", kSource, __LINE__, "Close",
            static_cast<long long>(GetTimeTick() - start));
    ReleaseBoxes();
    m_sideFile.Unlock();
    m_writeHeader = false;
    m_indexLost = false;
    return status;
}

/// The output is released whatever the question for its size does.
mp4_status_t MuxerState::CloseWriter() {
    if (m_pWriter == nullptr) return MP4_STATUS_SUCCESS;
    const mp4_status_t asked = Guarded([this] {
        m_nCurFileSize = static_cast<int64_t>(m_pWriter->Ftell());
        return MP4_STATUS_SUCCESS;
    });
    m_pWriter->Uninit();
    return m_pWriter->ClosedWell() ? asked : m_pWriter->get_error_code();
}

/// The repair info file may only go when what it stands for is on the device.
void MuxerState::PushMovie() {
    if (!m_sideFile.IsWanted() || m_gatheringWriter == nullptr) return;
    const int64_t start = GetTimeTick();
    const FigureTimer timer(&m_figures, &Figures::OnPush);
    m_gatheringWriter->Flush();
    LogInfo("Muxer - Close - flush takes %lld ms", kSource, __LINE__, "Close",
            static_cast<long long>(GetTimeTick() - start));
}

/// | ftyp | free | mdat 8 ....... |   becomes   | ftyp | free | mdat n ....... | moov |
/// True when all of it is in the output.
bool MuxerState::FinishMovie(mp4_status_t* status) {
    // A writer in error drops every write, so there is nothing that could still be finished.
    if (m_indexLost || !m_pWriter->IsValid()) return false;
    const mp4_status_t finished = Guarded([this] {
        const int64_t start = GetTimeTick();
        if (m_live.IsOn()) {
            FinishLiveMovie();
        } else {
            m_mdat->Finish(m_pwszFilePath);
            LogInfo("Muxer - Close - mdat finish takes %lld ms", kSource, __LINE__, "Close",
                    static_cast<long long>(GetTimeTick() - start));
            WriteMovie();
        }
        PushMovie();
        return MP4_STATUS_SUCCESS;
    });
    if (finished == MP4_STATUS_SUCCESS) return true;
    *status = finished;
    return false;
}

void MuxerState::WriteMovie() {
    const int64_t start = GetTimeTick();
    if (m_fastHeaderWrite) m_headerWriter->Init(m_pWriter.get(), m_moov->GetSize());
    if (m_reserved.IsOn())
        m_moov->Update();
    else
        m_moov->Write();
    LogInfo("Muxer - Close - moov write takes %lld ms", kSource, __LINE__, "Close",
            static_cast<long long>(GetTimeTick() - start));
}

/// The movie box grows inside the `mdat` that is open, and counts once the device has all of it.
void MuxerState::FinishLiveMovie() {
    m_live.EndLastInterval([this](CMp4MoovAtom& movie, const std::vector<LiveTrack>& tracks) {
        FillLiveMovie(movie, tracks);
    });
    const auto movieBox = static_cast<int64_t>(m_pWriter->Ftell());
    WriteMovie();
    m_live.Finish(movieBox);
}

void MuxerState::FreezeIndexFigures() {
    const IndexFigures last = GetIndexFigures();
    CMAutoLock lock(m_indexLock);
    m_lastIndex = last;
    m_indexOpen = false;
}

void MuxerState::ReleaseBoxes() {
    m_isOpen = false;
    {
        CMAutoLock lock(m_indexLock);
        m_lastIndex = {};
        m_indexOpen = false;
    }
    m_headerWriter = nullptr;
    m_gatheringWriter = nullptr;
    m_pWriter = nullptr;
    m_ftyp = nullptr;
    m_free = nullptr;
    m_mdat = nullptr;
    m_moov = nullptr;
}

// Queries

/// What a size complains of is told by GetMoovSize and when the index is written.
MuxerState::IndexFigures MuxerState::GetIndexFigures() {
    const LogScope silent(kSilence);
    CMAutoLock lock(m_indexLock);
    if (!m_indexOpen) return m_lastIndex;
    return {m_moov->GetDurationMS(), m_moov->GetSize(), m_moov->GetVideoBitrate(),
            m_moov->GetAudioBitrate()};
}

uint32_t MuxerState::GetMoovSize() {
    CMAutoLock lock(m_indexLock);
    return m_indexOpen ? m_moov->GetSize() : m_lastIndex.bytes;
}

mp4_status_t MuxerState::GetStatistics(mp4_statistics_t& statistics) {
    const size_t size = statistics.struct_size;
    if (size < sizeof size) return MP4_STATUS_INVALID_PARAMETER;
    mp4_statistics_t all{};
    m_figures.Fill(all);
    all.struct_size = size;
    all.index_bytes = GetIndexFigures().bytes;
    all.repair_info_active = m_sideFile.IsActive() ? 1 : 0;
    std::memcpy(&statistics, &all, std::min(size, sizeof all));
    return MP4_STATUS_SUCCESS;
}

mp4_status_t MuxerState::NotOpenAnswer(int line, const char* function) const {
    if (m_pWriter != nullptr) return m_pWriter->get_error_code();
    LogError("file not open!", kSource, line, function);
    return MP4_STATUS_FILE_NOT_OPEN;
}

mp4_status_t MuxerState::Flush() {
    if (!IsOpen()) {
        if (m_pWriter != nullptr) return m_pWriter->get_error_code();
        LogError("no open file, can't do flush", kSource, __LINE__, "Flush");
        return MP4_STATUS_FILE_NOT_OPEN;
    }
    {
        const FigureTimer timer(&m_figures, &Figures::OnPush);
        m_pWriter->Flush();
    }
    return m_sideFile.IsWanted() ? m_sideFile.Flush() : MP4_STATUS_SUCCESS;
}

// Set-up

template <class Record>
mp4_status_t MuxerState::RecordInRepairInfo(Record&& record) {
    if (!m_sideFile.IsOpen()) return MP4_STATUS_SUCCESS;
    const mp4_status_t status = EnsureHeader();
    if (status == MP4_STATUS_SUCCESS) m_sideFile.Write(record);
    return m_sideFile.Answer(status);
}

mp4_status_t MuxerState::SetCompositionOffsets(bool enable) {
    const mp4_status_t ready = CheckRecording(__LINE__, "SetCompositionOffsets");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (m_hasSamples) {
        LogError("composition offsets can only be set before the first frame", kSource, __LINE__,
                 "SetCompositionOffsets");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    m_compositionOffsets = enable;
    ChangeIndex([enable](CMp4MoovAtom& moov) { moov.SetCompositionOffsets(enable); });
    return MP4_STATUS_SUCCESS;
}

mp4_status_t MuxerState::SetLiveIndex(uint32_t interval_ms) {
    const mp4_status_t ready = CheckRecording(__LINE__, "SetLiveIndex");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (m_reserved.IsOn()) return MP4_STATUS_UNSUPPORTED;
    if (m_writeHeader) {
        LogError(
            "the live index can only be set before the first frame and, with a repair info file, "
            "before the first track",
            kSource, __LINE__, "SetLiveIndex");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    m_live.SetInterval(interval_ms);
    return MP4_STATUS_SUCCESS;
}

mp4_status_t MuxerState::SetStrictForm(bool strict) {
    const mp4_status_t ready = CheckPresentationCall("SetStrictForm");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (m_writeHeader) {
        LogError(
            "the strict form can only be set before the first frame and, with a repair info file, "
            "before the first track",
            kSource, __LINE__, "SetStrictForm");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    m_presentation.strictForm = strict;
    return TellPresentation();
}

mp4_status_t MuxerState::CheckPresentationCall(const char* function) const {
    const mp4_status_t ready = CheckRecording(__LINE__, function);
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (m_reserved.IsOn()) return MP4_STATUS_UNSUPPORTED;
    if (!m_hasSamples) return MP4_STATUS_SUCCESS;
    LogError("what the file says of its presentation can only be set before the first frame",
             kSource, __LINE__, function);
    return MP4_STATUS_INVALID_PARAMETER;
}

/// The first record is written with the head of the repair info file.
mp4_status_t MuxerState::TellPresentation() {
    ChangeIndex([this](CMp4MoovAtom& moov) { moov.SetPresentation(m_presentation); });
    if (!m_writeHeader) return MP4_STATUS_SUCCESS;
    m_sideFile.Write([this](CInfoWriter& writer) { return RecordPresentation(writer); });
    return m_sideFile.Answer(MP4_STATUS_SUCCESS);
}

mp4_status_t MuxerState::RecordPresentation(CInfoWriter& writer) const {
    const std::string record = m_presentation.Record();
    return writer.WriteMetadata(Presentation::kKey, record.data(),
                                static_cast<uint32_t>(record.size()), MP4_META_DATA_TYPE_RAW,
                                Presentation::kNamespace);
}

void MuxerState::TakeStreamFacts(const FirstPicture& picture) {
    mp4_video_shape_t& shape = m_presentation.shape;
    mp4_video_colour_t& colour = m_presentation.colour;
    if (shape.from_stream == 0 && colour.from_stream == 0) return;
    if (std::exchange(shape.from_stream, 0) != 0) TakeShape(picture, shape);
    if (std::exchange(colour.from_stream, 0) != 0) TakeColour(picture, colour);
    ChangeIndex([this](CMp4MoovAtom& moov) { moov.SetPresentation(m_presentation); });
    m_sideFile.Write([this](CInfoWriter& writer) { return RecordPresentation(writer); });
}

void MuxerState::FillLiveMovie(CMp4MoovAtom& movie, const std::vector<LiveTrack>& tracks) const {
    ConfigureMovie(movie);
    movie.CopyMetadata(*m_moov);
    for (const LiveTrack track : tracks) {
        switch (track) {
            case LiveTrack::kVideo:
                movie.SetVideoTrack(&m_videoTrack);
                m_furtherSets.ForEach([&movie](const auto& set) { movie.AddParameterSet(set); });
                break;
            case LiveTrack::kAudio:
                movie.SetAudioTrack(&m_audioTrack);
                break;
            case LiveTrack::kCaption:
                movie.SetSubtitleTrack(&m_subtitleTrack);
                break;
            case LiveTrack::kTimecode:
                movie.SetTCMDTrack(&m_timecodeTrack);
                break;
        }
    }
}

mp4_status_t MuxerState::SetVideoTrack(const mp4_video_track_info* pTrackInfo) {
    const mp4_status_t ready = CheckRecording(__LINE__, "SetVideoTrack");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (pTrackInfo == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    return DeclareVideoTrack(*pTrackInfo, 0);
}

mp4_status_t MuxerState::SetVideoTrack(const mp4_video_track_info* pTrackInfo,
                                       const uint8_t* record, uint32_t recordSize) {
    mp4_status_t status = CheckRecording(__LINE__, "SetVideoTrack");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (pTrackInfo == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    mp4_video_track_info_t info = *pTrackInfo;
    uint32_t nalLengthSize = 0;
    std::vector<RecordedSet> further;
    status = TakeConfigurationRecord(record, recordSize, info, nalLengthSize, further);
    if (status != MP4_STATUS_SUCCESS) return status;
    if (!further.empty() && !m_presentation.allParameterSets)
        LogWarn("the decoder configuration record has several sets of a kind, the first is taken",
                kSource, __LINE__, "SetVideoTrack");
    status = DeclareVideoTrack(info, nalLengthSize);
    if (status != MP4_STATUS_SUCCESS || !m_presentation.allParameterSets) return status;
    for (const RecordedSet& set : further)
        TakeFurtherSet(set.data, set.size);
    return m_sideFile.Answer(status);
}

/// Nothing of an earlier declaration changes before this one is taken.
mp4_status_t MuxerState::DeclareVideoTrack(mp4_video_track_info_t info, uint32_t nalLengthSize) {
    bool complete = false;
    const mp4_status_t status = CheckVideoTrack(info, m_reserved, complete);
    if (status != MP4_STATUS_SUCCESS) return status;
    std::unique_ptr<IVideoNalParser> parser = NalParserOf(info.codec);
    const auto declare = [&info](CMp4MoovAtom& moov) { return moov.SetVideoTrack(&info); };
    if (complete && !ChangeIndex(declare)) return MP4_STATUS_UNEXPECTED_ERROR;
    m_pVideoNalParser = std::move(parser);
    m_nalLengthSize = nalLengthSize;
    m_videoTrack = info;
    m_furtherSets.Clear();
    m_videoHasCodecData = complete;
    m_live.Declare(LiveTrack::kVideo, complete, info.timescale, info.frame_duration);
    if (complete) {
        m_parameterSets.KeepGiven(m_videoTrack);
        ReportDroppedFrames(__LINE__, "SetVideoTrack");
        return RecordInRepairInfo(
            [&](CInfoWriter& writer) { return writer.WriteVideoFormat(&info); });
    }
    m_parameterSets.KeepGiven(m_videoTrack);
    LogInfo("no codec data in video track info, try to find it in stream", kSource, __LINE__,
            "SetVideoTrack");
    return MP4_STATUS_SUCCESS;
}

mp4_status_t MuxerState::AddParameterSet(const uint8_t* nal, uint32_t size) {
    const mp4_status_t ready = CheckRecording(__LINE__, "AddParameterSet");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (m_reserved.IsOn()) return MP4_STATUS_UNSUPPORTED;
    if (m_pVideoNalParser == nullptr || !m_videoHasCodecData) {
        LogError("a parameter set can only be added to a video track that has its first ones",
                 kSource, __LINE__, "AddParameterSet");
        return MP4_STATUS_INVALID_VIDEO_TRACK;
    }
    const ByteView set{nal, nal == nullptr ? 0 : size};
    const auto kind = KindOfParameterSet(m_videoTrack.codec, set.data, set.size);
    if (!kind) return MP4_STATUS_INVALID_PARAMETER;
    TakeFurtherSet(set.data, set.size);
    if (!m_furtherSets.Holds(set) && !(DescribedSet(m_videoTrack, *kind) == set)) {
        LogError("the parameter set is not added: it cannot be read, or its number is taken",
                 kSource, __LINE__, "AddParameterSet");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    return m_sideFile.Answer(MP4_STATUS_SUCCESS);
}

void MuxerState::TakeFurtherSets(const CVideoFrameParser& frame) {
    for (const VIDEO_SLICE& unit : frame)
        TakeFurtherSet(unit.pbData, static_cast<size_t>(unit.cbData));
}

void MuxerState::TakeFurtherSet(const uint8_t* nal, size_t size) {
    const auto* const set = m_furtherSets.Take(m_videoTrack, nal, size);
    if (set != nullptr && m_videoHasCodecData) TellFurtherSet(*set);
}

void MuxerState::TellFurtherSet(const FurtherParameterSets::Set& set) {
    ChangeIndex([&set](CMp4MoovAtom& moov) { moov.AddParameterSet(set); });
    m_sideFile.Write([&set](CInfoWriter& writer) {
        return writer.WriteMetadata(
            Presentation::kParameterSetKey, reinterpret_cast<const char*>(set.data()),
            static_cast<uint32_t>(set.size()), MP4_META_DATA_TYPE_RAW, Presentation::kNamespace);
    });
}

/// Nothing of an earlier declaration changes before this one is taken.
mp4_status_t MuxerState::SetAudioTrack(const mp4_audio_track_info_t* pTrackInfo) {
    mp4_status_t status = CheckRecording(__LINE__, "SetAudioTrack");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (pTrackInfo == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    bool complete = false;
    status = CheckAudioTrack(*pTrackInfo, m_reserved, complete);
    if (status != MP4_STATUS_SUCCESS) return status;
    m_audioTrack = *pTrackInfo;
    m_audioHasCodecData = complete;
    m_live.Declare(LiveTrack::kAudio, complete, m_audioTrack.timescale,
                   m_audioTrack.frame_duration);
    if (!complete) return MP4_STATUS_SUCCESS;
    ChangeIndex([pTrackInfo](CMp4MoovAtom& moov) { moov.SetAudioTrack(pTrackInfo); });
    return RecordInRepairInfo(
        [&](CInfoWriter& writer) { return writer.WriteAudioFormat(pTrackInfo); });
}

mp4_status_t MuxerState::SetSubtitleTrack(const mp4_subtitle_track_info_t* pTrackInfo) {
    mp4_status_t status = m_reserved.CheckCaptions("SetSubtitleTrack");
    if (status != MP4_STATUS_SUCCESS) return status;
    status = CheckRecording(__LINE__, "SetSubtitleTrack");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (pTrackInfo == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    m_subtitleTrack = *pTrackInfo;
    ChangeIndex([pTrackInfo](CMp4MoovAtom& moov) { moov.SetSubtitleTrack(pTrackInfo); });
    m_live.Declare(LiveTrack::kCaption, true, pTrackInfo->timescale, 0);
    return RecordInRepairInfo(
        [&](CInfoWriter& writer) { return writer.WriteSubtitleFormat(pTrackInfo); });
}

mp4_status_t MuxerState::SetTCMDTrack(const mp4_time_code_track_info_t* pTrackInfo) {
    const mp4_status_t ready = CheckRecording(__LINE__, "SetTCMDTrack");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (pTrackInfo == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    ChangeIndex([pTrackInfo](CMp4MoovAtom& moov) { moov.SetTCMDTrack(pTrackInfo); });
    m_timecodeTrack = *pTrackInfo;
    m_live.Declare(LiveTrack::kTimecode, true, pTrackInfo->timescale, pTrackInfo->frame_duration);
    return RecordInRepairInfo(
        [&](CInfoWriter& writer) { return writer.WriteTimeCodeFormat(pTrackInfo); });
}

mp4_status_t MuxerState::SetMetadata(const char* pKey, const char* pData, uint32_t size,
                                     mp4_meta_data_type_t type, const char* key_namespace) {
    mp4_status_t status = CheckRecording(__LINE__, "SetMetadata");
    if (status != MP4_STATUS_SUCCESS) return status;
    status = CheckMetadata(pKey, pData, size, type, key_namespace);
    if (status != MP4_STATUS_SUCCESS) return status;
    const bool taken = ChangeIndex([&](CMp4MoovAtom& moov) {
        return moov.SetMetaData(pKey, pData, size, type, key_namespace);
    });
    if (!taken) {
        LogError("set meta key %s failed", kSource, __LINE__, "SetMetadata", pKey);
        return MP4_STATUS_INVALID_PARAMETER;
    }
    return RecordInRepairInfo([&](CInfoWriter& writer) {
        return writer.WriteMetadata(pKey, pData, size, type, key_namespace);
    });
}

// What the frame writers share

mp4_status_t MuxerState::CheckRecording(int line, const char* function) const {
    if (!IsOpen()) return NotOpenAnswer(line, function);
    if (!m_indexLost) return MP4_STATUS_SUCCESS;
    LogError("the index of this file is lost, no more frames are taken", kSource, line, function);
    return MP4_STATUS_UNEXPECTED_ERROR;
}

bool MuxerState::HasRoomInFile(uint64_t bytes, const char* function) const {
    if (m_live.IsOn() || m_mdat->CanEndAt(m_nCurFileSize + static_cast<int64_t>(bytes)))
        return true;
    LogError(
        "media data would pass 4 GiB, which this QuickTime movie cannot describe: create it with "
        "the 64-bit size option (flag 2); the sample is refused",
        kSource, __LINE__, function);
    return false;
}

mp4_status_t MuxerState::CheckSampleSize(uint64_t bytes, const char* function) {
    if (IsSampleSize(bytes)) return MP4_STATUS_SUCCESS;
    LogError("a sample of %llu bytes is too large, the limit is 2 GiB", kSource, __LINE__, function,
             static_cast<unsigned long long>(bytes));
    return MP4_STATUS_INVALID_PARAMETER;
}

template <class Write, class LogUnexpected>
mp4_status_t MuxerState::WriteSample(Write&& write, LogUnexpected&& logUnexpected) {
    try {
        const FigureLap lap(m_figures, &Figures::OnWrite, m_moment);
        write();
        return MP4_STATUS_SUCCESS;
    } catch (const kx_mp4_exception& e) {
        return e.error();  // the writer is in error and takes no more
    } catch (...) {
        // A callback threw: nobody knows how much of the sample is in the output.
        m_indexLost = true;
        logUnexpected();
        return MP4_STATUS_UNEXPECTED_ERROR;
    }
}

mp4_status_t MuxerState::IndexInterval(LiveTrack track, int64_t dts) {
    if (!m_live.IsDue(track, dts)) return MP4_STATUS_SUCCESS;
    const mp4_status_t status = WriteSample(
        [&] {
            m_live.EndInterval(track, dts,
                               [this](CMp4MoovAtom& movie, const std::vector<LiveTrack>& tracks) {
                                   FillLiveMovie(movie, tracks);
                               });
        },
        [] {});
    if (status != MP4_STATUS_SUCCESS) return status;
    m_nCurFileSize = static_cast<int64_t>(m_pWriter->Ftell());
    ChangeIndex([](CMp4MoovAtom& moov) { moov.EndChunk(); });
    return MP4_STATUS_SUCCESS;
}

template <class Index, class Record>
mp4_status_t MuxerState::AddSample(int bytes, Index&& index, Record&& record) {
    m_hasSamples = true;
    bool indexed = false;
    try {
        CMAutoLock lock(m_indexLock);
        indexed = index();
    } catch (...) {
        // Some of the tables hold the sample and some do not, or have lost what they held.
        m_indexLost = true;
        LogError("no memory for the index, it is lost; the media data is in the file", kSource,
                 __LINE__, "AddSample");
        return MP4_STATUS_UNEXPECTED_ERROR;
    }
    // A refused sample's bytes stay where they are, between those of the samples around it: the
    // next offset and the repair info file have to count them.
    m_nCurFileSize += bytes;
    if (m_sideFile.IsOpen()) {
        m_sideFile.Write(record);
        m_moment = Figures::Clock::now();
    }
    return indexed ? MP4_STATUS_SUCCESS : MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;
}

// Video

mp4_status_t MuxerState::WriteVideoFrame(const uint8_t* buf, uint32_t size, uint64_t pts,
                                         uint64_t dts) {
    // Splitting needs no lock, so that it does not hold up the other tracks.
    const auto start = Figures::Clock::now();
    CVideoFrameParser frame;
    const bool parsed = m_videoTrack.codec != MP4_MVC_PRORES && buf != nullptr &&
                        IsSampleSize(size) && Split(frame, buf, static_cast<int>(size));
    FrameCall call(*this, start, size);
    return m_sideFile.Answer(RecordVideoFrame(buf, size, frame, parsed, pts, dts));
}

bool MuxerState::Split(CVideoFrameParser& frame, const uint8_t* buf, int size) const {
    return m_nalLengthSize == 0 ? frame.Parse(buf, size)
                                : frame.ParseLengths(buf, size, m_nalLengthSize);
}

mp4_status_t MuxerState::RecordVideoFrame(const uint8_t* buf, uint32_t size,
                                          const CVideoFrameParser& frame, bool parsed, uint64_t pts,
                                          uint64_t dts) {
    mp4_status_t status = CheckRecording(__LINE__, "WriteVideoFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (buf == nullptr || size == 0) {
        LogError("write video frame with empty data", kSource, __LINE__, "WriteVideoFrame");
        return MP4_STATUS_SUCCESS;
    }
    status = CheckSampleSize(size, "WriteVideoFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    status = CheckVideoFrame(parsed);
    if (status != MP4_STATUS_SUCCESS) return status;
    status = EnsureHeader();
    if (status != MP4_STATUS_SUCCESS) return status;
    if (!m_videoHasCodecData) {
        m_times.VideoWaits();
        if (!GetVideoCodecData(frame)) return DropVideoFrame();
        ReportDroppedFrames(__LINE__, "WriteVideoFrame");
    }
    const auto nPts = static_cast<int64_t>(pts);
    const auto nDts = static_cast<int64_t>(dts);
    status = CheckVideoTimes(nPts, nDts);
    if (status != MP4_STATUS_SUCCESS) return status;
    return AppendVideoFrame(buf, size, frame, nPts, nDts);
}

mp4_status_t MuxerState::DropVideoFrame() {
    if (m_droppedVideoFrames == 0)
        LogWarn("no codec data, drop frame", kSource, __LINE__, "WriteVideoFrame");
    ++m_droppedVideoFrames;
    m_figures.OnDropped(Figures::kVideo);
    return MP4_STATUS_SUCCESS;
}

void MuxerState::ReportDroppedFrames(int line, const char* function) {
    if (m_droppedVideoFrames == 0) return;
    LogWarn("no codec data, %llu frames dropped", kSource, line, function,
            static_cast<unsigned long long>(m_droppedVideoFrames));
    m_droppedVideoFrames = 0;
}

mp4_status_t MuxerState::CheckVideoTimes(int64_t pts, int64_t dts) const {
    if (!m_compositionOffsets) return MP4_STATUS_SUCCESS;
    if (!CMp4CttsAtom::OffsetFits(pts, dts)) {
        LogError("composition offset from %llu to %llu does not fit 32 bits", kSource, __LINE__,
                 "WriteVideoFrame", static_cast<unsigned long long>(dts),
                 static_cast<unsigned long long>(pts));
        return MP4_STATUS_INVALID_PARAMETER;
    }
    if (m_times.VideoGoesBack(dts)) {
        // Offsets count from the decode times, which the sample table adds up from the steps.
        LogError("decode time goes back from %lld to %lld, the frame is refused", kSource, __LINE__,
                 "WriteVideoFrame", static_cast<long long>(m_times.LastVideo()),
                 static_cast<long long>(dts));
        return MP4_STATUS_INVALID_PARAMETER;
    }
    return MP4_STATUS_SUCCESS;
}

mp4_status_t MuxerState::CheckVideoFrame(bool parsed) const {
    const bool prores = m_videoTrack.codec == MP4_MVC_PRORES;
    if (!prores && !parsed) {
        LogError("Parse video frame fail !", kSource, __LINE__, "WriteVideoFrame");
        return MP4_STATUS_INVALID_VIDEO_STREAM;
    }
    if (!prores && m_pVideoNalParser == nullptr) {
        LogError("invalid video track!", kSource, __LINE__, "WriteVideoFrame");
        return MP4_STATUS_INVALID_VIDEO_TRACK;
    }
    return MP4_STATUS_SUCCESS;
}

mp4_status_t MuxerState::AppendVideoFrame(const uint8_t* buf, uint32_t size,
                                          const CVideoFrameParser& frame, int64_t pts,
                                          int64_t dts) {
    const bool prores = m_videoTrack.codec == MP4_MVC_PRORES;
    const uint64_t sampleSize = prores ? size : LengthPrefixedSize(frame);
    mp4_status_t status = CheckSampleSize(sampleSize, "WriteVideoFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (!HasRoomInFile(sampleSize, "WriteVideoFrame")) return MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;

    TakeStreamFacts({m_videoTrack, buf, size, frame});
    if (m_presentation.allParameterSets) TakeFurtherSets(frame);
    status = IndexInterval(LiveTrack::kVideo, dts);
    if (status != MP4_STATUS_SUCCESS) return status;
    const uint64_t fileSizeBefore = m_reserved.SizeBeforeFrame(*m_pWriter);
    status = WriteSample(
        [&] {
            if (prores)
                m_pWriter->WriteBuf(buf, size);
            else
                WriteNalUnits(frame);
        },
        [] { LogError("exception when write file", kSource, __LINE__, "WriteVideoFrame"); });
    if (status != MP4_STATUS_SUCCESS) return status;
    m_reserved.AfterVideoFrame(*m_pWriter, fileSizeBefore, *m_moov, *m_mdat);

    const bool keyFrame = prores || HasSyncSlice(frame);
    const auto bytes = static_cast<int>(sampleSize);
    bool indexed = false;
    status = AddSample(
        bytes,
        [&] {
            indexed = m_moov->AfterWriteVideoFrame(m_nCurFileSize, bytes, pts, dts, keyFrame);
            m_live.AddSample(LiveTrack::kVideo, m_nCurFileSize, static_cast<uint32_t>(bytes),
                             m_compositionOffsets ? pts : dts, dts, keyFrame);
            return indexed;
        },
        [&](CInfoWriter& writer) { return writer.WriteVideoFrame(bytes, pts, dts, keyFrame); });
    if (!indexed) return status;
    m_figures.OnSample(Figures::kVideo, sampleSize, dts, m_videoTrack.timescale);
    if (m_times.OnVideo(pts, dts, m_videoTrack.timescale, m_compositionOffsets))
        m_figures.OnOddTime(Figures::kVideo);
    return status;
}

/// Each NAL unit behind its length (ISO/IEC 14496-15, 5.3.3.1.2 and 8.3.3.1.2).
void MuxerState::WriteNalUnits(const CVideoFrameParser& frame) {
    GatheredWrite gathered(m_gatheringWriter);
    for (const VIDEO_SLICE& unit : frame) {
        const auto length = static_cast<uint32_t>(unit.cbData);
        m_pWriter->WriteInt32(length);
        m_pWriter->WriteBuf(unit.pbData, length);
    }
    gathered.Finish();
}

bool MuxerState::HasSyncSlice(const CVideoFrameParser& frame) const {
    for (const VIDEO_SLICE& unit : frame) {
        if (unit.cbData == 0) continue;
        if (m_pVideoNalParser->IsKeyFrame(unit.pbData, unit.cbData)) return true;
        if (m_compositionOffsets && m_pVideoNalParser->IsRandomAccess(unit.pbData, unit.cbData))
            return true;
    }
    return false;
}

bool MuxerState::GetVideoCodecData(const CVideoFrameParser& frame) {
    if (m_videoTrack.codec != MP4_MVC_H264 && m_videoTrack.codec != MP4_MVC_HEVC) {
        LogError("unknown codec type %d", kSource, __LINE__, "GetVideoCodecData",
                 m_videoTrack.codec);
        return false;
    }
    for (const VIDEO_SLICE& unit : frame) {
        TakeCodecData(unit);
        if (!ParameterSetKeeper::IsComplete(m_videoTrack)) continue;
        m_videoHasCodecData = true;
        LogInfo("found video codec data in stream, set video track info", kSource, __LINE__,
                "GetVideoCodecData");
        ChangeIndex([this](CMp4MoovAtom& moov) { moov.SetVideoTrack(&m_videoTrack); });
        m_live.Declare(LiveTrack::kVideo, true, m_videoTrack.timescale,
                       m_videoTrack.frame_duration);
        m_sideFile.Write(
            [this](CInfoWriter& writer) { return writer.WriteVideoFormat(&m_videoTrack); });
        m_furtherSets.ForEach([this](const auto& set) { TellFurtherSet(set); });
        return true;
    }
    return false;
}

void MuxerState::TakeCodecData(const VIDEO_SLICE& unit) {
    const auto size = static_cast<size_t>(unit.cbData);
    const auto kind = KindOfParameterSet(m_videoTrack.codec, unit.pbData, size);
    if (!kind) return;
    if (m_presentation.allParameterSets && IsFurtherSet(m_videoTrack, *kind, {unit.pbData, size})) {
        TakeFurtherSet(unit.pbData, size);
        return;
    }
    if (m_parameterSets.Take(unit.pbData, size, m_videoTrack) || std::exchange(m_setWarned, true))
        return;
    LogWarn("a video parameter set in the stream cannot be described and is not taken", kSource,
            __LINE__, "GetVideoCodecData");
}

// Audio

mp4_status_t MuxerState::WriteAudioFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    mp4_status_t status = CheckRecording(__LINE__, "WriteAudioFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    status = CheckSampleSize(size, "WriteAudioFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (!m_audioHasCodecData && m_audioTrack.codec == MP4_MAC_ADTS) {
        status = ConfigureAdts(buf, size);
        if (status != MP4_STATUS_SUCCESS) return status;
    }
    const uint32_t headerSize = m_adts.BytesToStrip(buf, size);
    status = EnsureHeader();
    if (status != MP4_STATUS_SUCCESS) return status;
    return AppendAudioFrame(buf + headerSize, size - headerSize, static_cast<int64_t>(timestamp));
}

mp4_status_t MuxerState::ConfigureAdts(const uint8_t* buf, uint32_t size) {
    mp4_status_t status = AdtsInput::Configure(buf, size, m_audioTrack);
    if (status != MP4_STATUS_SUCCESS) return status;
    ChangeIndex([this](CMp4MoovAtom& moov) { moov.SetAudioTrack(&m_audioTrack); });
    m_audioHasCodecData = true;
    m_live.Declare(LiveTrack::kAudio, true, m_audioTrack.timescale, m_audioTrack.frame_duration);
    if (!m_sideFile.IsOpen()) return MP4_STATUS_SUCCESS;
    status = EnsureHeader();
    if (status != MP4_STATUS_SUCCESS) return status;
    m_sideFile.Write(
        [this](CInfoWriter& writer) { return writer.WriteAudioFormat(&m_audioTrack); });
    return MP4_STATUS_SUCCESS;
}

mp4_status_t MuxerState::AppendAudioFrame(const uint8_t* sample, uint32_t size, int64_t timestamp) {
    if (!HasRoomInFile(size, "WriteAudioFrame")) return MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;
    mp4_status_t status = IndexInterval(LiveTrack::kAudio, timestamp);
    if (status != MP4_STATUS_SUCCESS) return status;
    status = WriteSample([&] { m_pWriter->WriteBuf(sample, size); },
                         [&] {
                             LogError("write buffer exception, buffer size %d", kSource, __LINE__,
                                      "WriteAudioFrame", static_cast<int>(size));
                         });
    if (status != MP4_STATUS_SUCCESS) return status;
    const auto bytes = static_cast<int>(size);
    bool indexed = false;
    status = AddSample(
        bytes,
        [&] {
            indexed = m_moov->AfterWriteAudioFrame(m_nCurFileSize, bytes, timestamp);
            if (indexed)
                m_live.AddSample(LiveTrack::kAudio, m_nCurFileSize, size, timestamp, timestamp,
                                 true);
            return indexed;
        },
        [&](CInfoWriter& writer) { return writer.WriteAudioFrame(bytes, timestamp); });
    if (indexed) {
        m_figures.OnSample(Figures::kAudio, size, timestamp, m_audioTrack.timescale);
        if (m_times.OnAudio(timestamp, m_audioTrack.timescale))
            m_figures.OnOddTime(Figures::kAudio);
    }
    if (status == MP4_STATUS_NO_SPACE_LEFT_IN_HEADER)
        LogError("call AfterWriteAudioFrame failed", kSource, __LINE__, "WriteAudioFrame");
    return status;
}

// Captions and timecode

mp4_status_t MuxerState::WriteSubtitleFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    mp4_status_t status = CheckRecording(__LINE__, "WriteSubtitleFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (buf == nullptr || size == 0) {
        LogWarn("write subtitle frame with empty data", kSource, __LINE__, "WriteSubtitleFrame");
        return MP4_STATUS_SUCCESS;
    }
    status = EnsureHeader();
    if (status != MP4_STATUS_SUCCESS) return status;
    status = CheckCaption(size);
    if (status != MP4_STATUS_SUCCESS) return status;
    return AppendCaption(buf, size, static_cast<int64_t>(timestamp));
}

mp4_status_t MuxerState::CheckCaption(uint32_t size) const {
    const mp4_subtitle_codec codec = m_subtitleTrack.codec;
    if (codec != MP4_SUBTITLE_CODEC_CC608 && codec != MP4_SUBTITLE_CODEC_CC708) {
        LogError("unknown subtitle codec type %d", kSource, __LINE__, "WriteSubtitleFrame", codec);
        return MP4_STATUS_INVALID_SUBTITLE_TYPE;
    }
    const uint64_t largest = LargestCaptionSample(size);
    const mp4_status_t status = CheckSampleSize(largest, "WriteSubtitleFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (!HasRoomInFile(largest, "WriteSubtitleFrame")) return MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;
    if (m_nCurFileSize > int64_t{UINT32_MAX}) {
        LogError("the caption track has 32-bit offsets and cannot go past 4 GiB", kSource, __LINE__,
                 "WriteSubtitleFrame");
        return MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;
    }
    return MP4_STATUS_SUCCESS;
}

mp4_status_t MuxerState::AppendCaption(const uint8_t* buf, uint32_t size, int64_t timestamp) {
    int bytes = 0;
    mp4_status_t status = IndexInterval(LiveTrack::kCaption, timestamp);
    if (status != MP4_STATUS_SUCCESS) return status;
    status = WriteSample(
        [&] {
            GatheredWrite gathered(m_gatheringWriter);
            bytes =
                static_cast<int>(WriteCaptionAtoms(*m_pWriter, m_subtitleTrack.codec, buf, size));
            gathered.Finish();
        },
        [] {});
    if (status != MP4_STATUS_SUCCESS) return status;
    status = AddSample(
        bytes,
        [&] {
            m_moov->AfterWriteSubtitleFrame(m_nCurFileSize, bytes, timestamp);
            m_live.AddSample(LiveTrack::kCaption, m_nCurFileSize, static_cast<uint32_t>(bytes),
                             timestamp, timestamp, true);
            return true;
        },
        [&](CInfoWriter& writer) { return writer.WriteSubtitleFrame(bytes, timestamp); });
    if (m_indexLost) return status;
    m_figures.OnSample(Figures::kCaptions, static_cast<uint64_t>(bytes), timestamp,
                       m_subtitleTrack.timescale);
    if (m_times.OnCaption(timestamp, m_subtitleTrack.timescale))
        m_figures.OnOddTime(Figures::kCaptions);
    return status;
}

mp4_status_t MuxerState::WriteTimeCode(int nTimeCode) {
    constexpr int kCounterSize = 4;
    mp4_status_t status = CheckRecording(__LINE__, "WriteTimeCode");
    if (status != MP4_STATUS_SUCCESS) return status;
    status = EnsureHeader();
    if (status != MP4_STATUS_SUCCESS) return status;
    if (!HasRoomInFile(kCounterSize, "WriteTimeCode")) return MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;
    status = WriteSample([&] { m_pWriter->WriteInt32(static_cast<uint32_t>(nTimeCode)); }, [] {});
    if (status != MP4_STATUS_SUCCESS) return status;
    status = AddSample(
        kCounterSize,
        [&] {
            m_moov->AfterWriteTimeCode(m_nCurFileSize);
            m_live.AddSample(LiveTrack::kTimecode, m_nCurFileSize, kCounterSize, 0, 0, true);
            return true;
        },
        [&](CInfoWriter& writer) { return writer.WriteTimeCode(nTimeCode); });
    if (!m_indexLost) m_figures.OnSample(Figures::kTimecode, kCounterSize, 0, 0);
    return status;
}

}  // namespace kx_mp4
