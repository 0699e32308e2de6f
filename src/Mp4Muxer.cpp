#include "Mp4Muxer.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <utility>

#include "AdtsHeader.h"
#include "AudioES.h"
#include "FileLock.h"
#include "ctts.h"
#include "free.h"
#include "ftyp.h"
#include "mdat.h"
#include "moov.h"
#include "zv_log.h"

using kx_mp4::AdtsHeader;

namespace {

constexpr const char* kSource = "src/Mp4Muxer";
constexpr wchar_t kInfoExtension[] = L".info";
constexpr uint32_t kNalLengthSize = 4;

// The caller's caption packets: mark, kind, number, data.
constexpr uint32_t kCaptionHeaderSize = 3;
constexpr uint8_t kCaptionMark = 0x61;
constexpr uint8_t kCaptionMark608 = 0x02;
constexpr uint8_t kCaptionMark708 = 0x01;
constexpr uint8_t kCaptionAtomSize = 10;

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

bool HasAllCallbacks(const mp4_file_io_func_t& func) {
    return func.init != nullptr && func.uninit != nullptr && func.tell != nullptr &&
           func.seek != nullptr && func.flush != nullptr && func.write != nullptr;
}

bool WantsFastHeaderWrite(const mp4_config_t& config) {
    return (config.flags & MP4_FLAG_FAST_HEADER_WRITE) != 0 && config.io_mode == MP4_IO_DIRECT;
}

void LogFlags(const mp4_config_t& config) {
    zv_log_info("mp4 flag is %d", kSource, __LINE__, "Create", static_cast<int>(config.flags));
    if ((config.flags & MP4_FLAG_SAFE_MODE) != 0)
        zv_log_warn("safe mode flag already deprecated", kSource, __LINE__, "Create");
    if (WantsFastHeaderWrite(config))
        zv_log_info("fast header write enabled", kSource, __LINE__, "Create");
    else if ((config.flags & MP4_FLAG_FAST_HEADER_WRITE) != 0)
        zv_log_warn("fast header write flag only valid in direct io mode", kSource, __LINE__,
                    "Create");
}

/// The path as seen from the root, so that it means the same file for good. Throws when the working
/// directory has no name.
std::string AbsolutePath(const char* path) {
    if (path[0] == '/') return path;
    std::array<char, PATH_MAX> folder{};
    if (getcwd(folder.data(), folder.size()) == nullptr) throw kx_mp4_exception(errno);
    return std::string(folder.data()) + "/" + path;
}

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

/// Upper bound of what a caption packet of this many bytes becomes.
uint64_t LargestCaptionSample(uint32_t packetSize) {
    return uint64_t{packetSize / 3} * kCaptionAtomSize + kBoxHeaderSize;
}

unsigned long long Elapsed(int64_t start) {
    return static_cast<unsigned long long>(GetTimeTick() - start);
}

}  // namespace

class CMp4Muxer::GatheredWrite {
public:
    explicit GatheredWrite(IFileIOBase* writer) : m_writer(writer) {
        if (m_writer != nullptr) m_writer->BeginGather();
    }
    ~GatheredWrite() {
        if (m_writer != nullptr) m_writer->CancelGather();
    }
    GatheredWrite(const GatheredWrite&) = delete;
    GatheredWrite& operator=(const GatheredWrite&) = delete;

    /// Hands everything to the system; fails as a write fails.
    void Finish() {
        if (m_writer != nullptr) m_writer->EndGather();
    }

private:
    IFileIOBase* m_writer;
};

CMp4Muxer::CMp4Muxer() = default;

CMp4Muxer::~CMp4Muxer() {
    Guarded([this] {
        if (m_pWriter != nullptr) m_pWriter->Uninit();
        return MP4_STATUS_SUCCESS;
    });
    m_pVideoNalParser = nullptr;
}

// Life of a file

mp4_status_t CMp4Muxer::Create(const wchar_t* pFilePath, uint32_t nBlockSize,
                               uint32_t nBufferBlocks, uint8_t uFlag, mp4_io_mode ioMode,
                               mp4_file_io_func_t* pFunc) {
    mp4_config_t config{};
    config.flags = uFlag;
    config.io_mode = ioMode;
    config.direct_io_config = {nBlockSize, nBufferBlocks};
    config.func = pFunc;
    return Create(pFilePath, &config);
}

