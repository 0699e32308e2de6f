#include "Segment.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "SegmentName.h"
#include "Ticks.h"

namespace kx_mp4 {
namespace {

constexpr uint64_t kSlack = uint64_t{256} << 10;
constexpr uint32_t kCaptionTimescale = 1000;

size_t IndexOf(FrameKind kind) {
    return static_cast<size_t>(kind);
}

/// Rounded down: a time that is exact in every timescale.
int64_t WholeSeconds(int64_t ticks, uint32_t timescale) {
    const int64_t seconds = ticks / timescale;
    return ticks < seconds * timescale ? seconds - 1 : seconds;
}

/// The count of frames that a timecode shows this long after it was given.
int64_t CountAfter(int64_t passed, int64_t timescale, const mp4_time_code_track_info_t& info) {
    if (info.frame_duration == 0 || info.timescale == 0) return 0;
    const int64_t ticks = Rescaled(passed, timescale, info.timescale);
    const auto frame = static_cast<int64_t>(info.frame_duration);
    return (ticks + frame / 2) / frame;
}

}  // namespace

bool TrackSet::Has(FrameKind kind) const {
    switch (kind) {
        case FrameKind::kVideo:
            return video.IsDeclared();
        case FrameKind::kAudio:
            return audio.has_value();
        case FrameKind::kCaption:
            return captions.has_value();
        default:
            return timecode.has_value();
    }
}

uint32_t TrackSet::Timescale(FrameKind kind) const {
    if (!Has(kind)) return 1;
    switch (kind) {
        case FrameKind::kVideo:
            return video.Info().timescale;
        case FrameKind::kAudio:
            return audio->timescale;
        case FrameKind::kCaption:
            return captions->timescale != 0 ? captions->timescale : kCaptionTimescale;
        default:
            return 1;
    }
}

uint64_t TrackSet::UsualStep(FrameKind kind) const {
    if (kind == FrameKind::kVideo && video.IsDeclared()) return video.Info().frame_duration;
    return kind == FrameKind::kAudio && audio ? audio->frame_duration : 0;
}

/// A frame takes at least a slot of the queue, which is more than its entries in the tables; a
/// length is at most a quarter longer than the shortest unit behind a start code.
uint64_t Segment::Headroom(uint64_t queueBytes, uint64_t indexBytes) {
    return queueBytes + queueBytes / 2 + 2 * indexBytes + kSlack;
}

Segment::Segment(RecordingShare& share, std::shared_ptr<SegmentFile> file, uint64_t number,
                 std::time_t due)
    : m_share(share), m_file(std::move(file)) {
    m_info.number = number;
    m_info.due = due;
    m_info.path = m_file->Path();
}

std::unique_ptr<Segment> Segment::Open(RecordingShare& share, uint64_t number, std::time_t due,
                                       mp4_status_t& status) {
    const RecorderOptions& options = share.options;
    const std::string wanted =
        options.name ? options.name(number, due) : ExpandName(options.pattern, number, due);
    status = MP4_STATUS_INVALID_PARAMETER;
    if (wanted.empty()) return nullptr;
    const std::string path = FreeName(share.storage, wanted);
    int error = 0;
    auto file = share.storage.Create(path, error);
    status = StatusOfError(error);
    if (file == nullptr) return nullptr;
    auto output = std::make_shared<SegmentFile>(share.storage, share.files, std::move(file), path,
                                                options.reserve_bytes);
    std::unique_ptr<Segment> segment(new Segment(share, std::move(output), number, due));
    status = StatusOfError(segment->m_file->Ensure(Headroom(options.queue_bytes, 0)));
    if (status == MP4_STATUS_SUCCESS) status = segment->CreateMuxer();
    if (status != MP4_STATUS_SUCCESS) {
        segment->RemoveEmpty();
        return nullptr;
    }
    if (options.push_ms != 0) share.storage.PushFolder(path);
    return segment;
}

mp4_status_t Segment::CreateMuxer() {
    const RecorderOptions& options = m_share.options;
    mp4_status_t status =
        m_muxer.Create(m_info.path, options.container, options.flags, m_file->Callbacks());
    if (status != MP4_STATUS_SUCCESS) return status;
    m_repairInfo = m_share.HasRepairInfo();
    if (options.composition_offsets) status = m_muxer.SetCompositionOffsets(true);
    if (status == MP4_STATUS_SUCCESS && options.start_times) status = m_muxer.SetTimeline(true);
    if (status == MP4_STATUS_SUCCESS && options.all_parameter_sets)
        status = m_muxer.SetAllParameterSets(true);
    if (status == MP4_STATUS_SUCCESS && options.live_index_ms != 0)
        status = m_muxer.SetLiveIndex(options.live_index_ms);
    if (status == MP4_STATUS_SUCCESS && options.configure) status = options.configure(m_muxer);
    return status;
}

mp4_status_t Segment::Begin(const TrackSet& tracks, SegmentReason reason, int64_t start,
                            int64_t origin) {
    m_info.reason = reason;
    const FrameKind leader = tracks.Leader();
    const int64_t second = WholeSeconds(origin, tracks.Timescale(leader));
    for (const FrameKind kind :
         {FrameKind::kVideo, FrameKind::kAudio, FrameKind::kCaption, FrameKind::kTimecode}) {
        m_has[IndexOf(kind)] = tracks.Has(kind);
        m_start[IndexOf(kind)] = Rescaled(start, tracks.Timescale(leader), tracks.Timescale(kind));
        m_origin[IndexOf(kind)] = second * tracks.Timescale(kind);
        m_tracks[IndexOf(kind)].step =
            std::max<int64_t>(static_cast<int64_t>(tracks.UsualStep(kind)), 1);
    }
    mp4_status_t status = MP4_STATUS_SUCCESS;
    const auto declare = [&status](mp4_status_t declared) {
        if (status == MP4_STATUS_SUCCESS) status = declared;
    };
    if (tracks.video.IsDeclared()) declare(DeclareVideo(tracks.video));
    if (tracks.audio) declare(m_muxer.SetAudioTrack(&*tracks.audio));
    if (tracks.captions) declare(m_muxer.SetSubtitleTrack(&*tracks.captions));
    if (tracks.timecode) declare(m_muxer.SetTCMDTrack(&*tracks.timecode));
    for (const MetadataItem& item : tracks.metadata)
        declare(SetMetadata(item));
    if (tracks.timecode && tracks.timecodePoint) declare(WriteTimecode(tracks, start));
    if (status != MP4_STATUS_SUCCESS && IsWhole() && LostRepairInfo())
        status = MP4_STATUS_SUCCESS;  // the movie is not touched by it
    m_begun = status == MP4_STATUS_SUCCESS;
    if (!m_begun) return status;
    ++m_share.segmentsBegun;
    m_share.AddLive(m_file);
    return status;
}

/// What was sent once, in an earlier segment, is needed in this one, too.
mp4_status_t Segment::DeclareVideo(const VideoDescription& video) {
    mp4_status_t status = m_muxer.SetVideoTrack(&video.Info());
    if (!m_share.options.all_parameter_sets) return status;
    video.FurtherSets().ForEach([&](const FurtherParameterSets::Set& set) {
        if (status == MP4_STATUS_SUCCESS)
            status = m_muxer.AddParameterSet(set.data(), static_cast<uint32_t>(set.size()));
    });
    return status;
}

mp4_status_t Segment::WriteTimecode(const TrackSet& tracks, int64_t start) {
    const TimecodePoint& point = *tracks.timecodePoint;
    int64_t count = point.count + CountAfter(start - point.time, tracks.Timescale(tracks.Leader()),
                                             *tracks.timecode);
    constexpr int kWrapsAtMidnight = 2;
    constexpr int64_t kDaySeconds = 86400;
    const int64_t day = kDaySeconds * tracks.timecode->frame_rate;
    if ((tracks.timecode->flags & kWrapsAtMidnight) != 0 && day != 0) count %= day;
    return m_muxer.WriteTimeCode(static_cast<int>(count));
}

int Segment::Ensure(uint64_t frameBytes) {
    return m_file->Ensure(frameBytes + frameBytes / 4 +
                          Headroom(m_share.options.queue_bytes, m_muxer.GetMoovSize()));
}

mp4_status_t Segment::Write(FrameKind kind, const uint8_t* bytes, uint32_t size,
                            const FrameTimes& times) {
    const auto pts = static_cast<uint64_t>(times.pts - m_origin[IndexOf(kind)]);
    const auto dts = static_cast<uint64_t>(times.dts - m_origin[IndexOf(kind)]);
    mp4_status_t status = MP4_STATUS_SUCCESS;
    if (kind == FrameKind::kVideo)
        status = m_muxer.WriteVideoFrame(bytes, size, pts, dts);
    else if (kind == FrameKind::kAudio)
        status = m_muxer.WriteAudioFrame(bytes, size, dts);
    else
        status = m_muxer.WriteSubtitleFrame(bytes, size, dts);
    if (status == MP4_STATUS_SUCCESS || (m_repairInfo && !m_muxer.IsRepairInfoActive()))
        Note(kind, size, times.dts);
    return status;
}

void Segment::Note(FrameKind kind, uint32_t size, int64_t time) {
    Track& track = m_tracks[IndexOf(kind)];
    if (track.samples == 0) track.first = time;
    if (track.samples != 0) track.step = time - track.last;
    track.last = time;
    ++track.samples;
    m_mediaBytes += size;
    m_share.framesWritten.fetch_add(1, std::memory_order_relaxed);
}

mp4_status_t Segment::SetMetadata(const MetadataItem& item) {
    const char* const space = item.keySpace.empty() ? nullptr : item.keySpace.c_str();
    return m_muxer.SetMetadata(item.key.c_str(), item.data.c_str(),
                               static_cast<uint32_t>(item.data.size()), item.type, space);
}

bool Segment::LostRepairInfo() {
    return m_repairInfo && !m_muxer.IsRepairInfoActive() && std::exchange(m_repairInfo, false);
}

SegmentTrack Segment::Told(FrameKind kind, const mp4_track_statistics_t& written) const {
    const Track& track = m_tracks[IndexOf(kind)];
    if (track.samples == 0) return {};
    return {track.samples, written.bytes, track.first, track.last + track.step};
}

void Segment::RemoveEmpty() {
    m_muxer.Close();
    m_file->BeginFinish();
    m_share.storage.Remove(m_info.path);
    if (m_share.HasRepairInfo()) m_share.storage.Remove(m_info.path + ".info");
}

void Segment::Finish() {
    const bool empty = std::all_of(m_tracks.begin(), m_tracks.end(),
                                   [](const Track& track) { return track.samples == 0; });
    if (empty) {
        RemoveEmpty();
        m_share.RemoveLive(m_file);
        return;
    }
    m_file->BeginFinish();
    mp4_status_t status = m_muxer.Close();
    const int ended = m_file->EndFinish();
    if (status == MP4_STATUS_SUCCESS) status = StatusOfError(ended);
    if (status == MP4_STATUS_SUCCESS) {
        ++m_share.segmentsFinished;
        status = StatusOfError(m_file->PushError());
        if (status == MP4_STATUS_SUCCESS) m_share.AddFinished(m_info.path);
    }
    m_share.RemoveLive(m_file);
    if (m_share.options.push_ms != 0) m_share.storage.PushFolder(m_info.path);
    m_info.status = status;
    m_info.bytes = m_file->Size();
    mp4_statistics_t written{};
    written.struct_size = sizeof written;
    m_muxer.GetStatistics(&written);
    m_info.video = Told(FrameKind::kVideo, written.video);
    m_info.audio = Told(FrameKind::kAudio, written.audio);
    m_info.captions = Told(FrameKind::kCaption, written.captions);
    if (status != MP4_STATUS_SUCCESS) m_share.Fail(status, m_info.path, "the file is not finished");
    m_share.TellFinished(m_info);
}

}  // namespace kx_mp4
