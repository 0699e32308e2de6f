/// @file
/// The repair info file: the side file from which the index of a recording that was cut off can
/// be made again. All integers are big-endian.
///
/// | offset | bytes | field                                                                 |
/// | 0      | 1     | low 8 bits of the creation flags                                      |
/// | 1      | 4     | position of the media data box in the output file                     |
/// | 5      | ...   | records, each a type byte (RecordType) and its body, to the file's end |
///
/// The samples of all tracks lie in the media data one after another in the order of their records.
#ifndef KX_MP4_INFOWRITER_H
#define KX_MP4_INFOWRITER_H

#include <atomic>
#include <cstdint>

#include "BaseIO.h"
#include "Figures.h"
#include "FileLock.h"
#include "kx_mp4/kx_mp4.h"

/// Type byte of a record in the repair info file. "string" is a C string with its terminator.
enum : uint8_t {
    MIFPT_UNKNOWN = 0,  ///< Never written.
    /// data type 1, key length 4, key string, data length 4, data, namespace length 4, string.
    MIFPT_METADATA = 1,
    /// MP4_INFO_VIDEO_TRACK_HEAD, then the codec data: each parameter set as length 4 and bytes
    /// (H.264: SPS, PPS; HEVC: VPS, SPS, PPS), or the ProRes format 1.
    MIFPT_VIDEO_FORMAT = 2,
    MIFPT_AUDIO_FORMAT = 3,     ///< MP4_INFO_AUDIO_TRACK_HEAD.
    MIFPT_VIDEO_FRAME = 4,      ///< MP4_INFO_VIDEO_FRAME_INFO.
    MIFPT_AUDIO_FRAME = 5,      ///< MP4_INFO_AUDIO_FRAME_INFO.
    MIFPT_SUBTITLE_FORMAT = 6,  ///< timescale 4, codec 1.
    MIFPT_SUBTITLE_FRAME = 7,   ///< MP4_INFO_SUBTITLE_FRAME_INFO.
    MIFPT_TMCD_FORMAT = 8,      ///< timescale 4, frame duration 8, frame rate 1, flags 4.
    MIFPT_TMCD_FRAME = 9,       ///< timecode counter 4.
};

#pragma pack(push, 1)

/// Body of #MIFPT_VIDEO_FORMAT up to the codec data; order and widths are those on disk.
struct MP4_INFO_VIDEO_TRACK_HEAD {
    uint32_t nTimeScale;      ///< Ticks per second.
    uint64_t nFrameDuration;  ///< Ticks; 0 when not known.
    uint8_t codec;            ///< mp4_video_codec.
    uint16_t nWidth;          ///< Pixels.
    uint16_t nHeight;         ///< Pixels.
};

/// Body of #MIFPT_AUDIO_FORMAT.
struct MP4_INFO_AUDIO_TRACK_HEAD {
    uint32_t nTimeScale;      ///< Ticks per second.
    uint64_t nFrameDuration;  ///< Ticks; 0 when not known.
    uint8_t codec;            ///< mp4_audio_codec.
    uint16_t nSamplerate;     ///< Hz, low 16 bits.
    uint16_t nChannels;       ///< Channel configuration.
    uint8_t nProfile;         ///< MPEG-4 audio object type.
};

/// Body of #MIFPT_VIDEO_FRAME.
struct MP4_INFO_VIDEO_FRAME_INFO {
    int64_t nPts;      ///< Ticks.
    int64_t nDts;      ///< Ticks.
    int8_t bKeyFrame;  ///< 1 for a sync sample, else 0.
    uint32_t cbData;   ///< Bytes in the media data.
};

/// Body of #MIFPT_AUDIO_FRAME.
struct MP4_INFO_AUDIO_FRAME_INFO {
    int64_t nTimeStamp;  ///< Ticks.
    uint32_t cbData;     ///< Bytes in the media data.
};

/// Body of #MIFPT_SUBTITLE_FRAME.
struct MP4_INFO_SUBTITLE_FRAME_INFO {
    int64_t nTimeStamp;  ///< Ticks.
    uint32_t cbData;     ///< Bytes in the media data.
};

#pragma pack(pop)

static_assert(sizeof(MP4_INFO_VIDEO_TRACK_HEAD) == 17);
static_assert(sizeof(MP4_INFO_AUDIO_TRACK_HEAD) == 18);
static_assert(sizeof(MP4_INFO_VIDEO_FRAME_INFO) == 21);
static_assert(sizeof(MP4_INFO_AUDIO_FRAME_INFO) == 12);
static_assert(sizeof(MP4_INFO_SUBTITLE_FRAME_INFO) == 12);

