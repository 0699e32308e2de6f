#include "FrameRing.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace kx_mp4 {
namespace {

constexpr uint64_t kAlignment = alignof(std::max_align_t);

constexpr uint64_t Aligned(uint64_t size) {
    return (size + kAlignment - 1) / kAlignment * kAlignment;
}

}  // namespace

FrameRing::FrameRing(size_t bytes)
    : m_capacity(static_cast<size_t>(Aligned(bytes))),
      m_memory(new std::max_align_t[m_capacity / kAlignment]()),
      m_bytes(reinterpret_cast<uint8_t*>(m_memory.get())) {
    static_assert(sizeof(std::max_align_t) % kAlignment == 0 && alignof(Slot) <= kAlignment);
    std::memset(m_bytes, 1, m_capacity);
}

uint64_t FrameRing::Room(uint64_t size) {
    return Aligned(sizeof(Slot)) + Aligned(size);
}

/// A frame lies in one piece: when it does not fit before the ring's end, the rest there is lost.
bool FrameRing::HasRoom(FrameKind kind, uint64_t room) const {
    const uint64_t toEnd = m_capacity - m_tail % m_capacity;
    const uint64_t needed = room <= toEnd ? room : room + toEnd;
    const uint64_t kept = kind == FrameKind::kVideo ? m_capacity / kSoundShare : 0;
    return m_tail - m_head + needed + kept <= m_capacity;
}

FrameRing::Answer FrameRing::Admit(const FrameHeader& header, std::unique_lock<std::mutex>& lock,
                                   Clock::time_point deadline) {
    const bool video = header.kind == FrameKind::kVideo;
    const uint64_t room = Room(header.size);
    // Twice, so that it fits whatever is lost at the ring's end.
    if (room > m_capacity / 2 - m_capacity / kSoundShare) {
        m_needsKey = m_needsKey || video;
        return Answer::kTooLarge;
    }
    const auto hopeless = [&] {
        return m_closed || m_paused || (video && m_needsKey && !header.key);
    };
    ++m_waiting;
    while (!hopeless() && !HasRoom(header.kind, room))
        if (m_emptied.wait_until(lock, deadline) == std::cv_status::timeout) break;
    --m_waiting;
    if (m_closed) return Answer::kClosed;
    if (m_paused) return Answer::kPaused;
    if (hopeless()) return Answer::kDependent;
    if (HasRoom(header.kind, room)) return Answer::kTaken;
    m_needsKey = m_needsKey || video;
    return Answer::kFull;
}

FrameRing::Slot* FrameRing::Place(const FrameHeader& header) {
    const uint64_t room = Room(header.size);
    const uint64_t toEnd = m_capacity - m_tail % m_capacity;
    if (room > toEnd) {
        // Ends where the ring does: less than a slot is left out by whoever reads.
        if (toEnd >= sizeof(Slot)) (new (At(m_tail)) Slot)->pad = true;
        m_tail += toEnd;
    }
    Slot* const slot = new (At(m_tail)) Slot;
    slot->header = header;
    m_tail += room;
    const uint64_t used = m_tail - m_head;
    m_used.store(used, std::memory_order_relaxed);
    if (used > m_peak.load(std::memory_order_relaxed))
        m_peak.store(used, std::memory_order_relaxed);
    m_taken.fetch_add(1, std::memory_order_relaxed);
    m_lastArrival.store(header.arrival, std::memory_order_relaxed);
    return slot;
}

FrameRing::Answer FrameRing::Put(const FrameHeader& header, const uint8_t* bytes,
                                 Clock::time_point deadline) {
    Slot* slot = nullptr;
    {
        std::unique_lock<std::mutex> lock(m_lock);
        const Answer answer = Admit(header, lock, deadline);
        if (answer != Answer::kTaken) return answer;
        if (header.kind == FrameKind::kVideo) m_needsKey = false;
        slot = Place(header);
    }
    if (header.size != 0)
        std::memcpy(reinterpret_cast<uint8_t*>(slot) + Aligned(sizeof(Slot)), bytes, header.size);
    slot->ready.store(true);
    if (m_readerWaits.load()) Wake();
    return Answer::kTaken;
}

bool FrameRing::PutCommand(Command command) {
    const std::lock_guard<std::mutex> lock(m_lock);
    if (m_closed) return false;
    m_commands.push_back({m_tail, std::move(command)});
    m_filled.notify_one();
    return true;
}

void FrameRing::SetPaused(bool paused) {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_paused = paused;
    m_emptied.notify_all();
}

void FrameRing::Close() {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_closed = true;
    m_filled.notify_one();
    m_emptied.notify_all();
}

void FrameRing::Wake() {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_woken = true;
    m_filled.notify_one();
}

/// True when some were run, for which the lock was let go.
bool FrameRing::RunCommands(std::unique_lock<std::mutex>& lock) {
    if (m_commands.empty() || m_commands.front().position > m_head) return false;
    const Command run = std::move(m_commands.front().run);
    m_commands.pop_front();
    lock.unlock();
    run();  // what it throws leaves the ring as it is: the reader is seen as waiting
    lock.lock();
    return true;
}

bool FrameRing::FrontIsReady() {
    while (m_head != m_tail) {
        const uint64_t toEnd = m_capacity - m_head % m_capacity;
        if (toEnd >= sizeof(Slot) && !At(m_head)->pad) return At(m_head)->ready.load();
        m_head += toEnd;
    }
    return false;
}

bool FrameRing::Front(QueuedFrame& frame, Clock::duration patience) {
    const auto deadline = Clock::now() + patience;
    std::unique_lock<std::mutex> lock(m_lock);
    m_readerWaits.store(true);
    while (true) {
        if (RunCommands(lock)) continue;
        if (FrontIsReady()) break;
        if (RunCommands(lock)) continue;  // behind the rest of the ring that was passed over
        const bool ended = m_closed && m_head == m_tail;
        if (ended || std::exchange(m_woken, false) ||
            m_filled.wait_until(lock, deadline) == std::cv_status::timeout) {
            m_readerWaits.store(false);
            if (ended || !FrontIsReady()) return false;
            break;
        }
    }
    m_readerWaits.store(false);
    Slot* const slot = At(m_head);
    frame = {slot->header, reinterpret_cast<uint8_t*>(slot) + Aligned(sizeof(Slot))};
    return true;
}

void FrameRing::Pop() {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_head += Room(At(m_head)->header.size);
    m_used.store(m_tail - m_head, std::memory_order_relaxed);
    m_popped.fetch_add(1, std::memory_order_relaxed);
    if (m_waiting != 0) m_emptied.notify_all();
}

bool FrameRing::IsAtEnd() {
    const std::lock_guard<std::mutex> lock(m_lock);
    FrontIsReady();
    return m_closed && m_head == m_tail && m_commands.empty();
}

}  // namespace kx_mp4
