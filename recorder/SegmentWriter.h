/// @file
/// What becomes of a frame when its turn comes: into which file it goes, and where files begin.
#ifndef KX_MP4_RECORDER_SEGMENTWRITER_H
#define KX_MP4_RECORDER_SEGMENTWRITER_H

#include <array>
#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FrameRing.h"
#include "NextSegment.h"
#include "RecordingShare.h"
#include "Segment.h"
#include "Timeline.h"

namespace kx_mp4 {

/// Everything runs on the writer's thread, but for `Times`.
///
/// The leading track is the video, or the sound where there is no video. A file begins at a frame
/// of it that can be decoded alone; a frame of another track goes into the last file that begins
/// no later than it. So a file stays open past a cut until the other tracks have come as far, and
/// sound that runs ahead of the picture is held while a cut is near.
class SegmentWriter {
public:
    explicit SegmentWriter(RecordingShare& share);
    SegmentWriter(const SegmentWriter&) = delete;
    SegmentWriter& operator=(const SegmentWriter&) = delete;
    ~SegmentWriter() = default;

    /// Opens the first file.
    mp4_status_t OpenFirst();

    // What the application asks for, in its place between the frames.

    void DeclareVideo(const mp4_video_track_info_t& info, bool hasLengths);
    void DeclareAudio(const mp4_audio_track_info_t& info);
    void DeclareCaptions(const mp4_subtitle_track_info_t& info);
    void DeclareTimecode(const mp4_time_code_track_info_t& info);
    void SetMetadata(const MetadataItem& item);
    void Cut() { Arm(SegmentReason::kCommand); }
    void Resume() { m_times.Resume(); }

    /// Writes a frame, holds it or drops it.
    void Take(const QueuedFrame& frame);
    /// Hands everything to the system.
    void Flush();
    /// Finishes all files.
    void Finish();

    const Timeline& Times() const { return m_times; }

private:
    /// A frame that waits until it is known into which file it goes.
    struct Held {
        FrameKind kind;
        FrameTimes times;
        int64_t arrival;
        std::vector<uint8_t> bytes;
    };

    bool Leads(FrameKind kind) const { return kind == m_tracks.Leader(); }
    void TakeLeading(const QueuedFrame& frame, const FrameTimes& times);
    bool CanTakeLeading() const;
    void TakeOther(const QueuedFrame& frame, const FrameTimes& times);
    void TakeTimecode(int64_t count);
    void DeclareLate();

    void Arm(SegmentReason reason);
    void CheckLimits(const FrameHeader& frame, int64_t time);
    int64_t LeaderMs(int64_t ticks) const;
    bool CutAt(int64_t time);
    int64_t Origin(int64_t time) const;
    std::unique_ptr<Segment> OpenNext(mp4_status_t& status);
    template <class Try>
    void TryForRoom(const Segment* kept, Try&& attempt);
    std::time_t Due() const;

    bool ShouldHold(FrameKind kind, int64_t time) const;
    void Hold(const QueuedFrame& frame, const FrameTimes& times);
    void ReleaseHeld(bool all);
    Segment* Route(FrameKind kind, int64_t time);
    void Write(Segment& segment, FrameKind kind, const uint8_t* bytes, uint32_t size,
               const FrameTimes& times);
    bool HasRoom(Segment& segment, uint32_t size);
    void TakeFailure(Segment& segment, mp4_status_t status);
    void GiveUp(Segment& segment);
    void FinishPassed(int64_t time);
    void NoteFlushed();

    RecordingShare& m_share;
    TrackSet m_tracks;
    bool m_hasLengths = false;
    Timeline m_times;
    NextSegment m_next;
    std::deque<std::unique_ptr<Segment>> m_segments;  // the newest is the last
    std::array<int64_t, 3> m_passed{};                // newest time of each kind
    std::optional<SegmentReason> m_armed;             // the next file begins at the next key frame
    bool m_near = false;                              // or soon
    bool m_anySegment = false;
    bool m_lost = false;          // the newest file could not be written
    int64_t m_limitStart = 0;     // of the segment that runs, ticks of the leading track
    std::time_t m_wallClock = 0;  // when the next one is due by the clock
    std::optional<int64_t> m_pendingTimecode;
    std::deque<Held> m_held;
    uint64_t m_heldBytes = 0;
    int64_t m_lastArrival = 0;  // of the last frame taken
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_SEGMENTWRITER_H
