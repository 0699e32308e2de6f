/// @file
/// The output of one segment: large writes, room on the disk ahead of them, pushes beside them.
#ifndef KX_MP4_RECORDER_SEGMENTFILE_H
#define KX_MP4_RECORDER_SEGMENTFILE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Storage.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// What the files of a recording have done so far; any thread.
struct StorageFigures {
    std::atomic<uint64_t> bytes{0};
    std::atomic<uint64_t> longestWriteUs{0};
    std::atomic<uint64_t> longestPushUs{0};
};

/// A file behind CMp4Muxer's callbacks. What is appended is collected and leaves in large writes; a
/// patch goes to where its bytes are, in the collection or in the file.
///
/// Room on the disk is taken ahead in steps. Where the file system cannot take room without
/// writing, a second file of zeros (the ballast) holds it; it goes when the room is needed.
///
/// One thread at a time uses it, except for Push.
class SegmentFile {
public:
    /// `storage`, `figures` outlive it. The step is in bytes.
    SegmentFile(IStorage& storage, StorageFigures& figures, std::unique_ptr<IStorageFile> file,
                std::string path, uint64_t step);
    ~SegmentFile();
    SegmentFile(const SegmentFile&) = delete;
    SegmentFile& operator=(const SegmentFile&) = delete;

    /// Its user pointer is this object. Opening and closing are not among them.
    mp4_io_callbacks_t Callbacks();

    /// Sees to it that `bytes` more than there are now will find room. An errno value.
    int Ensure(uint64_t bytes);
    /// Hands what was collected to the system. An errno value, also of an earlier write.
    int Flush();
    /// Flush, and returns when it is on the device.
    int FlushAndPush();
    /// What was handed to the system so far goes to the device. For any thread, at any time. An
    /// errno value; once it has failed it says so for good.
    int Push();
    /// From now on a patch of what lies before the index returns only when all is on the device:
    /// the last patch of a finished movie is such a one, and what could repair it is removed then.
    void BeginFinish();
    /// Gives back what was taken ahead.
    int EndFinish();

    uint64_t Size() const { return m_end; }
    const std::string& Path() const { return m_path; }
    int Error() const { return m_error; }
    int PushError() const { return m_pushError.load(); }
    /// Whether room that was promised was not there.
    bool RanOut() const { return m_ranOut; }

private:
    bool Write(const uint8_t* bytes, uint32_t size);
    bool Append(const uint8_t* bytes, size_t size);
    bool WriteOut(uint64_t position, const uint8_t* bytes, size_t size);
    bool Seek(int64_t offset, int whence);
    int GrowBallast(uint64_t bytes);
    void DropBallast();
    std::string BallastPath() const { return m_path + ".ballast"; }

    IStorage& m_storage;
    StorageFigures& m_figures;
    std::unique_ptr<IStorageFile> m_file;
    std::string m_path;
    uint64_t m_step;
    std::vector<uint8_t> m_collected;  // what stands at the end of the file
    uint64_t m_position = 0;
    uint64_t m_end = 0;
    uint64_t m_reserved = 0;  // the file has room up to here
    bool m_usesBallast = false;
    std::unique_ptr<IStorageFile> m_ballast;
    uint64_t m_ballastSize = 0;
    bool m_ranOut = false;
    bool m_finishing = false;
    uint64_t m_indexStart = 0;
    int m_error = 0;
    std::atomic<int> m_pushError{0};
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_SEGMENTFILE_H
