#include "Recording.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "QuietThread.h"
#include "Ticks.h"

namespace kx_mp4 {
namespace {

using std::chrono::milliseconds;

/// How long the writer waits for a frame before it hands everything to the system.
constexpr milliseconds kIdle{20};
/// How long it goes on without doing so.
constexpr milliseconds kFlushEvery{100};

int64_t Now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               FrameRing::Clock::now().time_since_epoch())
        .count();
}

}  // namespace

Pusher::Pusher(RecordingShare& share) : m_share(share), m_thread(QuietThread([this] { Run(); })) {}

Pusher::~Pusher() {
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_ending = true;
    }
    m_changed.notify_one();
    m_thread.join();
}

void Pusher::Run() {
    if (m_share.options.push_ms == 0) return;
    const milliseconds every(m_share.options.push_ms);
    auto next = FrameRing::Clock::now() + every;
    std::unique_lock<std::mutex> lock(m_lock);
    while (!m_changed.wait_until(lock, next, [this] { return m_ending; })) {
        lock.unlock();
        next = FrameRing::Clock::now() + every;
        m_share.Guard([this] { PushAll(); });
        lock.lock();
    }
}

/// The media before the repair info file, which speaks of it.
void Pusher::PushAll() {
    const int64_t flushed = m_share.flushedArrival.load();
    bool good = true;
    for (const auto& file : m_share.Live()) {
        const bool before = file->PushError() == 0;
        int error = file->Push();
        if (error == 0 && m_share.HasRepairInfo()) {
            error = m_share.storage.Push(file->Path() + ".info");
            if (error == ENOENT) error = 0;  // just finished
        }
        if (error != 0 && before)
            m_share.Fail(StatusOfError(error), file->Path(),
                         "the file cannot be pushed to the storage device");
        good = good && error == 0;
    }
    if (good) m_share.pushedArrival.store(flushed);
}

Recording::Recording(const RecorderOptions& options, IStorage& storage)
    : m_share(options, storage), m_ring(options.queue_bytes), m_writer(m_share) {}

Recording::~Recording() {
    m_ring.Close();
    if (m_thread.joinable()) m_thread.join();
}

mp4_status_t Recording::Start() {
    const mp4_status_t opened = m_writer.OpenFirst();
    if (opened != MP4_STATUS_SUCCESS) {
        m_ring.Close();
        return opened;
    }
    m_share.pushedArrival = Now();
    m_done = false;
    m_thread = QuietThread([this] { Run(); });
    return MP4_STATUS_SUCCESS;
}

void Recording::Run() {
    {
        const Pusher pusher(m_share);
        Drain();
        m_share.Guard([this] { m_writer.Finish(); });
    }
    const std::lock_guard<std::mutex> lock(m_lock);
    m_done = true;
    m_changed.notify_all();
}

void Recording::Drain() {
    auto flushed = FrameRing::Clock::now();
    QueuedFrame frame;
    while (!m_ring.IsAtEnd()) {
        bool there = false;
        m_share.Guard([&] { there = m_ring.Front(frame, kIdle); });
        if (there) {
            if (m_givingUp)
                ++(m_share.drops.stopped);
            else
                m_share.Guard([&] { m_writer.Take(frame); });
            m_ring.Pop();
        }
        if (m_share.IsFull()) m_ring.Close();
        const auto now = FrameRing::Clock::now();
        if (m_ring.Count() != 0 && now - flushed < kFlushEvery) continue;
        m_share.Guard([this] { m_writer.Flush(); });
        flushed = now;
    }
}

bool Recording::IsDone() {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_done;
}

RecorderReport Recording::Stop(uint32_t limitMs) {
    m_ring.Close();
    RecorderReport report;
    {
        std::unique_lock<std::mutex> lock(m_lock);
        const auto done = [this] { return m_done; };
        if (limitMs == 0) {
            m_changed.wait(lock, done);
        } else if (!m_changed.wait_for(lock, milliseconds(limitMs), done)) {
            report.frames_left = m_ring.Count();
            report.drained = report.frames_left == 0;
            m_givingUp = true;
        }
    }
    report.status = m_share.FirstFailure();
    report.segments = m_share.segmentsBegun.load();
    return report;
}

mp4_status_t Recording::Ended() const {
    return m_share.IsFull() ? MP4_STATUS_NO_SPACE_LEFT : MP4_STATUS_FILE_NOT_OPEN;
}

mp4_status_t Recording::Do(FrameRing::Command command) {
    return m_ring.PutCommand(std::move(command)) ? MP4_STATUS_SUCCESS : Ended();
}

FrameRing::Clock::time_point Recording::Deadline(int64_t arrival) const {
    const bool waits = m_share.options.on_queue_full == QueueFull::kWait;
    const auto limit = milliseconds(waits ? m_share.options.wait_ms : 0);
    return FrameRing::Clock::time_point(std::chrono::nanoseconds(arrival)) + limit;
}

mp4_status_t Recording::Put(FrameHeader header, const uint8_t* bytes) {
    header.arrival = Now();
    switch (m_ring.Put(header, bytes, Deadline(header.arrival))) {
        case FrameRing::Answer::kTaken:
            return m_share.TakeUntold();
        case FrameRing::Answer::kPaused:
            ++m_share.drops.paused;
            return m_share.TakeUntold();
        case FrameRing::Answer::kFull:
            ++m_share.drops.queueFull;
            return MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
        case FrameRing::Answer::kDependent:
            ++m_share.drops.dependent;
            return MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
        case FrameRing::Answer::kTooLarge:
            ++m_share.drops.queueFull;
            return MP4_STATUS_INVALID_PARAMETER;
        default:
            return Ended();
    }
}

RecorderStatistics Recording::Statistics() const {
    RecorderStatistics now;
    now.queue_capacity = m_ring.Capacity();
    now.queue_bytes = m_ring.Used();
    now.queue_peak = m_ring.Peak();
    now.frames_taken = m_ring.Taken();
    now.frames_written = m_share.framesWritten.load();
    now.bytes_written = m_share.files.bytes.load();
    const DropCounts& drops = m_share.drops;
    now.drops = {drops.queueFull.load(), drops.dependent.load(), drops.beforeKey.load(),
                 drops.paused.load(),    drops.lateTrack.load(), drops.writeError.load(),
                 drops.refused.load(),   drops.stopped.load()};
    now.segments_begun = m_share.segmentsBegun.load();
    now.segments_finished = m_share.segmentsFinished.load();
    now.segments_deleted = m_share.segmentsDeleted.load();
    now.longest_write_us = m_share.files.longestWriteUs.load();
    now.longest_push_us = m_share.files.longestPushUs.load();
    const int64_t pushed = m_share.pushedArrival.load();
    constexpr int64_t kPerMicrosecond = 1000;
    if (m_ring.LastArrival() > pushed)
        now.unpushed_us =
            static_cast<uint64_t>(std::max<int64_t>(Now() - pushed, 0) / kPerMicrosecond);
    now.clock_jumps = m_writer.Times().Jumps();
    now.clock_wraps = m_writer.Times().Wraps();
    now.late_frames = m_share.lateFrames.load();
    return now;
}

}  // namespace kx_mp4
