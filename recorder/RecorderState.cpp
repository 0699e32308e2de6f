#include "RecorderState.h"

#include <utility>

#include "ConfigurationRecord.h"
#include "ParameterSetKeeper.h"
#include "VideoLook.h"

namespace kx_mp4 {
namespace {

constexpr size_t kLeastQueue = size_t{64} << 10;
constexpr size_t kMostQueue = size_t{1} << 40;
constexpr uint64_t kLeastSegmentMs = 100;
constexpr uint64_t kLeastSegmentBytes = uint64_t{64} << 10;
constexpr uint64_t kMostStep = uint64_t{1} << 40;
constexpr uint32_t kDaySeconds = 24 * 60 * 60;

bool AreInRange(const RecorderOptions& options) {
    const bool named = options.name || !options.pattern.empty();
    const bool queue = options.queue_bytes >= kLeastQueue && options.queue_bytes <= kMostQueue;
    const bool time = options.segment_ms == 0 || options.segment_ms >= kLeastSegmentMs;
    const bool size = options.segment_bytes == 0 || options.segment_bytes >= kLeastSegmentBytes;
    return named && queue && time && size && options.segment_wall_clock_s <= kDaySeconds &&
           options.reserve_bytes <= kMostStep;
}

/// An output that takes everything and keeps nothing.
mp4_io_callbacks_t Nowhere() {
    mp4_io_callbacks_t callbacks{};
    callbacks.tell = [](void*) { return int64_t{0}; };
    callbacks.seek = [](void*, int64_t, int) { return 1; };
    callbacks.write = [](void*, const void*, uint32_t) { return 1; };
    return callbacks;
}

/// A description that has copies of its parameter sets.
struct OwnedVideo {
    explicit OwnedVideo(const mp4_video_track_info_t& given) : info(given) {
        ParameterSetKeeper::Normalise(info);
        sets.KeepGiven(info);
    }
    mp4_video_track_info_t info;
    ParameterSetKeeper sets;
};

/// The parameter sets of the record, when it has any.
void TakeSets(const ConfigurationRecord& record, mp4_video_track_info_t& info) {
    const auto size = [](const RecordedSet& set) { return static_cast<int16_t>(set.size); };
    if (info.codec == MP4_MVC_HEVC)
        info.hevc = {record.sps.data,  size(record.sps), record.pps.data,
                     size(record.pps), record.vps.data,  size(record.vps)};
    else
        info.h264 = {record.sps.data, size(record.sps), record.pps.data, size(record.pps)};
}

}  // namespace

std::shared_ptr<Recording> RecorderState::Current() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_recording;
}

mp4_status_t RecorderState::OpenProbe(const RecorderOptions& options) {
    m_probe.Close();
    constexpr uint32_t kNoFiles = ~uint32_t{MP4_FLAG_REPAIR_INFO};
    return m_probe.Create("probe", options.container, options.flags & kNoFiles, Nowhere());
}

mp4_status_t RecorderState::Start(const RecorderOptions& options) {
    const std::lock_guard<std::mutex> setup(m_setup);
    if (!AreInRange(options)) return MP4_STATUS_INVALID_PARAMETER;
    const std::shared_ptr<Recording> before = Current();
    if (before != nullptr && !before->IsDone()) return MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
    mp4_status_t status = OpenProbe(options);
    if (status != MP4_STATUS_SUCCESS) return status;
    m_codec = MP4_MVC_UNKNOWN;
    m_hasLengths = false;
    m_hasAudio = false;
    m_hasCaptions = false;
    auto recording = std::make_shared<Recording>(options, m_storage);
    status = recording->Start();
    if (status != MP4_STATUS_SUCCESS) return status;
    const std::lock_guard<std::mutex> lock(m_lock);
    m_recording = std::move(recording);
    return MP4_STATUS_SUCCESS;
}

