/// @file
/// The file that comes next, opened before it is needed, and those that are done, finished beside
/// the recording.
#ifndef KX_MP4_RECORDER_NEXTSEGMENT_H
#define KX_MP4_RECORDER_NEXTSEGMENT_H

#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>

#include "RecordingShare.h"
#include "Segment.h"
#include "TaskThread.h"

namespace kx_mp4 {

/// Belongs to the writer's thread; the work is done on a thread of its own. The destructor waits
/// until all is done.
class NextSegment {
public:
    explicit NextSegment(RecordingShare& share) : m_share(share) {}
    ~NextSegment() { End(); }
    NextSegment(const NextSegment&) = delete;
    NextSegment& operator=(const NextSegment&) = delete;

    /// Begins to open the next file, unless that has begun; `due` goes into its name.
    void Prepare(std::time_t due);
    /// The next file, waiting for it when it is being opened, or opened now. Null with a status.
    std::unique_ptr<Segment> Take(std::time_t due, mp4_status_t& status);
    /// Finishes a file.
    void Finish(std::unique_ptr<Segment> segment);
    /// Does without a next file that is open already, and returns when all that are done are
    /// finished.
    void End();

private:
    RecordingShare& m_share;
    std::mutex m_lock;
    std::condition_variable m_opened;
    bool m_preparing = false;
    bool m_isOpen = false;
    std::unique_ptr<Segment> m_segment;
    mp4_status_t m_status = MP4_STATUS_SUCCESS;
    uint64_t m_number = 0;
    TaskThread m_side;  // last, so that its tasks see the rest
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_NEXTSEGMENT_H
