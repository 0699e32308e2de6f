/// @file
/// What the threads of one recording share.
#ifndef KX_MP4_RECORDER_RECORDINGSHARE_H
#define KX_MP4_RECORDER_RECORDINGSHARE_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "SegmentFile.h"
#include "Storage.h"
#include "TaskThread.h"
#include "kx_mp4/recorder.h"

namespace kx_mp4 {

/// #mp4_status_t of an errno value.
mp4_status_t StatusOfError(int error);

/// RecorderDrops, for several threads.
struct DropCounts {
    std::atomic<uint64_t> queueFull{0};
    std::atomic<uint64_t> dependent{0};
    std::atomic<uint64_t> beforeKey{0};
    std::atomic<uint64_t> paused{0};
    std::atomic<uint64_t> lateTrack{0};
    std::atomic<uint64_t> writeError{0};
    std::atomic<uint64_t> refused{0};
    std::atomic<uint64_t> stopped{0};
};

/// Lives as long as the threads. Everything is for any thread unless it says otherwise.
class RecordingShare {
public:
    RecordingShare(const RecorderOptions& given, IStorage& storageUsed)
        : options(given), storage(storageUsed) {}
    RecordingShare(const RecordingShare&) = delete;
    RecordingShare& operator=(const RecordingShare&) = delete;

    const RecorderOptions options;
    IStorage& storage;
    StorageFigures files;
    DropCounts drops;
    std::atomic<uint64_t> framesWritten{0};
    std::atomic<uint64_t> segmentsBegun{0};
    std::atomic<uint64_t> segmentsFinished{0};
    std::atomic<uint64_t> segmentsDeleted{0};
    std::atomic<uint64_t> lateFrames{0};
    /// Frames whose call is not after these moments (nanoseconds of the steady clock) are with the
    /// system, and on the device.
    std::atomic<int64_t> flushedArrival{0};
    std::atomic<int64_t> pushedArrival{0};

    bool HasRepairInfo() const { return (options.flags & MP4_FLAG_REPAIR_INFO) != 0; }

    /// Tells the application, and the next frame call.
    void Fail(mp4_status_t status, const std::string& path, const std::string& text);
    /// Does something on a thread of the recorder, which nothing that is thrown may end.
    template <class Step>
    void Guard(Step&& step) noexcept {
        try {
            step();
        } catch (...) {
            NoteFailure(MP4_STATUS_UNEXPECTED_ERROR);
        }
    }
    /// The disk is full: from now on every frame is refused.
    void DiskFull(const std::string& path);
    bool IsFull() const { return m_full.load(); }
    /// The failure that was not yet told to a frame call; tells it once.
    mp4_status_t TakeUntold();
    /// The first failure of the recording.
    mp4_status_t FirstFailure() const { return static_cast<mp4_status_t>(m_first.load()); }
    void AskForKeyFrame();
    void Tell(RecorderEventKind kind, mp4_status_t status, std::string path, std::string text);
    void TellFinished(const RecorderSegment& segment);
    /// Returns when everything was told.
    void WaitForEvents() { m_events.Wait(); }

    /// The pusher looks after the file from now on, and no longer.
    void AddLive(const std::shared_ptr<SegmentFile>& file);
    void RemoveLive(const std::shared_ptr<SegmentFile>& file);
    std::vector<std::shared_ptr<SegmentFile>> Live();

    /// A finished segment that may be deleted to make room.
    void AddFinished(const std::string& path);
    /// False when there is none.
    bool DeleteOldest();

private:
    void NoteFailure(mp4_status_t status) noexcept;

    std::mutex m_lock;
    std::vector<std::shared_ptr<SegmentFile>> m_live;
    std::deque<std::string> m_finished;
    std::atomic<int> m_untold{MP4_STATUS_SUCCESS};
    std::atomic<int> m_first{MP4_STATUS_SUCCESS};
    std::atomic<bool> m_full{false};
    TaskThread m_events;  // the application's functions
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_RECORDINGSHARE_H