RecorderReport RecorderState::Stop(uint32_t limitMs) {
    const std::shared_ptr<Recording> recording = Current();
    if (recording != nullptr) return recording->Stop(limitMs);
    RecorderReport report;
    report.status = MP4_STATUS_FILE_NOT_OPEN;
    return report;
}

// Declarations

template <class Declare>
mp4_status_t RecorderState::DoWithWriter(Declare declare) {
    const std::shared_ptr<Recording> recording = Current();
    if (recording == nullptr) return MP4_STATUS_FILE_NOT_OPEN;
    SegmentWriter& writer = recording->Writer();
    return recording->Do([&writer, declare = std::move(declare)] { declare(writer); });
}

mp4_status_t RecorderState::DeclareVideo(const mp4_video_track_info_t& info, bool hasLengths) {
    const auto owned = std::make_shared<OwnedVideo>(info);
    const mp4_status_t status = DoWithWriter([owned, hasLengths](SegmentWriter& writer) {
        writer.DeclareVideo(owned->info, hasLengths);
    });
    if (status != MP4_STATUS_SUCCESS) return status;
    m_hasLengths = hasLengths;
    m_codec = info.codec;
    return MP4_STATUS_SUCCESS;
}

mp4_status_t RecorderState::SetVideoTrack(const mp4_video_track_info* info) {
    const std::lock_guard<std::mutex> setup(m_setup);
    const mp4_status_t status = m_probe.SetVideoTrack(info);
    return status == MP4_STATUS_SUCCESS ? DeclareVideo(*info, false) : status;
}

mp4_status_t RecorderState::SetVideoTrack(const mp4_video_track_info* info, const uint8_t* record,
                                          uint32_t recordSize) {
    const std::lock_guard<std::mutex> setup(m_setup);
    const mp4_status_t status = m_probe.SetVideoTrack(info, record, recordSize);
    if (status != MP4_STATUS_SUCCESS) return status;
    const auto read = ReadConfigurationRecord(info->codec, record, recordSize);
    constexpr uint32_t kStartCode = 4;  // takes the place of the length
    if (!read || read->lengthSize != kStartCode) return MP4_STATUS_UNSUPPORTED;
    mp4_video_track_info_t described = *info;
    TakeSets(*read, described);
    return DeclareVideo(described, true);
}

mp4_status_t RecorderState::SetAudioTrack(const mp4_audio_track_info_t* info) {
    const std::lock_guard<std::mutex> setup(m_setup);
    mp4_status_t status = m_probe.SetAudioTrack(info);
    if (status != MP4_STATUS_SUCCESS) return status;
    status = DoWithWriter([copy = *info](SegmentWriter& writer) { writer.DeclareAudio(copy); });
    if (status == MP4_STATUS_SUCCESS) m_hasAudio = true;
    return status;
}

mp4_status_t RecorderState::SetSubtitleTrack(const mp4_subtitle_track_info_t* info) {
    const std::lock_guard<std::mutex> setup(m_setup);
    mp4_status_t status = m_probe.SetSubtitleTrack(info);
    if (status != MP4_STATUS_SUCCESS) return status;
    status = DoWithWriter([copy = *info](SegmentWriter& writer) { writer.DeclareCaptions(copy); });
    if (status == MP4_STATUS_SUCCESS) m_hasCaptions = true;
    return status;
}

mp4_status_t RecorderState::SetTCMDTrack(const mp4_time_code_track_info_t* info) {
    const std::lock_guard<std::mutex> setup(m_setup);
    const mp4_status_t status = m_probe.SetTCMDTrack(info);
    if (status != MP4_STATUS_SUCCESS) return status;
    return DoWithWriter([copy = *info](SegmentWriter& writer) { writer.DeclareTimecode(copy); });
}

