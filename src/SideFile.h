/// @file
/// The repair info file beside a recording: its name, its writer and what went wrong with it.
#ifndef KX_MP4_SIDEFILE_H
#define KX_MP4_SIDEFILE_H

#include <string>
#include <utility>

#include "InfoWriter.h"
#include "RecordingName.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// One recording's repair info file, or none. A failure of it never touches the recording: it is
/// kept until the running operation answers with it, once.
class SideFile {
public:
    /// The pushes to the storage device are noted in `figures`, which must outlive this object's
    /// use.
    explicit SideFile(Figures& figures) { m_writer.SetFigures(&figures); }
    SideFile(const SideFile&) = delete;
    SideFile& operator=(const SideFile&) = delete;

    /// Forgets the recording before.
    void Reset();
    /// Wants a file beside the recording of this name. Nothing is opened.
    /// @return #MP4_STATUS_INVALID_PARAMETER for a name that cannot be converted or to which the
    ///         extension cannot be added, #MP4_STATUS_FILE_NAME_TOO_LONG,
    ///         #MP4_STATUS_DEVICE_OR_RESOURCE_BUSY when the file belongs to a recording that is
    ///         running or to a repair.
    mp4_status_t SetName(const RecordingName& recording);
    /// Creates the file, or empties the one of an earlier recording. Leaves none when it fails.
    mp4_status_t Open(uint32_t flags);

    /// Whether a file was asked for, even if it has failed.
    bool IsWanted() const { return !m_path.empty(); }
    /// Whether there is a file that has not failed.
    bool IsOpen() const { return m_writer.IsOpen(); }
    /// IsOpen for any thread at any time.
    bool IsActive() const { return m_writer.IsActive(); }
    /// See CInfoWriter::setFlushInterval.
    bool SetFlushInterval(uint32_t interval) { return m_writer.setFlushInterval(interval); }

    /// Hands the writer to `record` when there is one; keeps the failure.
    template <class Record>
    void Write(Record&& record) {
        if (m_writer.IsOpen()) m_untold = record(m_writer);
    }
    /// What an operation answers: its own failure or else, once, that of the file.
    mp4_status_t Answer(mp4_status_t status) {
        const mp4_status_t untold = std::exchange(m_untold, MP4_STATUS_SUCCESS);
        return status != MP4_STATUS_SUCCESS ? status : untold;
    }
    /// Pushes the file to the storage device. @return Also the failure that ended it before.
    mp4_status_t Flush() { return IsOpen() ? m_writer.Flush() : m_writer.Failure(); }

    /// Writes no more; the file stays, and stays locked.
    void Close() { m_writer.Close(); }
    /// Deletes the file.
    void Remove();
    /// Lets go of the file for good.
    void Unlock() { m_writer.Unlock(); }

private:
    CInfoWriter m_writer;
    std::string m_path;  // as the system takes it, absolute
    mp4_status_t m_untold = MP4_STATUS_SUCCESS;
};

}  // namespace kx_mp4

#endif  // KX_MP4_SIDEFILE_H
