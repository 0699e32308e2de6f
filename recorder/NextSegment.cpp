#include "NextSegment.h"

#include <utility>

namespace kx_mp4 {

void NextSegment::End() {
    mp4_status_t status = MP4_STATUS_SUCCESS;
    if (auto unused = m_preparing ? Take(0, status) : nullptr) {
        --m_number;
        Finish(std::move(unused));
    }
    m_side.Wait();
}

void NextSegment::Prepare(std::time_t due) {
    if (std::exchange(m_preparing, true)) return;
    m_side.Do([this, due, number = m_number] {
        mp4_status_t status = MP4_STATUS_UNEXPECTED_ERROR;
        std::unique_ptr<Segment> segment;
        try {
            segment = Segment::Open(m_share, number, due, status);
        } catch (...) {
            status = MP4_STATUS_UNEXPECTED_ERROR;
        }
        const std::lock_guard<std::mutex> lock(m_lock);
        m_segment = std::move(segment);
        m_status = status;
        m_isOpen = true;
        m_opened.notify_one();
    });
}

std::unique_ptr<Segment> NextSegment::Take(std::time_t due, mp4_status_t& status) {
    Prepare(due);
    std::unique_lock<std::mutex> lock(m_lock);
    m_opened.wait(lock, [this] { return m_isOpen; });
    m_isOpen = false;
    m_preparing = false;
    status = m_status;
    if (m_segment != nullptr) ++m_number;
    return std::move(m_segment);
}

void NextSegment::Finish(std::unique_ptr<Segment> segment) {
    m_side.Do([done = std::shared_ptr<Segment>(std::move(segment))] { done->Finish(); });
}

}  // namespace kx_mp4
