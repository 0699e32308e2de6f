/// @file
/// The queue of frames between the callers and the writer: bytes in a ring of fixed size.
#ifndef KX_MP4_RECORDER_FRAMERING_H
#define KX_MP4_RECORDER_FRAMERING_H

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace kx_mp4 {

enum class FrameKind : uint8_t { kVideo, kAudio, kCaption, kTimecode };

/// What stands in front of a frame's bytes in the ring.
struct FrameHeader {
    uint64_t size = 0;    ///< Bytes of the frame.
    int64_t pts = 0;      ///< Ticks; of sound, captions and timecode the same as dts.
    int64_t dts = 0;      ///< Ticks, or a count of timecode.
    int64_t arrival = 0;  ///< Of the call, nanoseconds of the steady clock.
    FrameKind kind = FrameKind::kVideo;
    bool key = false;  ///< A file can begin with it.
};

/// A frame as the writer sees it, until it is popped.
struct QueuedFrame {
    FrameHeader header;
    uint8_t* bytes = nullptr;
};

/// Any number of threads put frames in, one takes them out. The lock is held for some arithmetic
/// only: bytes are copied outside, and a frame is passed on when its copy and those of all before
/// it are done.
///
/// | consumed | head: frame, frame, frame (being copied), frame | tail: free | ... | end |
class FrameRing {
public:
    using Clock = std::chrono::steady_clock;
    /// A change that has to take place between two frames.
    using Command = std::function<void()>;

    enum class Answer { kTaken, kFull, kDependent, kTooLarge, kClosed, kPaused };

    /// The memory is touched here, so that no frame call meets a page fault.
    explicit FrameRing(size_t bytes);
    FrameRing(const FrameRing&) = delete;
    FrameRing& operator=(const FrameRing&) = delete;

    /// Copies a frame. Waits for room until `deadline` when there is none. Pictures behind one that
    /// was dropped are kDependent up to the next key frame.
    Answer Put(const FrameHeader& header, const uint8_t* bytes, Clock::time_point deadline);
    /// Puts a command behind all frames that were taken so far; false when closed.
    bool PutCommand(Command command);
    /// Frames are kPaused from now on, or no longer.
    void SetPaused(bool paused);
    /// No frame is taken from now on.
    void Close();

    /// The oldest frame, when its copy is done; false when there is none before the time passes.
    /// Commands that stand before it are run on the way.
    bool Front(QueuedFrame& frame, Clock::duration patience);
    /// Gives the room of the oldest frame back.
    void Pop();
    /// Whether nothing is left and nothing will come.
    bool IsAtEnd();
    /// Wakes the reader.
    void Wake();

    size_t Capacity() const { return m_capacity; }
    uint64_t Used() const { return m_used.load(std::memory_order_relaxed); }
    uint64_t Peak() const { return m_peak.load(std::memory_order_relaxed); }
    uint64_t Taken() const { return m_taken.load(std::memory_order_relaxed); }
    /// Frames that are in the ring now.
    uint64_t Count() const { return Taken() - m_popped.load(std::memory_order_relaxed); }
    /// Call of the newest frame that was taken.
    int64_t LastArrival() const { return m_lastArrival.load(std::memory_order_relaxed); }

    /// Bytes that a frame takes up.
    static uint64_t Room(uint64_t size);
    /// The part of the ring that pictures leave to sound.
    static constexpr uint64_t kSoundShare = 8;

private:
    struct Slot {
        FrameHeader header;
        bool pad = false;                // nothing but the rest of the ring
        std::atomic<bool> ready{false};  // the bytes are there
    };
    struct PlacedCommand {
        uint64_t position;
        Command run;
    };

    Slot* At(uint64_t position) { return reinterpret_cast<Slot*>(m_bytes + position % m_capacity); }
    bool HasRoom(FrameKind kind, uint64_t room) const;
    Answer Admit(const FrameHeader& header, std::unique_lock<std::mutex>& lock,
                 Clock::time_point deadline);
    Slot* Place(const FrameHeader& header);
    bool RunCommands(std::unique_lock<std::mutex>& lock);
    bool FrontIsReady();

    size_t m_capacity;
    std::unique_ptr<std::max_align_t[]> m_memory;
    uint8_t* m_bytes;

    std::mutex m_lock;
    std::condition_variable m_filled;
    std::condition_variable m_emptied;
    uint64_t m_head = 0;  // positions count on; their place is the remainder
    uint64_t m_tail = 0;
    std::deque<PlacedCommand> m_commands;
    bool m_closed = false;
    bool m_paused = false;
    bool m_needsKey = false;  // a picture was dropped
    int m_waiting = 0;        // callers that wait for room
    bool m_woken = false;
    std::atomic<bool> m_readerWaits{false};

    std::atomic<uint64_t> m_used{0};
    std::atomic<uint64_t> m_peak{0};
    std::atomic<uint64_t> m_taken{0};
    std::atomic<uint64_t> m_popped{0};
    std::atomic<int64_t> m_lastArrival{0};
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_FRAMERING_H
