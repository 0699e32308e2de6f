#include "Call.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace kx_mp4 {
namespace {

thread_local CallLog* t_call = nullptr;

}  // namespace

CallLog::CallLog() : m_outer(t_call) {  // NOLINT(cppcoreguidelines-pro-type-member-init)
    m_text[0] = '\0';
    t_call = this;
}

CallLog::~CallLog() {
    t_call = m_outer;
}

void CallLog::Keep(mp4_log_level_t level, const char* text) {
    if (t_call == nullptr || level == MP4_LOG_INFO || level < t_call->m_level) return;
    t_call->m_level = level;
    std::snprintf(t_call->m_text.data(), t_call->m_text.size(), "%s", text);
}

void LastError::Set(const char* operation, mp4_status_t status, const char* why) {
    const std::lock_guard<std::mutex> lock(m_lock);
    std::snprintf(m_text.data(), m_text.size(), "%s: %s%s%s", operation, mp4_status_string(status),
                  *why == '\0' ? "" : ": ", why);
}

size_t LastError::Get(char* text, size_t size) const {
    const std::lock_guard<std::mutex> lock(m_lock);
    const size_t length = std::strlen(m_text.data());
    if (text != nullptr && size != 0) {
        const size_t copied = std::min(length, size - 1);
        std::memcpy(text, m_text.data(), copied);
        text[copied] = '\0';
    }
    return length;
}

}  // namespace kx_mp4
