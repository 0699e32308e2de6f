#include "CallbackWriter.h"

#include <cerrno>
#include <utility>

namespace kx_mp4 {

bool CallbackWriter::IsComplete(const mp4_io_callbacks_t& callbacks) {
    return callbacks.tell != nullptr && callbacks.seek != nullptr && callbacks.write != nullptr;
}

bool CallbackWriter::Open(const char* path) {
    if (m_callbacks.open != nullptr && m_callbacks.open(m_callbacks.user, path) != 1) return false;
    m_isOpen = true;
    m_status = IO_VALID;
    return true;
}

bool CallbackWriter::Uninit() {
    m_status = IO_UNINIT;
    // Forgotten before the call, so that it is the only one even when it throws.
    if (!std::exchange(m_isOpen, false)) return false;
    if (m_callbacks.close == nullptr) return true;
    errno = EIO;
    m_closedWell = m_callbacks.close(m_callbacks.user) == 1;
    if (!m_closedWell) m_err_code = errno;
    return m_closedWell;
}

uint64_t CallbackWriter::Ftell() {
    if (!m_isOpen) return 0;
    errno = EIO;
    const int64_t position = m_callbacks.tell(m_callbacks.user);
    if (position < 0) FailSeek(__LINE__);
    return static_cast<uint64_t>(position);
}

void CallbackWriter::Seek(int64_t offset, int origin) {
    errno = EIO;
    if (IsValid() && m_callbacks.seek(m_callbacks.user, offset, origin) != 1) FailSeek(__LINE__);
}

void CallbackWriter::Flush() {
    if (!IsValid() || m_callbacks.flush == nullptr) return;
    errno = EIO;
    if (m_callbacks.flush(m_callbacks.user) != 1) FailWrite(__LINE__);
}

void CallbackWriter::Read(void*, uint32_t) {
    errno = EBADF;
    FailRead(__LINE__);
}

void CallbackWriter::Write(const void* pbBuf, uint32_t cbBuf) {
    if (cbBuf == 0) return;
    errno = EIO;
    if (m_callbacks.write(m_callbacks.user, pbBuf, cbBuf) != 1) FailWrite(__LINE__);
}

}  // namespace kx_mp4
