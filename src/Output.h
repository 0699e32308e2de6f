/// @file
/// The output of a recording, opened as its configuration says.
#ifndef KX_MP4_OUTPUT_H
#define KX_MP4_OUTPUT_H

#include <memory>

#include "BaseIO.h"
#include "RecordingName.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// What is asked of an output.
struct OutputRequest {
    const RecordingName& name;
    mp4_container container = MP4_CONTAINER_FROM_PATH;
    const mp4_config_t& config;
    const mp4_io_callbacks_t* callbacks = nullptr;  ///< Of the second form; go before the rest.
};

/// Opens the output that is asked for, and logs why it cannot be.
///
/// @param writer     The open output; untouched when it is refused.
/// @param gathering  The same object when it is a file, whose writes can be gathered; else null.
/// @return #MP4_STATUS_INVALID_PARAMETER without callbacks, when they refuse, or for a path that
///         cannot be converted; #MP4_STATUS_FILE_NAME_TOO_LONG; #MP4_STATUS_UNSUPPORTED for modes
///         that are not there; the status of a failed open.
mp4_status_t OpenOutput(const OutputRequest& request, std::unique_ptr<IBaseIO>& writer,
                        IFileIOBase*& gathering);

/// Whether the movie is a QuickTime movie.
bool IsQuickTime(const OutputRequest& request);

/// Whether the index is to leave in one write, a form of direct I/O only.
bool WantsFastHeaderWrite(const mp4_config_t& config);

/// Tells the log what the configuration asks for.
void LogFlags(const mp4_config_t& config);

/// Bytes of one sample that is written piece by piece reach a file in as few calls as possible.
class GatheredWrite {
public:
    /// Null stands for an output that takes each piece at once.
    explicit GatheredWrite(IFileIOBase* writer) : m_writer(writer) {
        if (m_writer != nullptr) m_writer->BeginGather();
    }
    ~GatheredWrite() {
        if (m_writer != nullptr) m_writer->CancelGather();
    }
    GatheredWrite(const GatheredWrite&) = delete;
    GatheredWrite& operator=(const GatheredWrite&) = delete;

    /// Hands everything to the system; fails as a write fails.
    void Finish() {
        if (m_writer != nullptr) m_writer->EndGather();
    }

private:
    IFileIOBase* m_writer;
};

}  // namespace kx_mp4

#endif  // KX_MP4_OUTPUT_H
