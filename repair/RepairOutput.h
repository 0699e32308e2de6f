/// @file
/// Where the boxes of a repaired file are written.
#ifndef KX_MP4_REPAIR_REPAIROUTPUT_H
#define KX_MP4_REPAIR_REPAIROUTPUT_H

#include <cstdint>
#include <functional>
#include <vector>

#include "BaseIO.h"
#include "PosixFile.h"

namespace kx_mp4 {

/// A writer over an existing file, which keeps its content. Without a file it only counts
/// positions, so that boxes can be written for trial.
///
/// Neighbouring small writes reach the file as one, so that a header is never there by half.
class RepairOutput : public IBaseIO {
public:
    RepairOutput() { m_status = IO_VALID; }
    ~RepairOutput() override = default;

    /// Writes to `file` from now on; borrowed.
    void Attach(PosixFile& file) { m_file = &file; }
    /// Without a file: keeps what is written from `position` on in memory, from now on.
    void KeepFrom(uint64_t position) {
        m_keepFrom = position;
        m_kept.clear();
    }
    const std::vector<uint8_t>& Kept() const { return m_kept; }

    bool Uninit() override { return true; }
    uint64_t Ftell() override { return m_position; }
    void Seek(int64_t offset, int origin) override;
    /// Pushes everything to the storage device.
    void Flush() override;
    bool IsInBuffer(int64_t, int) override { return true; }

protected:
    void Read(void* pbBuf, uint32_t cbBuf) override;
    void Write(const void* pbBuf, uint32_t cbBuf) override;

private:
    static constexpr size_t kMaxPending = 4096;

    void WritePending();

    PosixFile* m_file = nullptr;
    void Keep(const uint8_t* bytes, size_t size);

    uint64_t m_keepFrom = UINT64_MAX;
    std::vector<uint8_t> m_kept;
    uint64_t m_position = 0;
    uint64_t m_end = 0;
    std::vector<uint8_t> m_pending;  // ends at m_pendingEnd
    uint64_t m_pendingEnd = 0;
};

/// Called with the number of bytes copied so far; ends the copy by throwing.
using CopyProgress = std::function<void(uint64_t done)>;

/// Makes `to`, which is empty, the first `size` bytes of `from`, sharing storage where the file
/// system can. Before anything is copied there has to be room for it and for `room` bytes behind
/// it. Throws kx_mp4_exception, and RepairRefused without that room.
void CopyBeginning(const PosixFile& from, PosixFile& to, uint64_t size, uint64_t room,
                   const CopyProgress& progress);

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_REPAIROUTPUT_H