/// Writes the repair info file. A failed operation closes the file for the rest of the recording
/// and returns the failure's status; the recording itself is not touched by it.
///
/// Every record is one write, so that a process that is killed never leaves a torn one. The file is
/// locked from Create on: who repairs recordings sees that this one is still running.
///
/// Not thread safe, except IsActive; used under the muxer's lock.
class CInfoWriter {
public:
    /// Creates or truncates the file; `nBlockSize` is not used.
    mp4_status_t Create(const wchar_t* pFilePath, uint32_t nBlockSize);
    /// The same for a path in the system's own bytes. Counters and failure start anew.
    mp4_status_t Create(const char* path);
    /// Pushes the file to the storage device.
    mp4_status_t Flush();
    /// Has the pushes timed. Null, as at first, for none; else it must outlive the writer's use.
    void SetFigures(kx_mp4::Figures* figures) { m_figures = figures; }
    /// Closes the file; it stays on disk and locked.
    void Close();
    /// Gives the lock back. Nothing is written any more, and the recording has been finished or
    /// given up.
    void Unlock() { m_lock.Release(); }
    /// IsOpen for any thread at any time.
    bool IsActive() const { return m_active; }
    /// The status of the operation that failed and closed the file; success without one.
    mp4_status_t Failure() const { return m_failure; }
    /// Whether there is a file that has not failed.
    bool IsOpen() const { return m_writer.IsValid(); }
    /// Sets how many video frame records lie between two flushes; refuses less than 10.
    bool setFlushInterval(uint32_t interval);

    /// Writes the head of the file: the creation flags, then the media data box's position.
    mp4_status_t WriteFlag(uint8_t byFlag);
    /// Writes the position of the media data box, low 32 bits.
    mp4_status_t WriteMdatOffset(uint32_t nPos);
    /// `key_namespace` may be null, of others at most four bytes are read. A `size` of 0 of an item
    /// that is not a string is recorded as 4.
    mp4_status_t WriteMetadata(const char* pKey, const char* pData, uint32_t size,
                               mp4_meta_data_type_t type, const char* key_namespace);
    /// Records a track's description, as it was given or found in the stream.
    mp4_status_t WriteVideoFormat(const mp4_video_track_info_t* pTrackInfo);
    /// The same for audio.
    mp4_status_t WriteAudioFormat(const mp4_audio_track_info_t* pTrackInfo);
    /// The same for captions; a timescale of 0 is recorded as 1000.
    mp4_status_t WriteSubtitleFormat(const mp4_subtitle_track_info_t* pTrackInfo);
    /// The same for timecode.
    mp4_status_t WriteTimeCodeFormat(const mp4_time_code_track_info_t* pTrackInfo);
    /// Writes the record and, every flush interval, pushes the file to the storage device; the
    /// outcome of that push is not reported.
    mp4_status_t WriteVideoFrame(int cbFrame, int64_t nPts, int64_t nDts, bool bSync);
    /// Records a sample: its bytes in the media data and its time in ticks.
    mp4_status_t WriteAudioFrame(int cbFrame, int64_t nTimeStamp);
    /// The same for a caption sample.
    mp4_status_t WriteSubtitleFrame(int cbFrame, int64_t nTimeStamp);
    /// Records a timecode counter, which takes 4 bytes of the media data.
    mp4_status_t WriteTimeCode(int nTimeCode);

private:
    template <class Body>
    mp4_status_t Record(Body&& writeBody);
    mp4_status_t Fail(mp4_status_t status);
    void WriteString(const char* text, uint32_t size);
    void WriteParameterSet(const uint8_t* set, int16_t size);
    void WriteTimedFrame(uint8_t type, int cbFrame, int64_t nTimeStamp);

    CFileWriter m_writer;
    CBufferIO m_record;  // the one that is being put together
    kx_mp4::FileLock m_lock;
    kx_mp4::Figures* m_figures = nullptr;
    std::atomic<bool> m_active{false};
    mp4_status_t m_failure = MP4_STATUS_SUCCESS;
    uint32_t m_video_num = 0;
    uint32_t m_video_flush_num = 0;
    uint32_t m_flush_interval = 900;  // about 30 s of video
};

#endif  // KX_MP4_INFOWRITER_H
