#include "SegmentWriter.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "SegmentName.h"
#include "Ticks.h"

namespace kx_mp4 {
namespace {

/// Before a limit: the next file is opened, and sound that is ahead is held.
constexpr int64_t kNearMs = 2000;
/// After a cut: how long the file before waits for sound of its time.
constexpr int64_t kLingerMs = 2000;
/// Of sound that is held.
constexpr int64_t kHeldMs = 2000;
constexpr size_t kMostOpen = 32;

/// The wall-clock time of a call that was made at `arrival`.
std::time_t WallClockOf(int64_t arrival) {
    using std::chrono::system_clock;
    const auto age =
        std::chrono::steady_clock::now().time_since_epoch() - std::chrono::nanoseconds(arrival);
    return system_clock::to_time_t(system_clock::now() -
                                   std::chrono::duration_cast<system_clock::duration>(age));
}

}  // namespace

SegmentWriter::SegmentWriter(RecordingShare& share)
    : m_share(share), m_times(share.options.jump_ms), m_next(share) {}

mp4_status_t SegmentWriter::OpenFirst() {
    const std::time_t now = std::time(nullptr);
    if (m_share.options.segment_wall_clock_s != 0)
        m_wallClock = NextWallClock(now, m_share.options.segment_wall_clock_s);
    mp4_status_t status = MP4_STATUS_SUCCESS;
    std::unique_ptr<Segment> segment = OpenNext(status);
    if (segment == nullptr) return status;
    m_segments.push_back(std::move(segment));
    return MP4_STATUS_SUCCESS;
}

// What the application asks for

void SegmentWriter::DeclareLate() {
    if (!m_segments.empty() && m_segments.back()->IsBegun()) Arm(SegmentReason::kTrack);
}

void SegmentWriter::DeclareVideo(const mp4_video_track_info_t& info, bool hasLengths) {
    m_tracks.video.Declare(info);
    m_hasLengths = hasLengths;
    m_times.Declare(FrameKind::kVideo, info.timescale, info.frame_duration);
    DeclareLate();
}

void SegmentWriter::DeclareAudio(const mp4_audio_track_info_t& info) {
    m_tracks.audio = info;
    m_times.Declare(FrameKind::kAudio, info.timescale, info.frame_duration);
    DeclareLate();
}

void SegmentWriter::DeclareCaptions(const mp4_subtitle_track_info_t& info) {
    m_tracks.captions = info;
    m_times.Declare(FrameKind::kCaption, m_tracks.Timescale(FrameKind::kCaption), 0);
    DeclareLate();
}

void SegmentWriter::DeclareTimecode(const mp4_time_code_track_info_t& info) {
    m_tracks.timecode = info;
    DeclareLate();
}

void SegmentWriter::SetMetadata(const MetadataItem& item) {
    m_tracks.metadata.push_back(item);
    for (const auto& segment : m_segments)
        if (segment->IsBegun()) segment->SetMetadata(item);
}

// Frames

void SegmentWriter::Take(const QueuedFrame& frame) {
    m_lastArrival = frame.header.arrival;
    const FrameKind kind = frame.header.kind;
    if (kind == FrameKind::kTimecode) {
        TakeTimecode(frame.header.dts);
        return;
    }
    if (kind == FrameKind::kVideo && m_hasLengths)
        LengthsToStartCodes(frame.bytes, frame.header.size);
    const std::optional<FrameTimes> times = m_times.Place(frame.header);
    if (!times) {
        ++m_share.drops.paused;
        return;
    }
    m_passed[static_cast<size_t>(kind)] = times->dts;
    if (Leads(kind))
        TakeLeading(frame, *times);
    else
        TakeOther(frame, *times);
}

/// It stands for the next picture.
void SegmentWriter::TakeTimecode(int64_t count) {
    const int64_t time = m_times.End(m_tracks.Leader()).value_or(0);
    m_tracks.timecodePoint = TimecodePoint{count, time};
    m_pendingTimecode.reset();
    if (!m_times.End(m_tracks.Leader())) m_pendingTimecode = count;
}

void SegmentWriter::TakeLeading(const QueuedFrame& frame, const FrameTimes& times) {
    const FrameHeader& header = frame.header;
    if (header.kind == FrameKind::kVideo && m_tracks.video.Take(frame.bytes, header.size))
        Arm(SegmentReason::kParameterSets);
    if (m_pendingTimecode) {
        m_tracks.timecodePoint = TimecodePoint{*m_pendingTimecode, times.dts};
        m_pendingTimecode.reset();
    }
    CheckLimits(header, times.dts);
    const bool begins = m_armed || !CanTakeLeading();
    const bool describable = header.kind != FrameKind::kVideo || m_tracks.video.IsComplete();
    if (begins && header.key && describable && !m_share.IsFull() && CutAt(times.dts))
        CheckLimits(header, times.dts);
    if (!CanTakeLeading()) {
        ++(m_anySegment ? m_share.drops.writeError : m_share.drops.beforeKey);
        return;
    }
    Write(*m_segments.back(), header.kind, frame.bytes, static_cast<uint32_t>(header.size), times);
    ReleaseHeld(false);
    FinishPassed(times.dts);
}

bool SegmentWriter::CanTakeLeading() const {
    return !m_lost && !m_segments.empty() && m_segments.back()->IsBegun();
}

void SegmentWriter::TakeOther(const QueuedFrame& frame, const FrameTimes& times) {
    const FrameKind kind = frame.header.kind;
    if (ShouldHold(kind, times.dts)) {
        Hold(frame, times);
        return;
    }
    if (Segment* const segment = Route(kind, times.dts))
        Write(*segment, kind, frame.bytes, static_cast<uint32_t>(frame.header.size), times);
    else
        ++m_share.drops.writeError;
}

// Where files begin

void SegmentWriter::Arm(SegmentReason reason) {
    if (m_armed) return;
    m_armed = reason;
    m_near = true;
    m_next.Prepare(Due());
    m_share.AskForKeyFrame();
}

int64_t SegmentWriter::LeaderMs(int64_t ticks) const {
    return Rescaled(ticks, m_tracks.Timescale(m_tracks.Leader()), kMilliseconds);
}

/// The time in the next file's name: when it is due by its limit, or now.
std::time_t SegmentWriter::Due() const {
    const std::time_t now = std::time(nullptr);
    if (m_armed) return m_armed == SegmentReason::kWallClock ? m_wallClock : now;
    if (m_wallClock != 0 && m_wallClock > now) return m_wallClock;
    if (m_share.options.segment_ms == 0) return now;
    const auto passed = m_times.End(m_tracks.Leader()).value_or(m_limitStart) - m_limitStart;
    const auto limit = static_cast<int64_t>(m_share.options.segment_ms);
    return now + std::max<int64_t>(limit - LeaderMs(passed) + kMilliseconds / 2, 0) / kMilliseconds;
}

void SegmentWriter::CheckLimits(const FrameHeader& frame, int64_t time) {
    if (m_segments.empty() || !m_segments.back()->IsBegun() || m_share.IsFull()) return;
    const RecorderOptions& options = m_share.options;
    Segment& segment = *m_segments.back();
    if (segment.File().PushError() != 0) Arm(SegmentReason::kPushFailed);
    if (options.segment_ms != 0) {
        const auto limit = static_cast<int64_t>(options.segment_ms);
        const int64_t passed = LeaderMs(time - m_limitStart);
        if (passed >= limit) Arm(SegmentReason::kTime);
        m_near = m_near || passed + kNearMs >= limit;
    }
    if (options.segment_bytes != 0) {
        const uint64_t bytes = segment.MediaBytes() + frame.size;
        if (segment.MediaBytes() >= options.segment_bytes) Arm(SegmentReason::kSize);
        m_near = m_near || bytes >= options.segment_bytes - options.segment_bytes / 8;
    }
    if (m_wallClock != 0) {
        const std::time_t now = WallClockOf(frame.arrival);
        if (now >= m_wallClock) Arm(SegmentReason::kWallClock);
        m_near = m_near || now + kNearMs / kMilliseconds >= m_wallClock;
    }
    if (m_near) m_next.Prepare(Due());
}

/// Tries until it no longer answers that there is no room: again when the files before `kept` and
/// one that is open ahead have given back what they do not need and, when that is wanted, without
/// the oldest finished ones.
template <class Try>
void SegmentWriter::TryForRoom(const Segment* kept, Try&& attempt) {
    if (attempt() != MP4_STATUS_NO_SPACE_LEFT) return;
    while (!m_segments.empty() && m_segments.front().get() != kept) {
        m_next.Finish(std::move(m_segments.front()));
        m_segments.pop_front();
    }
    m_next.End();
    const bool deletes = m_share.options.on_disk_full == DiskFull::kDeleteOldest;
    while (attempt() == MP4_STATUS_NO_SPACE_LEFT)
        if (!deletes || !m_share.DeleteOldest()) return;
}

std::unique_ptr<Segment> SegmentWriter::OpenNext(mp4_status_t& status) {
    std::unique_ptr<Segment> segment;
    const std::time_t due = Due();
    TryForRoom(m_segments.empty() ? nullptr : m_segments.back().get(), [&] {
        segment = m_next.Take(due, status);
        return status;
    });
    return segment;
}

/// Sound that came before the first picture is in the first file.
int64_t SegmentWriter::Origin(int64_t time) const {
    const uint32_t timescale = m_tracks.Timescale(m_tracks.Leader());
    int64_t origin = time;
    for (const Held& held : m_held) {
        const uint32_t own = m_tracks.Timescale(held.kind);
        const bool before = held.times.dts < Rescaled(time, timescale, own);
        // One tick less, as what was rescaled is rounded up.
        if (before) origin = std::min(origin, Rescaled(held.times.dts, own, timescale) - 1);
    }
    return origin;
}

/// When no file can be had, the one before goes on, if there is one.
bool SegmentWriter::CutAt(int64_t time) {
    const SegmentReason reason =
        m_armed.value_or(m_anySegment ? SegmentReason::kWriteFailed : SegmentReason::kStart);
    const bool first = !m_segments.empty() && !m_segments.back()->IsBegun();
    if (!first) {
        mp4_status_t status = MP4_STATUS_SUCCESS;
        std::unique_ptr<Segment> next = OpenNext(status);
        if (next == nullptr) {
            m_armed.reset();
            m_limitStart = time;
            const std::string path = m_segments.empty() ? "" : m_segments.back()->File().Path();
            if (status == MP4_STATUS_NO_SPACE_LEFT)
                m_share.DiskFull(path);
            else
                m_share.Fail(status, path, "the next file cannot be opened");
            return false;
        }
        m_segments.push_back(std::move(next));
    }
    Segment& segment = *m_segments.back();
    const mp4_status_t status = segment.Begin(m_tracks, reason, time, first ? Origin(time) : time);
    if (status != MP4_STATUS_SUCCESS) {
        m_share.Fail(status, segment.File().Path(), "the file cannot be described");
        m_next.Finish(std::move(m_segments.back()));
        m_segments.pop_back();
        m_anySegment = true;
        return false;
    }
    m_anySegment = true;
    m_lost = false;
    m_armed.reset();
    m_near = false;
    m_limitStart = time;
    const std::time_t now = WallClockOf(m_lastArrival);
    if (m_wallClock != 0 && now >= m_wallClock)
        m_wallClock = NextWallClock(now, m_share.options.segment_wall_clock_s);
    return true;
}

// Sound and captions

/// Before the first picture, and past the last one while a cut is near.
bool SegmentWriter::ShouldHold(FrameKind kind, int64_t time) const {
    if (m_share.IsFull()) return false;
    if (!m_segments.empty() && !m_segments.back()->IsBegun()) return true;
    if (!m_near && !m_armed) return false;
    const FrameKind leader = m_tracks.Leader();
    const std::optional<int64_t> end = m_times.End(leader);
    return end && time >= Rescaled(*end, m_tracks.Timescale(leader), m_tracks.Timescale(kind));
}

void SegmentWriter::Hold(const QueuedFrame& frame, const FrameTimes& times) {
    const FrameHeader& header = frame.header;
    m_held.push_back({header.kind, times, header.arrival,
                      std::vector<uint8_t>(frame.bytes, frame.bytes + header.size)});
    m_heldBytes += header.size;
    const Held& oldest = m_held.front();
    const int64_t heldMs =
        oldest.kind == header.kind
            ? Rescaled(times.dts - oldest.times.dts, m_tracks.Timescale(header.kind), kMilliseconds)
            : 0;
    if (heldMs <= kHeldMs && m_heldBytes <= m_share.options.queue_bytes / 4) return;
    // No picture comes: a file of sound begins, and the pictures will begin another.
    if (!m_segments.empty() && !m_segments.back()->IsBegun() && !m_share.IsFull()) {
        const FrameKind leader = m_tracks.Leader();
        CutAt(Rescaled(oldest.times.dts, m_tracks.Timescale(oldest.kind),
                       m_tracks.Timescale(leader)));
        if (!Leads(oldest.kind)) Arm(SegmentReason::kTrack);
    }
    ReleaseHeld(true);
}

void SegmentWriter::ReleaseHeld(bool all) {
    size_t count = m_held.size();
    while (count-- != 0) {
        Held held = std::move(m_held.front());
        m_held.pop_front();
        if (!all && ShouldHold(held.kind, held.times.dts)) {
            m_held.push_back(std::move(held));
            continue;
        }
        m_heldBytes -= held.bytes.size();
        if (Segment* const segment = Route(held.kind, held.times.dts))
            Write(*segment, held.kind, held.bytes.data(), static_cast<uint32_t>(held.bytes.size()),
                  held.times);
        else
            ++m_share.drops.writeError;
    }
}

Segment* SegmentWriter::Route(FrameKind kind, int64_t time) {
    for (auto segment = m_segments.rbegin(); segment != m_segments.rend(); ++segment)
        if ((*segment)->IsBegun() && (*segment)->Reaches(kind, time)) return segment->get();
    if (m_segments.empty() || !m_segments.front()->IsBegun()) return nullptr;
    if (m_share.segmentsBegun.load() > m_segments.size()) ++m_share.lateFrames;
    return m_segments.front().get();
}

/// A file is done when the other tracks have come as far as the next one, or do not.
void SegmentWriter::FinishPassed(int64_t time) {
    while (m_segments.size() > 1) {
        const Segment& next = *m_segments[1];
        const FrameKind leader = m_tracks.Leader();
        bool passed =
            LeaderMs(time - next.Start(leader)) >= kLingerMs || m_segments.size() > kMostOpen;
        if (!passed) {
            passed = true;
            for (const FrameKind kind : {FrameKind::kAudio, FrameKind::kCaption})
                if (!Leads(kind) && m_segments.front()->Has(kind))
                    passed = passed && next.Reaches(kind, m_passed[static_cast<size_t>(kind)]);
        }
        if (!passed) return;
        m_next.Finish(std::move(m_segments.front()));
        m_segments.pop_front();
    }
}

// Into the file

/// Whether there is room for the frame and for all that may follow. When there is none, the disk is
/// full, and what was taken still fits.
bool SegmentWriter::HasRoom(Segment& segment, uint32_t size) {
    if (m_share.IsFull()) return false;
    int error = 0;
    TryForRoom(&segment, [&] {
        error = segment.Ensure(size);
        return StatusOfError(error);
    });
    if (error == 0) return true;
    m_share.DiskFull(segment.File().Path());
    return false;
}

void SegmentWriter::Write(Segment& segment, FrameKind kind, const uint8_t* bytes, uint32_t size,
                          const FrameTimes& times) {
    if (!segment.Has(kind)) {
        ++m_share.drops.lateTrack;
        return;
    }
    HasRoom(segment, size);
    const mp4_status_t status = segment.Write(kind, bytes, size, times);
    if (status != MP4_STATUS_SUCCESS) TakeFailure(segment, status);
}

void SegmentWriter::TakeFailure(Segment& segment, mp4_status_t status) {
    const std::string path = segment.File().Path();
    if (segment.LostRepairInfo()) {
        m_share.Fail(status, path, "the repair info file cannot be written");
    } else if (segment.IsWhole()) {
        ++m_share.drops.refused;
        m_share.Fail(status, path, "a frame is refused");
    } else {
        ++m_share.drops.writeError;
        m_share.Fail(status, path, "the file cannot be written");
        GiveUp(segment);
    }
}

/// The next key frame begins another file.
void SegmentWriter::GiveUp(Segment& segment) {
    if (segment.File().RanOut() && m_share.options.on_disk_full == DiskFull::kStop)
        m_share.DiskFull(segment.File().Path());
    const auto found = std::find_if(m_segments.begin(), m_segments.end(),
                                    [&](const auto& other) { return other.get() == &segment; });
    const bool newest = found + 1 == m_segments.end();
    m_next.Finish(std::move(*found));
    m_segments.erase(found);
    if (!newest) return;
    m_lost = true;
    m_share.AskForKeyFrame();
}

void SegmentWriter::Flush() {
    for (size_t i = m_segments.size(); i-- != 0;) {
        Segment& segment = *m_segments[i];
        const int error = segment.File().Flush();
        if (error == 0) continue;
        m_share.Fail(StatusOfError(error), segment.File().Path(), "the file cannot be written");
        GiveUp(segment);
    }
    NoteFlushed();
}

void SegmentWriter::NoteFlushed() {
    m_share.flushedArrival.store(m_held.empty() ? m_lastArrival : m_held.front().arrival - 1);
}

void SegmentWriter::Finish() {
    if (!m_held.empty() && !m_segments.empty() && !m_segments.back()->IsBegun()) {
        const Held& oldest = m_held.front();
        CutAt(Rescaled(oldest.times.dts, m_tracks.Timescale(oldest.kind),
                       m_tracks.Timescale(m_tracks.Leader())));
    }
    ReleaseHeld(true);
    for (auto& segment : m_segments)
        m_next.Finish(std::move(segment));
    m_segments.clear();
    m_next.End();
    m_share.WaitForEvents();
}

}  // namespace kx_mp4