mp4_status_t RecorderState::SetMetadata(const char* key, const char* data, uint32_t size,
                                        mp4_meta_data_type_t type, const char* keySpace) {
    const std::lock_guard<std::mutex> setup(m_setup);
    const mp4_status_t status = m_probe.SetMetadata(key, data, size, type, keySpace);
    if (status != MP4_STATUS_SUCCESS) return status;
    MetadataItem item;
    item.key = key;
    item.data = type == MP4_META_DATA_TYPE_STRING ? std::string(data) : std::string(data, size);
    item.type = type;
    if (keySpace != nullptr) item.keySpace = keySpace;
    return DoWithWriter(
        [item = std::move(item)](SegmentWriter& writer) { writer.SetMetadata(item); });
}

// Frames

mp4_status_t RecorderState::Put(FrameKind kind, const uint8_t* bytes, uint32_t size, uint64_t pts,
                                uint64_t dts, bool key) {
    const std::shared_ptr<Recording> recording = Current();
    if (recording == nullptr) return MP4_STATUS_FILE_NOT_OPEN;
    FrameHeader header;
    header.kind = kind;
    header.size = size;
    header.pts = static_cast<int64_t>(pts);
    header.dts = static_cast<int64_t>(dts);
    header.key = key;
    return recording->Put(header, bytes);
}

mp4_status_t RecorderState::WriteVideoFrame(const uint8_t* bytes, uint32_t size, uint64_t pts,
                                            uint64_t dts) {
    if (bytes == nullptr || size == 0) return MP4_STATUS_INVALID_PARAMETER;
    const int codec = m_codec.load();
    if (codec == MP4_MVC_UNKNOWN)
        return Current() == nullptr ? MP4_STATUS_FILE_NOT_OPEN : MP4_STATUS_INVALID_VIDEO_TRACK;
    const auto known = static_cast<mp4_video_codec>(codec);
    const PictureLook look =
        m_hasLengths ? LookAtLengths(known, bytes, size) : LookAtPicture(known, bytes, size);
    if (!look.valid) return MP4_STATUS_INVALID_VIDEO_STREAM;
    return Put(FrameKind::kVideo, bytes, size, pts, dts, look.key);
}

mp4_status_t RecorderState::WriteAudioFrame(const uint8_t* bytes, uint32_t size, uint64_t time) {
    if (bytes == nullptr || size == 0) return MP4_STATUS_INVALID_PARAMETER;
    if (!m_hasAudio)
        return Current() == nullptr ? MP4_STATUS_FILE_NOT_OPEN : MP4_STATUS_INVALID_PARAMETER;
    return Put(FrameKind::kAudio, bytes, size, time, time, true);
}

mp4_status_t RecorderState::WriteSubtitleFrame(const uint8_t* bytes, uint32_t size, uint64_t time) {
    if (bytes == nullptr || size == 0) return MP4_STATUS_INVALID_PARAMETER;
    if (!m_hasCaptions)
        return Current() == nullptr ? MP4_STATUS_FILE_NOT_OPEN : MP4_STATUS_INVALID_SUBTITLE_TYPE;
    return Put(FrameKind::kCaption, bytes, size, time, time, false);
}

mp4_status_t RecorderState::WriteTimeCode(int count) {
    const auto bits = static_cast<uint64_t>(int64_t{count});
    return Put(FrameKind::kTimecode, nullptr, 0, bits, bits, false);
}

mp4_status_t RecorderState::Cut() {
    return DoWithWriter([](SegmentWriter& writer) { writer.Cut(); });
}

mp4_status_t RecorderState::Pause() {
    const std::shared_ptr<Recording> recording = Current();
    if (recording == nullptr) return MP4_STATUS_FILE_NOT_OPEN;
    recording->SetPaused(true);
    return recording->Do([] {});
}

mp4_status_t RecorderState::Resume() {
    const mp4_status_t status = DoWithWriter([](SegmentWriter& writer) { writer.Resume(); });
    if (status == MP4_STATUS_SUCCESS) Current()->SetPaused(false);
    return status;
}

RecorderStatistics RecorderState::Statistics() const {
    const std::shared_ptr<Recording> recording = Current();
    return recording != nullptr ? recording->Statistics() : RecorderStatistics();
}

}  // namespace kx_mp4
