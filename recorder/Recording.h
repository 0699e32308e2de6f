/// @file
/// One recording from Start to Stop: the queue, the writer and the pusher.
#ifndef KX_MP4_RECORDER_RECORDING_H
#define KX_MP4_RECORDER_RECORDING_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "FrameRing.h"
#include "RecordingShare.h"
#include "SegmentWriter.h"

namespace kx_mp4 {

/// Pushes what was written to the device, every so often, on a thread of its own.
class Pusher {
public:
    explicit Pusher(RecordingShare& share);
    ~Pusher();
    Pusher(const Pusher&) = delete;
    Pusher& operator=(const Pusher&) = delete;

private:
    void Run();
    void PushAll();

    RecordingShare& m_share;
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_ending = false;
    std::thread m_thread;
};

/// Any thread, unless something else is said.
class Recording {
public:
    Recording(const RecorderOptions& options, IStorage& storage);
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;
    /// Waits for everything.
    ~Recording();

    /// Opens the first file and begins.
    mp4_status_t Start();
    RecorderReport Stop(uint32_t limitMs);
    /// Whether all threads are done.
    bool IsDone();

    mp4_status_t Put(FrameHeader header, const uint8_t* bytes);
    mp4_status_t Do(FrameRing::Command command);
    SegmentWriter& Writer() { return m_writer; }
    void SetPaused(bool paused) { m_ring.SetPaused(paused); }
    RecorderStatistics Statistics() const;
    /// What an operation answers now that the recording takes no more.
    mp4_status_t Ended() const;

private:
    void Run();
    void Drain();
    FrameRing::Clock::time_point Deadline(int64_t arrival) const;

    RecordingShare m_share;
    FrameRing m_ring;
    SegmentWriter m_writer;
    std::atomic<bool> m_givingUp{false};
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_done = true;
    std::thread m_thread;
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_RECORDING_H
