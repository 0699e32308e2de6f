#include "RecordingShare.h"

#include <algorithm>
#include <utility>

#include "defines.h"

namespace kx_mp4 {

mp4_status_t StatusOfError(int error) {
    return error == 0 ? MP4_STATUS_SUCCESS : kx_mp4_exception(error).error();
}

void RecordingShare::NoteFailure(mp4_status_t status) noexcept {
    int none = MP4_STATUS_SUCCESS;
    m_first.compare_exchange_strong(none, status);
    m_untold.store(status);
}

void RecordingShare::Fail(mp4_status_t status, const std::string& path, const std::string& text) {
    NoteFailure(status);
    Tell(RecorderEventKind::kError, status, path, text);
}

void RecordingShare::DiskFull(const std::string& path) {
    if (m_full.exchange(true)) return;
    int none = MP4_STATUS_SUCCESS;
    m_first.compare_exchange_strong(none, MP4_STATUS_NO_SPACE_LEFT);
    Tell(RecorderEventKind::kFull, MP4_STATUS_NO_SPACE_LEFT, path,
         "the disk is full: no more frames are taken, the file is finished");
}

mp4_status_t RecordingShare::TakeUntold() {
    if (m_untold.load(std::memory_order_relaxed) == MP4_STATUS_SUCCESS) return MP4_STATUS_SUCCESS;
    return static_cast<mp4_status_t>(m_untold.exchange(MP4_STATUS_SUCCESS));
}

void RecordingShare::AskForKeyFrame() {
    if (options.request_key_frame) m_events.Do(options.request_key_frame);
}

void RecordingShare::Tell(RecorderEventKind kind, mp4_status_t status, std::string path,
                          std::string text) {
    if (!options.on_event) return;
    m_events.Do([this, kind, status, path = std::move(path), text = std::move(text)] {
        options.on_event({kind, status, path.c_str(), text.c_str()});
    });
}

void RecordingShare::TellFinished(const RecorderSegment& segment) {
    if (options.on_segment) m_events.Do([this, segment] { options.on_segment(segment); });
}

void RecordingShare::AddLive(const std::shared_ptr<SegmentFile>& file) {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_live.push_back(file);
}

void RecordingShare::RemoveLive(const std::shared_ptr<SegmentFile>& file) {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_live.erase(std::remove(m_live.begin(), m_live.end(), file), m_live.end());
}

std::vector<std::shared_ptr<SegmentFile>> RecordingShare::Live() {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_live;
}

void RecordingShare::AddFinished(const std::string& path) {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_finished.push_back(path);
}

bool RecordingShare::DeleteOldest() {
    std::string path;
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        if (m_finished.empty()) return false;
        path = std::move(m_finished.front());
        m_finished.pop_front();
    }
    const int error = storage.Remove(path);
    storage.PushFolder(path);
    if (error == 0) ++segmentsDeleted;
    Tell(RecorderEventKind::kDeleted, StatusOfError(error), path,
         "the oldest segment is deleted to make room");
    return true;
}

}  // namespace kx_mp4
