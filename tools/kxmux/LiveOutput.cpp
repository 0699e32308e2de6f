#include "LiveOutput.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kxmux {
namespace {

constexpr uint32_t kWaitForever = std::numeric_limits<uint32_t>::max();

}  // namespace

std::string LiveOutput::SegmentPattern(const std::string& path) {
    if (path.find('%') != std::string::npos) return path;
    const size_t slash = path.rfind('/') + 1;  // 0 without one
    const size_t dot = path.rfind('.');
    const bool hasExtension = dot != std::string::npos && dot > slash;
    return hasExtension ? path.substr(0, dot) + "-%04i" + path.substr(dot) : path + "-%04i";
}

std::string LiveOutput::LiteralPattern(const std::string& path) {
    std::string pattern;
    for (const char letter : path)
        pattern += letter == '%' ? std::string("%%") : std::string(1, letter);
    return pattern;
}

mp4_status_t LiveOutput::Start(const LiveOptions& live, kx_mp4::RecorderOptions options) {
    options.segment_ms = live.segmentMs;
    options.segment_bytes = live.segmentBytes;
    if (live.queueBytes != 0) options.queue_bytes = static_cast<size_t>(live.queueBytes);
    options.on_queue_full = live.drop ? kx_mp4::QueueFull::kDrop : kx_mp4::QueueFull::kWait;
    options.wait_ms = kWaitForever;
    // Times are counted by the program and pipes may be faster than the clock.
    options.jump_ms = std::numeric_limits<uint32_t>::max();
    options.on_segment = [this](const kx_mp4::RecorderSegment& segment) {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_segments.push_back(segment);
    };
    options.on_event = [this](const kx_mp4::RecorderEvent& event) { Tell(event); };
    return m_recorder.Start(options);
}

void LiveOutput::Tell(const kx_mp4::RecorderEvent& event) {
    std::string line = std::string(event.path) + ": " + event.text;
    if (event.status != MP4_STATUS_SUCCESS)
        line += std::string(": ") + mp4_status_string(event.status);
    const std::lock_guard<std::mutex> lock(m_lock);
    m_warnings.push_back(std::move(line));
}

kx_mp4::RecorderReport LiveOutput::Stop() {
    return m_recorder.Stop(0);
}

std::vector<std::string> LiveOutput::TakeWarnings() {
    const std::lock_guard<std::mutex> lock(m_lock);
    return std::exchange(m_warnings, {});
}

std::vector<kx_mp4::RecorderSegment> LiveOutput::Segments() {
    const std::lock_guard<std::mutex> lock(m_lock);
    std::vector<kx_mp4::RecorderSegment> segments = m_segments;
    std::sort(segments.begin(), segments.end(),
              [](const auto& a, const auto& b) { return a.number < b.number; });
    return segments;
}

std::string LiveOutput::Status() const {
    const kx_mp4::RecorderStatistics now = m_recorder.GetStatistics();
    constexpr uint64_t kPercent = 100;
    std::string text =
        ", queue " +
        std::to_string(now.queue_bytes * kPercent / std::max<uint64_t>(now.queue_capacity, 1)) +
        " %, segment " + std::to_string(now.segments_begun);
    if (Lost() != 0) text += ", " + std::to_string(Lost()) + " frames dropped";
    return text;
}

uint64_t LiveOutput::Lost() const {
    const kx_mp4::RecorderDrops drops = m_recorder.GetStatistics().drops;
    return drops.queue_full + drops.dependent + drops.before_key + drops.late_track +
           drops.write_error + drops.refused + drops.stopped;
}

}  // namespace kxmux