mp4_status_t CMp4Muxer::Create(const wchar_t* pFilePath, mp4_config_t* config) {
    if (pFilePath == nullptr || config == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    if (m_pWriter != nullptr) return MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
    const mp4_status_t status = Guarded([&] {
        ResetFileState();
        LogFlags(*config);
        m_fastHeaderWrite = WantsFastHeaderWrite(*config);
        const mp4_status_t opened = OpenFiles(pFilePath, *config);
        if (opened == MP4_STATUS_SUCCESS) CreateBoxes(config->flags);
        return opened;
    });
    if (status != MP4_STATUS_SUCCESS) Close();
    return status;
}

void CMp4Muxer::ResetFileState() {
    m_videoFrameNum = m_lastWriteVideoFrameNum = 0;
    m_strInfoFilePath[0] = m_pwszFilePath[0] = L'\0';
    m_infoPath.clear();
    m_infoFailure = MP4_STATUS_SUCCESS;
    m_nCurFileSize = 0;
    m_videoTrack = {};
    m_videoHasCodecData = true;
    m_audioTrack = {};
    m_audioHasCodecData = false;
    m_subtitleTrack = {};
    m_fastHeaderWrite = false;
    m_pVideoNalParser = nullptr;
    m_bIsQtFile = false;
    m_writeHeader = false;
    m_hasSamples = false;
    m_indexLost = false;
    m_compositionOffsets = false;
    m_droppedVideoFrames = 0;
    m_times = {};
    m_adtsWarned = false;
    m_setWarned = false;
}

/// The repair info file comes last: it may hold all that is left of an earlier recording.
mp4_status_t CMp4Muxer::OpenFiles(const wchar_t* pFilePath, const mp4_config_t& config) {
    const bool repairInfo = (config.flags & MP4_FLAG_REPAIR_INFO) != 0;
    if (repairInfo) {
        const mp4_status_t named = NameRepairInfo(pFilePath);
        if (named != MP4_STATUS_SUCCESS) return named;
    }
    const mp4_status_t opened = OpenWriter(pFilePath, config);
    if (opened != MP4_STATUS_SUCCESS || !repairInfo) return opened;
    return OpenRepairInfo(config.flags);
}

mp4_status_t CMp4Muxer::NameRepairInfo(const wchar_t* pFilePath) {
    if (std::wcslen(pFilePath) + std::size(kInfoExtension) > std::size(m_strInfoFilePath))
        return MP4_STATUS_INVALID_PARAMETER;
    std::wcscpy(m_strInfoFilePath, pFilePath);
    std::wcscat(m_strInfoFilePath, kInfoExtension);
    NarrowPath path;
    const mp4_status_t status = ConvertPath(m_strInfoFilePath, path);
    if (status != MP4_STATUS_SUCCESS) return status;
    m_infoPath = AbsolutePath(path.data());
    if (!kx_mp4::FileLock::IsHeld(m_infoPath.c_str())) return MP4_STATUS_SUCCESS;
    zv_log_error("'%s' belongs to a recording that is running, or to a repair", kSource, __LINE__,
                 "Create", m_infoPath.c_str());
    return MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
}

mp4_status_t CMp4Muxer::OpenRepairInfo(uint32_t flags) {
    mp4_status_t status = m_infoWriter.Create(m_infoPath.c_str());
    if (status != MP4_STATUS_SUCCESS) return status;
    status = m_infoWriter.WriteFlag(static_cast<uint8_t>(flags & 0xFF));
    if (status == MP4_STATUS_SUCCESS) return status;
    m_infoWriter.Close();
    RemoveInfoFile();
    return status;
}

mp4_status_t CMp4Muxer::OpenWriter(const wchar_t* pFilePath, const mp4_config_t& config) {
    if (std::wcslen(pFilePath) >= std::size(m_pwszFilePath)) {
        zv_log_error("file path reach the max path size 1024", kSource, __LINE__, "Create");
        return MP4_STATUS_FILE_NAME_TOO_LONG;
    }
    std::wcscpy(m_pwszFilePath, pFilePath);
    switch (config.io_mode) {
        case MP4_IO_FILE:
            return OpenFileWriter(pFilePath);
        case MP4_IO_EXTERNAL:
            return OpenExternalWriter(pFilePath, config.func);
        case MP4_IO_DIRECT:
            zv_log_error("mac os platform do not support direct io yet", kSource, __LINE__,
                         "Create");
            return MP4_STATUS_UNSUPPORTED;
        case MP4_IO_SAFE_WRITE:
            zv_log_error("mac os platform do not support safe write mode", kSource, __LINE__,
                         "Create");
            return MP4_STATUS_UNSUPPORTED;
        default:
            return MP4_STATUS_UNSUPPORTED;
    }
}

mp4_status_t CMp4Muxer::OpenFileWriter(const wchar_t* pFilePath) {
    auto writer = std::make_unique<CFileWriter>();
    writer->PrepareGather();
    const mp4_status_t status = writer->Init(pFilePath, 0, 0);
    if (status != MP4_STATUS_SUCCESS) {
        zv_log_error("init CFileWriter writer failed", kSource, __LINE__, "Create");
        return status;
    }
    m_gatheringWriter = writer.get();
    m_pWriter = std::move(writer);
    return MP4_STATUS_SUCCESS;
}

mp4_status_t CMp4Muxer::OpenExternalWriter(const wchar_t* pFilePath, mp4_file_io_func_t* pFunc) {
    if (pFunc == nullptr) {
        zv_log_error("error: pFunc should not be null when use external io mode", kSource, __LINE__,
                     "Create");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    auto writer = std::make_unique<ExternalWriter>(pFunc);
    if (!HasAllCallbacks(*pFunc) || writer->Init(pFilePath, 0, 0) != MP4_STATUS_SUCCESS) {
        zv_log_error("init external writer failed", kSource, __LINE__, "Create");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    m_pWriter = std::move(writer);
    return MP4_STATUS_SUCCESS;
}

void CMp4Muxer::CreateBoxes(uint32_t flags) {
    IBaseIO* const writer = m_pWriter.get();
    m_bIsQtFile = std::wcsstr(m_pwszFilePath, L"mov") != nullptr;
    m_ftyp = std::make_unique<CMp4FtypAtom>(writer);
    m_free = std::make_unique<CMp4FreeAtom>(writer);
    m_mdat = std::make_unique<CMp4MdatAtom>(writer, (flags & MP4_FLAG_64BIT_SIZE) != 0);
    if (m_fastHeaderWrite) {
        m_headerWriter = std::make_unique<CBufferIO>();
        m_headerWriter->Init(writer);
        m_moov = std::make_unique<CMp4MoovAtom>(m_headerWriter.get(), true, writer);
    } else {
        m_moov = std::make_unique<CMp4MoovAtom>(writer, false, nullptr);
    }
    if ((flags & MP4_FLAG_64BIT_SIZE) != 0) m_moov->SetUse64bitSize();
    if ((flags & MP4_FLAG_64BIT_TIME) != 0) m_moov->SetUse64bitTime();
    m_moov->m_meta.SetIsQtff(true);
    m_moov->SetIsMp4File(!m_bIsQtFile);
    m_mdat->SetFreeBoxBefore(!m_bIsQtFile);
    m_ftyp->SetQt(m_bIsQtFile);
}

mp4_status_t CMp4Muxer::WriteHeader() {
    const int64_t start = GetTimeTick();
    if (m_writeHeader) {
        zv_log_error("header already write", kSource, __LINE__, "WriteHeader");
        zv_log_info("write header cost time %llums", kSource, __LINE__, "WriteHeader",
                    Elapsed(start));
        return MP4_STATUS_SUCCESS;
    }
    mp4_status_t status = WriteHeaderBoxes();
    if (status != MP4_STATUS_SUCCESS) return status;
    m_writeHeader = true;
    if (m_infoWriter.IsOpen()) {
        m_infoFailure = m_infoWriter.WriteMdatOffset(static_cast<uint32_t>(m_mdat->GetStartPos()));
        if (m_infoFailure == MP4_STATUS_SUCCESS) m_infoFailure = m_infoWriter.Flush();
    }
    zv_log_info("write header cost time %llums", kSource, __LINE__, "WriteHeader", Elapsed(start));
    return MP4_STATUS_SUCCESS;
}

mp4_status_t CMp4Muxer::WriteHeaderBoxes() {
    try {
        m_ftyp->Write();
        if (!m_bIsQtFile) m_free->Write();
        if (m_safeWrite) m_moov->Write();
        m_mdat->Write();
        m_nCurFileSize = static_cast<int64_t>(m_pWriter->Ftell());
        return MP4_STATUS_SUCCESS;
    } catch (const kx_mp4_exception& e) {
        return e.error();
    } catch (const std::exception& e) {
        zv_log_error("exception:%s", kSource, __LINE__, "WriteHeader", e.what());
    } catch (...) {
        zv_log_error("exception", kSource, __LINE__, "WriteHeader");
    }
    m_indexLost = true;  // a second header would not stand where the first began
    return MP4_STATUS_UNEXPECTED_ERROR;
}

mp4_status_t CMp4Muxer::EnsureHeader() {
    return m_writeHeader ? MP4_STATUS_SUCCESS : WriteHeader();
}

mp4_status_t CMp4Muxer::Close() {
    CMAutoLock lock(m_lockWrite);
    mp4_status_t status = MP4_STATUS_SUCCESS;
    if (m_indexLost) status = MP4_STATUS_UNEXPECTED_ERROR;
    if (m_pWriter != nullptr && !m_pWriter->IsValid()) status = m_pWriter->get_error_code();
    if (m_infoWriter.IsOpen()) m_infoWriter.Close();
    ReportDroppedFrames(__LINE__, "Close");
    int64_t start = 0;
    if (!m_writeHeader) {
        zv_log_info("no data, ignore finish call", kSource, __LINE__, "Close");
    } else if (FinishMovie(&status)) {
        start = GetTimeTick();
        RemoveInfoFile();
        zv_log_info("Muxer - Close - remove info file takes %lld ms", kSource, __LINE__, "Close",
                    static_cast<long long>(GetTimeTick() - start));
    }
    start = GetTimeTick();
    const mp4_status_t closed = Guarded([this] { return CloseWriter(); });
    if (status == MP4_STATUS_SUCCESS) status = closed;
    zv_log_info("Muxer - Close - uninit takes %lld ms", kSource, __LINE__, "Close",
                static_cast<long long>(GetTimeTick() - start));
    ReleaseBoxes();
    m_infoWriter.Unlock();
    m_writeHeader = false;
    m_indexLost = false;
    return status;
}

/// The output is released whatever the question for its size does.
mp4_status_t CMp4Muxer::CloseWriter() {
    if (m_pWriter == nullptr) return MP4_STATUS_SUCCESS;
    const mp4_status_t asked = Guarded([this] {
        m_nCurFileSize = static_cast<int64_t>(m_pWriter->Ftell());
        return MP4_STATUS_SUCCESS;
    });
    m_pWriter->Uninit();
    if (m_gatheringWriter != nullptr && !m_gatheringWriter->ClosedWell())
        return m_gatheringWriter->get_error_code();
    return asked;
}

/// The repair info file may only go when what it stands for is on the device.
void CMp4Muxer::PushMovie() {
    if (m_infoPath.empty() || m_gatheringWriter == nullptr) return;
    const int64_t start = GetTimeTick();
    m_gatheringWriter->Flush();
    zv_log_info("Muxer - Close - flush takes %lld ms", kSource, __LINE__, "Close",
                static_cast<long long>(GetTimeTick() - start));
}

/// | ftyp | free | mdat 8 ....... |   becomes   | ftyp | free | mdat n ....... | moov |
/// True when all of it is in the output.
bool CMp4Muxer::FinishMovie(mp4_status_t* status) {
    // A writer in error drops every write, so there is nothing that could still be finished.
    if (m_indexLost || !m_pWriter->IsValid()) return false;
    const mp4_status_t finished = Guarded([this] {
        int64_t start = GetTimeTick();
        m_mdat->Finish(m_pwszFilePath);
        int64_t now = GetTimeTick();
        zv_log_info("Muxer - Close - mdat finish takes %lld ms", kSource, __LINE__, "Close",
                    static_cast<long long>(now - start));
        start = now;
        if (m_fastHeaderWrite) m_headerWriter->Init(m_pWriter.get(), m_moov->GetSize());
        if (m_safeWrite)
            m_moov->Update();
        else
            m_moov->Write();
        now = GetTimeTick();
        zv_log_info("Muxer - Close - moov write takes %lld ms", kSource, __LINE__, "Close",
                    static_cast<long long>(now - start));
        PushMovie();
        return MP4_STATUS_SUCCESS;
    });
    if (finished == MP4_STATUS_SUCCESS) return true;
    *status = finished;
    return false;
}

void CMp4Muxer::ReleaseBoxes() {
    m_headerWriter = nullptr;
    m_gatheringWriter = nullptr;
    m_pWriter = nullptr;
    m_ftyp = nullptr;
    m_free = nullptr;
    m_mdat = nullptr;
    m_moov = nullptr;
}

void CMp4Muxer::RemoveInfoFile() {
    if (!m_infoPath.empty()) std::remove(m_infoPath.c_str());
}

// Queries

bool CMp4Muxer::IsOpen() {
    return m_pWriter != nullptr && m_pWriter->IsValid();
}

bool CMp4Muxer::IsRepairInfoActive() const {
    return m_infoWriter.IsActive();
}

int64_t CMp4Muxer::GetCurFileSize() {
    return m_nCurFileSize;
}

mp4_status_t CMp4Muxer::NotOpenAnswer(int line, const char* function) {
    if (m_pWriter != nullptr) return m_pWriter->get_error_code();
    zv_log_error("file not open!", kSource, line, function);
    return MP4_STATUS_FILE_NOT_OPEN;
}

mp4_status_t CMp4Muxer::Flush() {
    if (!IsOpen()) {
        if (m_pWriter != nullptr) return m_pWriter->get_error_code();
        zv_log_error("no open file, can't do flush", kSource, __LINE__, "Flush");
        return MP4_STATUS_FILE_NOT_OPEN;
    }
    const mp4_status_t status = Guarded([this] {
        m_pWriter->Flush();
        return MP4_STATUS_SUCCESS;
    });
    if (status != MP4_STATUS_SUCCESS || m_infoPath.empty()) return status;
    return m_infoWriter.IsOpen() ? m_infoWriter.Flush() : m_infoWriter.Failure();
}

uint64_t CMp4Muxer::GetDurationMS() {
    CMAutoLock lock(m_lockWrite);
    if (!IsOpen()) {
        zv_log_error("no open file, can't get duration", kSource, __LINE__, "GetDurationMS");
        return 0;
    }
    return m_moov != nullptr ? m_moov->GetDurationMS() : 0;
}

uint32_t CMp4Muxer::GetMoovSize() {
    return m_moov != nullptr ? m_moov->GetSize() : 0;
}

double CMp4Muxer::GetVideoBitrate() {
    return m_moov != nullptr ? m_moov->GetVideoBitrate() : -1.0;
}

double CMp4Muxer::GetAudioBitrate() {
    return m_moov != nullptr ? m_moov->GetAudioBitrate() : -1.0;
}

mp4_status_t CMp4Muxer::SetRepairFlushInterval(uint32_t interval) {
    return m_infoWriter.setFlushInterval(interval) ? MP4_STATUS_SUCCESS
                                                   : MP4_STATUS_INVALID_PARAMETER;
}

// Set-up

template <class Record>
mp4_status_t CMp4Muxer::RecordInRepairInfo(Record&& record) {
    if (!m_infoWriter.IsOpen()) return MP4_STATUS_SUCCESS;
    const mp4_status_t status = EnsureHeader();
    if (status == MP4_STATUS_SUCCESS && m_infoWriter.IsOpen()) m_infoFailure = record();
    return status;
}

mp4_status_t CMp4Muxer::WithRepairInfo(mp4_status_t status) {
    const mp4_status_t info = std::exchange(m_infoFailure, MP4_STATUS_SUCCESS);
    return status != MP4_STATUS_SUCCESS ? status : info;
}

mp4_status_t CMp4Muxer::SetCompositionOffsets(bool enable) {
    const mp4_status_t ready = CheckRecording(__LINE__, "SetCompositionOffsets");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (m_hasSamples) {
        zv_log_error("composition offsets can only be set before the first frame", kSource,
                     __LINE__, "SetCompositionOffsets");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    m_compositionOffsets = enable;
    m_moov->SetCompositionOffsets(enable);
    return MP4_STATUS_SUCCESS;
}

mp4_status_t CMp4Muxer::SetVideoTrack(const mp4_video_track_info* pTrackInfo) {
    const mp4_status_t ready = CheckRecording(__LINE__, "SetVideoTrack");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (pTrackInfo == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    mp4_video_track_info_t info = *pTrackInfo;
    if (info.timescale == 0) {
        zv_log_error("invalid video timescale", kSource, __LINE__, "SetVideoTrack");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    if (info.width == 0 || info.height == 0) {
        zv_log_error("invalid video width(%u) or height(%u)", kSource, __LINE__, "SetVideoTrack",
                     info.width, info.height);
        return MP4_STATUS_INVALID_PARAMETER;
    }
    if (m_safeWrite && info.frame_duration == 0) {
        zv_log_error("please set frame_duration in safe mode", kSource, __LINE__, "SetVideoTrack");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    if (!CParameterSetKeeper::Normalise(info)) {
        zv_log_error("negative parameter set size", kSource, __LINE__, "SetVideoTrack");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    return Guarded([&] {
        // Nothing of an earlier declaration changes before this one is taken.
        std::unique_ptr<IVideoNalParser> parser = NalParserOf(info.codec);
        if (parser == nullptr && info.codec != MP4_MVC_PRORES) {
            zv_log_error("invalid codec type %d", kSource, __LINE__, "SetVideoTrack", info.codec);
            return MP4_STATUS_INVALID_CODEC_TYPE;
        }
        if (!CParameterSetKeeper::AreUsable(info)) {
            zv_log_error("the video parameter sets cannot be described, the track is refused",
                         kSource, __LINE__, "SetVideoTrack");
            return MP4_STATUS_UNEXPECTED_ERROR;
        }
        const bool complete = CParameterSetKeeper::IsComplete(info);
        if (m_safeWrite && !complete) {
            zv_log_error("please provide video codec data in safe mode", kSource, __LINE__,
                         "SetVideoTrack");
            return MP4_STATUS_INVALID_PARAMETER;
        }
        if (complete && !m_moov->SetVideoTrack(&info)) return MP4_STATUS_UNEXPECTED_ERROR;
        m_pVideoNalParser = std::move(parser);
        m_videoTrack = info;
        m_videoHasCodecData = complete;
        if (complete) {
            ReportDroppedFrames(__LINE__, "SetVideoTrack");
            return WithRepairInfo(
                RecordInRepairInfo([&] { return m_infoWriter.WriteVideoFormat(&info); }));
        }
        m_parameterSets.KeepGiven(m_videoTrack);
        zv_log_info("no codec data in video track info, try to find it in stream", kSource,
                    __LINE__, "SetVideoTrack");
        return MP4_STATUS_SUCCESS;
    });
}

mp4_status_t CMp4Muxer::SetAudioTrack(const mp4_audio_track_info_t* pTrackInfo) {
    const mp4_status_t ready = CheckRecording(__LINE__, "SetAudioTrack");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (pTrackInfo == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    const mp4_audio_track_info_t& info = *pTrackInfo;
    if (info.timescale == 0) {
        zv_log_error("invalid timescale in audio track", kSource, __LINE__, "SetAudioTrack");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    if (m_safeWrite && info.frame_duration == 0) {
        zv_log_error("please set frame_duration in safe mode", kSource, __LINE__, "SetAudioTrack");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    // Nothing of an earlier declaration changes before this one is taken.
    const bool complete = info.channels != 0 && info.sample_rate != 0;
    switch (info.codec) {
        case MP4_MAC_AAC:
            if (complete) break;
            zv_log_error("invalid audio channel(%d) or sample rate(%d)", kSource, __LINE__,
                         "SetAudioTrack", info.channels, info.sample_rate);
            return MP4_STATUS_INVALID_PARAMETER;
        case MP4_MAC_ADTS:
            if (complete) break;
            zv_log_info("audio codec is adts, wait audio stream to get meta data", kSource,
                        __LINE__, "SetAudioTrack");
            break;
        default:
            zv_log_error("invalid audio codec %d", kSource, __LINE__, "SetAudioTrack", info.codec);
            return MP4_STATUS_INVALID_PARAMETER;
    }
    if (m_safeWrite && !complete) {
        zv_log_error("please provide audio codec data in safe mode", kSource, __LINE__,
                     "SetAudioTrack");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    m_audioTrack = info;
    m_audioHasCodecData = complete;
    if (!complete) return MP4_STATUS_SUCCESS;
    return Guarded([&] {
        m_moov->SetAudioTrack(&info);
        return WithRepairInfo(
            RecordInRepairInfo([&] { return m_infoWriter.WriteAudioFormat(&info); }));
    });
}

mp4_status_t CMp4Muxer::SetSubtitleTrack(const mp4_subtitle_track_info_t* pTrackInfo) {
    if (m_safeWrite) {
        zv_log_error("subtitle not supported in safe mode", kSource, __LINE__, "SetSubtitleTrack");
        return MP4_STATUS_UNSUPPORTED;
    }
    const mp4_status_t ready = CheckRecording(__LINE__, "SetSubtitleTrack");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (pTrackInfo == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    m_subtitleTrack = *pTrackInfo;
    return Guarded([&] {
        m_moov->SetSubtitleTrack(pTrackInfo);
        return WithRepairInfo(
            RecordInRepairInfo([&] { return m_infoWriter.WriteSubtitleFormat(pTrackInfo); }));
    });
}

mp4_status_t CMp4Muxer::SetTCMDTrack(const mp4_time_code_track_info_t* pTrackInfo) {
    const mp4_status_t ready = CheckRecording(__LINE__, "SetTCMDTrack");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (pTrackInfo == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    return Guarded([&] {
        m_moov->SetTCMDTrack(pTrackInfo);
        return WithRepairInfo(
            RecordInRepairInfo([&] { return m_infoWriter.WriteTimeCodeFormat(pTrackInfo); }));
    });
}

mp4_status_t CMp4Muxer::SetMetadata(const char* pKey, const char* pData, uint32_t size,
                                    mp4_meta_data_type_t type, const char* key_namespace) {
    const mp4_status_t ready = CheckRecording(__LINE__, "SetMetadata");
    if (ready != MP4_STATUS_SUCCESS) return ready;
    if (pKey == nullptr || pData == nullptr) {
        zv_log_error("invalid meta data", kSource, __LINE__, "SetMetadata");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    const bool sized = type == MP4_META_DATA_TYPE_INT || type == MP4_META_DATA_TYPE_RAW;
    if (sized && size == 0) {
        zv_log_error("invalid meta(%s) data length 0", kSource, __LINE__, "SetMetadata", pKey);
        return MP4_STATUS_INVALID_PARAMETER;
    }
    return Guarded([&] {
        if (!m_moov->SetMetaData(pKey, pData, size, type, key_namespace)) {
            zv_log_error("set meta key %s failed", kSource, __LINE__, "SetMetadata", pKey);
            return MP4_STATUS_INVALID_PARAMETER;
        }
        return WithRepairInfo(RecordInRepairInfo(
            [&] { return m_infoWriter.WriteMetadata(pKey, pData, size, type, key_namespace); }));
    });
}

// What the frame writers share

mp4_status_t CMp4Muxer::CheckRecording(int line, const char* function) {
    if (!IsOpen()) return NotOpenAnswer(line, function);
    if (!m_indexLost) return MP4_STATUS_SUCCESS;
    zv_log_error("the index of this file is lost, no more frames are taken", kSource, line,
                 function);
    return MP4_STATUS_UNEXPECTED_ERROR;
}

bool CMp4Muxer::HasRoomInFile(uint64_t bytes, const char* function) {
    if (m_mdat->CanEndAt(m_nCurFileSize + static_cast<int64_t>(bytes))) return true;
    zv_log_error(
        "media data would pass 4 GiB, which this QuickTime movie cannot describe: create it with "
        "the 64-bit size option (flag 2); the sample is refused",
        kSource, __LINE__, function);
    return false;
}

mp4_status_t CMp4Muxer::CheckSampleSize(uint64_t bytes, const char* function) {
    if (IsSampleSize(bytes)) return MP4_STATUS_SUCCESS;
    zv_log_error("a sample of %llu bytes is too large, the limit is 2 GiB", kSource, __LINE__,
                 function, static_cast<unsigned long long>(bytes));
    return MP4_STATUS_INVALID_PARAMETER;
}

template <class Write, class LogUnexpected>
mp4_status_t CMp4Muxer::WriteSample(Write&& write, LogUnexpected&& logUnexpected) {
    try {
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

template <class Index, class Record>
mp4_status_t CMp4Muxer::AddSample(int bytes, Index&& index, Record&& record) {
    m_hasSamples = true;
    bool indexed = false;
    try {
        indexed = index();
    } catch (...) {
        // Some of the tables hold the sample and some do not, or have lost what they held.
        m_indexLost = true;
        zv_log_error("no memory for the index, it is lost; the media data is in the file", kSource,
                     __LINE__, "AddSample");
        return MP4_STATUS_UNEXPECTED_ERROR;
    }
    // A refused sample's bytes stay where they are, between those of the samples around it: the
    // next offset and the repair info file have to count them.
    m_nCurFileSize += bytes;
    if (m_infoWriter.IsOpen()) m_infoFailure = record();
    return indexed ? MP4_STATUS_SUCCESS : MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;
}

// Video

mp4_status_t CMp4Muxer::WriteVideoFrame(const uint8_t* buf, uint32_t size, uint64_t pts,
                                        uint64_t dts) {
    return Guarded([&] {
        // Splitting needs no lock, so that it does not hold up the other tracks.
        CVideoFrameParser frame;
        const bool parsed = m_videoTrack.codec != MP4_MVC_PRORES && buf != nullptr &&
                            IsSampleSize(size) && frame.Parse(buf, static_cast<int>(size));
        CMAutoLock lock(m_lockWrite);
        return WithRepairInfo(RecordVideoFrame(buf, size, frame, parsed, pts, dts));
    });
}

mp4_status_t CMp4Muxer::RecordVideoFrame(const uint8_t* buf, uint32_t size,
                                         const CVideoFrameParser& frame, bool parsed, uint64_t pts,
                                         uint64_t dts) {
    mp4_status_t status = CheckRecording(__LINE__, "WriteVideoFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (buf == nullptr || size == 0) {
        zv_log_error("write video frame with empty data", kSource, __LINE__, "WriteVideoFrame");
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
    status = CheckVideoTimes(static_cast<int64_t>(pts), static_cast<int64_t>(dts));
    if (status != MP4_STATUS_SUCCESS) return status;
    return AppendVideoFrame(buf, size, frame, pts, dts);
}

mp4_status_t CMp4Muxer::DropVideoFrame() {
    if (m_droppedVideoFrames == 0)
        zv_log_warn("no codec data, drop frame", kSource, __LINE__, "WriteVideoFrame");
    ++m_droppedVideoFrames;
    return MP4_STATUS_SUCCESS;
}

void CMp4Muxer::ReportDroppedFrames(int line, const char* function) {
    if (m_droppedVideoFrames == 0) return;
    zv_log_warn("no codec data, %llu frames dropped", kSource, line, function,
                static_cast<unsigned long long>(m_droppedVideoFrames));
    m_droppedVideoFrames = 0;
}

mp4_status_t CMp4Muxer::CheckVideoTimes(int64_t pts, int64_t dts) {
    if (!m_compositionOffsets) return MP4_STATUS_SUCCESS;
    if (!CMp4CttsAtom::OffsetFits(pts, dts)) {
        zv_log_error("composition offset from %llu to %llu does not fit 32 bits", kSource, __LINE__,
                     "WriteVideoFrame", static_cast<unsigned long long>(dts),
                     static_cast<unsigned long long>(pts));
        return MP4_STATUS_INVALID_PARAMETER;
    }
    if (m_times.VideoGoesBack(dts)) {
        // Offsets count from the decode times, which the sample table adds up from the steps.
        zv_log_error("decode time goes back from %lld to %lld, the frame is refused", kSource,
                     __LINE__, "WriteVideoFrame", static_cast<long long>(m_times.LastVideo()),
                     static_cast<long long>(dts));
        return MP4_STATUS_INVALID_PARAMETER;
    }
    return MP4_STATUS_SUCCESS;
}

mp4_status_t CMp4Muxer::CheckVideoFrame(bool parsed) {
    const bool prores = m_videoTrack.codec == MP4_MVC_PRORES;
    if (!prores && !parsed) {
        zv_log_error("Parse video frame fail !", kSource, __LINE__, "WriteVideoFrame");
        return MP4_STATUS_INVALID_VIDEO_STREAM;
    }
    if (!prores && m_pVideoNalParser == nullptr) {
        zv_log_error("invalid video track!", kSource, __LINE__, "WriteVideoFrame");
        return MP4_STATUS_INVALID_VIDEO_TRACK;
    }
    return MP4_STATUS_SUCCESS;
}

mp4_status_t CMp4Muxer::AppendVideoFrame(const uint8_t* buf, uint32_t size,
                                         const CVideoFrameParser& frame, uint64_t pts,
                                         uint64_t dts) {
    const bool prores = m_videoTrack.codec == MP4_MVC_PRORES;
    const uint64_t sampleSize = prores ? size : LengthPrefixedSize(frame);
    mp4_status_t status = CheckSampleSize(sampleSize, "WriteVideoFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (!HasRoomInFile(sampleSize, "WriteVideoFrame")) return MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;

    const uint64_t fileSizeBefore = m_safeWrite ? m_pWriter->GetFileSize() : 0;
    status = WriteSample(
        [&] {
            if (prores)
                m_pWriter->WriteBuf(buf, size);
            else
                WriteNalUnits(frame);
        },
        [] { zv_log_error("exception when write file", kSource, __LINE__, "WriteVideoFrame"); });
    if (status != MP4_STATUS_SUCCESS) return status;
    if (m_safeWrite) UpdateReservedHeader(fileSizeBefore);

    const bool keyFrame = prores || HasSyncSlice(frame);
    const auto bytes = static_cast<int>(sampleSize);
    const auto nPts = static_cast<int64_t>(pts);
    const auto nDts = static_cast<int64_t>(dts);
    bool indexed = false;
    status = AddSample(
        bytes,
        [&] {
            return indexed =
                       m_moov->AfterWriteVideoFrame(m_nCurFileSize, bytes, nPts, nDts, keyFrame);
        },
        [&] { return m_infoWriter.WriteVideoFrame(bytes, nPts, nDts, keyFrame); });
    if (indexed) m_times.OnVideo(nPts, nDts, m_videoTrack.timescale, m_compositionOffsets);
    return status;
}

/// Each NAL unit behind its length (ISO/IEC 14496-15, 5.3.3.1.2 and 8.3.3.1.2).
void CMp4Muxer::WriteNalUnits(const CVideoFrameParser& frame) {
    GatheredWrite gathered(m_gatheringWriter);
    for (const VIDEO_SLICE& unit : frame) {
        const auto length = static_cast<uint32_t>(unit.cbData);
        m_pWriter->WriteInt32(length);
        m_pWriter->WriteBuf(unit.pbData, length);
    }
    gathered.Finish();
}

bool CMp4Muxer::HasSyncSlice(const CVideoFrameParser& frame) const {
    for (const VIDEO_SLICE& unit : frame) {
        if (unit.cbData == 0) continue;
        if (m_pVideoNalParser->IsKeyFrame(unit.pbData, unit.cbData)) return true;
        if (m_compositionOffsets && m_pVideoNalParser->IsRandomAccess(unit.pbData, unit.cbData))
            return true;
    }
    return false;
}

/// Header update policy of a file whose header lies in front.
void CMp4Muxer::UpdateReservedHeader(uint64_t sizeBefore) {
    ++m_videoFrameNum;
    const bool due = m_videoFrameNum - m_lastWriteVideoFrameNum > m_safeWriteFrameNum;
    // Only when this frame's bytes have reached the file.
    if (!due || m_pWriter->GetFileSize() == sizeBefore) return;
    const int64_t start = GetTimeTick();
    m_moov->Update();
    m_mdat->Update();
    m_lastWriteVideoFrameNum = m_videoFrameNum;
    zv_log_info("update header to %u cost time %llums", kSource, __LINE__, "WriteVideoFrame",
                m_videoFrameNum, Elapsed(start));
}

/// True when the video track is now configured.
bool CMp4Muxer::GetVideoCodecData(const CVideoFrameParser& frame) {
    if (m_videoTrack.codec != MP4_MVC_H264 && m_videoTrack.codec != MP4_MVC_HEVC) {
        zv_log_error("unknown codec type %d", kSource, __LINE__, "GetVideoCodecData",
                     m_videoTrack.codec);
        return false;
    }
    for (const VIDEO_SLICE& unit : frame) {
        if (!m_parameterSets.Take(unit, *m_pVideoNalParser, m_videoTrack) &&
            !std::exchange(m_setWarned, true)) {
            zv_log_warn("a video parameter set in the stream cannot be described and is not taken",
                        kSource, __LINE__, "GetVideoCodecData");
        }
        if (!CParameterSetKeeper::IsComplete(m_videoTrack)) continue;
        m_videoHasCodecData = true;
        zv_log_info("found video codec data in stream, set video track info", kSource, __LINE__,
                    "GetVideoCodecData");
        m_moov->SetVideoTrack(&m_videoTrack);
        RecordInRepairInfo([this] { return m_infoWriter.WriteVideoFormat(&m_videoTrack); });
        return true;
    }
    return false;
}

// Audio

mp4_status_t CMp4Muxer::WriteAudioFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    if (buf == nullptr || size == 0) {
        zv_log_warn("write audio frame with empty data", kSource, __LINE__, "WriteAudioFrame");
        return MP4_STATUS_SUCCESS;
    }
    return Guarded([&] {
        CMAutoLock lock(m_lockWrite);
        return WithRepairInfo(RecordAudioFrame(buf, size, timestamp));
    });
}

mp4_status_t CMp4Muxer::RecordAudioFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    mp4_status_t status = CheckRecording(__LINE__, "WriteAudioFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    status = CheckSampleSize(size, "WriteAudioFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    const bool isAdts = AdtsHeader::IsThere(buf, size);
    if (!m_audioHasCodecData && m_audioTrack.codec == MP4_MAC_ADTS) {
        status = SetAudioTrackFromAdts(buf, isAdts);
        if (status != MP4_STATUS_SUCCESS) return status;
    }
    const uint32_t headerSize = isAdts ? AdtsBytesToStrip(buf, size) : 0;
    status = EnsureHeader();
    if (status != MP4_STATUS_SUCCESS) return status;
    return AppendAudioFrame(buf + headerSize, size - headerSize, timestamp);
}

/// A header with CRC goes whole where its length says that this is one frame. Anything else is more
/// or less than one frame: only the 7 bytes go that every header has, and the rest stays as it is.
uint32_t CMp4Muxer::AdtsBytesToStrip(const uint8_t* buf, uint32_t size) {
    const AdtsHeader header = AdtsHeader::Read(buf);
    const bool oneFrame = header.frameSize == size;
    if ((!oneFrame || header.blocks > 1) && !std::exchange(m_adtsWarned, true)) {
        zv_log_warn(
            "ADTS frame of %u bytes and %u raw data blocks in a buffer of %u bytes: a call "
            "takes one frame of one block; stored as it is, said once",
            kSource, __LINE__, "WriteAudioFrame", header.frameSize, header.blocks, size);
    }
    return oneFrame && size > header.Size() ? header.Size() : AdtsHeader::kSize;
}

mp4_status_t CMp4Muxer::SetAudioTrackFromAdts(const uint8_t* buf, bool isAdts) {
    if (!isAdts) {
        zv_log_error("invalid ADTS stream, please check it.", kSource, __LINE__, "WriteAudioFrame");
        return MP4_STATUS_INVALID_ADTS_STREAM;
    }
    const AdtsHeader header = AdtsHeader::Read(buf);
    m_audioTrack.profile = header.objectType;
    m_audioTrack.sample_rate = Low16(header.SampleRate());
    m_audioTrack.channels = header.channels;
    zv_log_info("ADTS stream, get and set audio track", kSource, __LINE__, "WriteAudioFrame");
    m_moov->SetAudioTrack(&m_audioTrack);
    m_audioHasCodecData = true;
    return RecordInRepairInfo([this] { return m_infoWriter.WriteAudioFormat(&m_audioTrack); });
}

mp4_status_t CMp4Muxer::AppendAudioFrame(const uint8_t* sample, uint32_t size, uint64_t timestamp) {
    if (!HasRoomInFile(size, "WriteAudioFrame")) return MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;
    mp4_status_t status =
        WriteSample([&] { m_pWriter->WriteBuf(sample, size); },
                    [&] {
                        zv_log_error("write buffer exception, buffer size %d", kSource, __LINE__,
                                     "WriteAudioFrame", static_cast<int>(size));
                    });
    if (status != MP4_STATUS_SUCCESS) return status;
    const auto bytes = static_cast<int>(size);
    const auto nTimeStamp = static_cast<int64_t>(timestamp);
    bool indexed = false;
    status = AddSample(
        bytes,
        [&] { return indexed = m_moov->AfterWriteAudioFrame(m_nCurFileSize, bytes, nTimeStamp); },
        [&] { return m_infoWriter.WriteAudioFrame(bytes, nTimeStamp); });
    if (indexed) m_times.OnAudio(nTimeStamp, m_audioTrack.timescale);
    if (status == MP4_STATUS_NO_SPACE_LEFT_IN_HEADER)
        zv_log_error("call AfterWriteAudioFrame failed", kSource, __LINE__, "WriteAudioFrame");
    return status;
}

// Captions and timecode

mp4_status_t CMp4Muxer::WriteSubtitleFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    if (m_safeWrite) {
        zv_log_error("subtitle not supported in safe mode", kSource, __LINE__,
                     "WriteSubtitleFrame");
        return MP4_STATUS_UNSUPPORTED;
    }
    return Guarded([&] {
        CMAutoLock lock(m_lockWrite);
        return WithRepairInfo(RecordCaption(buf, size, timestamp));
    });
}

mp4_status_t CMp4Muxer::RecordCaption(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    mp4_status_t status = CheckRecording(__LINE__, "WriteSubtitleFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (buf == nullptr || size == 0) {
        zv_log_warn("write subtitle frame with empty data", kSource, __LINE__,
                    "WriteSubtitleFrame");
        return MP4_STATUS_SUCCESS;
    }
    status = EnsureHeader();
    if (status != MP4_STATUS_SUCCESS) return status;
    return AppendCaption(buf, size, timestamp);
}

mp4_status_t CMp4Muxer::AppendCaption(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    const mp4_subtitle_codec codec = m_subtitleTrack.codec;
    if (codec != MP4_SUBTITLE_CODEC_CC608 && codec != MP4_SUBTITLE_CODEC_CC708) {
        zv_log_error("unknown subtitle codec type %d", kSource, __LINE__, "WriteSubtitleFrame",
                     codec);
        return MP4_STATUS_INVALID_SUBTITLE_TYPE;
    }
    mp4_status_t status = CheckSampleSize(LargestCaptionSample(size), "WriteSubtitleFrame");
    if (status != MP4_STATUS_SUCCESS) return status;
    if (!HasRoomInFile(LargestCaptionSample(size), "WriteSubtitleFrame"))
        return MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;
    if (m_nCurFileSize > int64_t{UINT32_MAX}) {
        zv_log_error("the caption track has 32-bit offsets and cannot go past 4 GiB", kSource,
                     __LINE__, "WriteSubtitleFrame");
        return MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;
    }
    uint32_t nWriteLen = 0;
    status = WriteSample(
        [&] {
            GatheredWrite gathered(m_gatheringWriter);
            // A malformed packet has said so in the log and counts as a sample without bytes.
            if (codec == MP4_SUBTITLE_CODEC_CC608)
                WriteCC608(buf, size, &nWriteLen);
            else
                WriteCC708(buf, size, &nWriteLen);
            gathered.Finish();
        },
        [] {});
    if (status != MP4_STATUS_SUCCESS) return status;
    const auto bytes = static_cast<int>(nWriteLen);
    const auto nTimeStamp = static_cast<int64_t>(timestamp);
    bool indexed = false;
    status = AddSample(
        bytes,
        [&] {
            m_moov->AfterWriteSubtitleFrame(m_nCurFileSize, bytes, nTimeStamp);
            return indexed = true;
        },
        [&] { return m_infoWriter.WriteSubtitleFrame(bytes, nTimeStamp); });
    if (indexed) m_times.OnCaption(nTimeStamp, m_subtitleTrack.timescale);
    return status;
}

bool CMp4Muxer::WriteCC608(const uint8_t* p_frame, uint32_t frame_len, uint32_t* p_write_len) {
    constexpr uint32_t kTripletSize = 3;
    constexpr uint8_t kFieldMask = 0x03;
    *p_write_len = 0;
    if (frame_len < kCaptionHeaderSize + kTripletSize || p_frame[0] != kCaptionMark ||
        p_frame[1] != kCaptionMark608) {
        zv_log_error("subtitle 608 frame format error", kSource, __LINE__, "WriteCC608");
        return false;
    }
    uint8_t atoms[2][kCaptionAtomSize] = {{0, 0, 0, kCaptionAtomSize, 'c', 'd', 'a', 't', 0, 0},
                                          {0, 0, 0, kCaptionAtomSize, 'c', 'd', 't', '2', 0, 0}};
    const uint8_t* const end = p_frame + frame_len;
    for (const uint8_t* triplet = p_frame + kCaptionHeaderSize;
         end - triplet >= ptrdiff_t{kTripletSize}; triplet += kTripletSize) {
        const int field = triplet[0] & kFieldMask;
        if (field > 1) continue;  // CEA-708 data has no atom in a CEA-608 sample
        uint8_t* const atom = atoms[field];
        atom[8] = triplet[1];
        atom[9] = triplet[2];
        m_pWriter->WriteBuf(atom, kCaptionAtomSize);
        *p_write_len += kCaptionAtomSize;
    }
    return true;
}

bool CMp4Muxer::WriteCC708(const uint8_t* p_frame, uint32_t frame_len, uint32_t* p_write_len) {
    if (frame_len < kCaptionHeaderSize || p_frame[0] != kCaptionMark ||
        p_frame[1] != kCaptionMark708 || p_frame[2] > frame_len - kCaptionHeaderSize) {
        zv_log_error("subtitle 708 frame format error", kSource, __LINE__, "WriteCC708");
        return false;
    }
    const uint32_t length = p_frame[2];
    const uint32_t size = kBoxHeaderSize + length;
    const uint8_t header[kBoxHeaderSize] = {0, 0, Low8(size >> 8), Low8(size), 'c', 'c', 'd', 'p'};
    m_pWriter->WriteBuf(header, sizeof header);
    if (length != 0) m_pWriter->WriteBuf(p_frame + kCaptionHeaderSize, length);
    *p_write_len = size;
    return true;
}

mp4_status_t CMp4Muxer::WriteTimeCode(int nTimeCode) {
    return Guarded([&] {
        CMAutoLock lock(m_lockWrite);
        return WithRepairInfo(RecordTimeCode(nTimeCode));
    });
}

mp4_status_t CMp4Muxer::RecordTimeCode(int nTimeCode) {
    constexpr int kCounterSize = 4;
    mp4_status_t status = CheckRecording(__LINE__, "WriteTimeCode");
    if (status != MP4_STATUS_SUCCESS) return status;
    status = EnsureHeader();
    if (status != MP4_STATUS_SUCCESS) return status;
    if (!HasRoomInFile(kCounterSize, "WriteTimeCode")) return MP4_STATUS_NO_SPACE_LEFT_IN_HEADER;
    status = WriteSample([&] { m_pWriter->WriteInt32(static_cast<uint32_t>(nTimeCode)); }, [] {});
    if (status != MP4_STATUS_SUCCESS) return status;
    return AddSample(
        kCounterSize,
        [&] {
            m_moov->AfterWriteTimeCode(m_nCurFileSize);
            return true;
        },
        [&] { return m_infoWriter.WriteTimeCode(nTimeCode); });
}
