/// @file
/// The contract of a byte stream over the caller's callbacks in their second form.
#ifndef KX_MP4_CALLBACKWRITER_H
#define KX_MP4_CALLBACKWRITER_H

#include "BaseIO.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// Has its own copy of the callbacks. Every failure that a callback reports is one of the stream.
class CallbackWriter : public IBaseIO {
public:
    explicit CallbackWriter(const mp4_io_callbacks_t& callbacks) : m_callbacks(callbacks) {}

    /// Whether all callbacks that have to be there are.
    static bool IsComplete(const mp4_io_callbacks_t& callbacks);
    /// Opens the stream; false when the callback refuses.
    bool Open(const char* path);

    /// Closes once, whatever the callback says.
    bool Uninit() override;
    uint64_t Ftell() override;
    void Seek(int64_t offset, int origin) override;
    void Flush() override;
    bool IsInBuffer(int64_t, int) override { return false; }
    bool ClosedWell() const override { return m_closedWell; }

protected:
    /// The library reads no output back.
    void Read(void* pbBuf, uint32_t cbBuf) override;
    void Write(const void* pbBuf, uint32_t cbBuf) override;

private:
    mp4_io_callbacks_t m_callbacks;
    bool m_isOpen = false;
    bool m_closedWell = true;
};

}  // namespace kx_mp4

#endif  // KX_MP4_CALLBACKWRITER_H
