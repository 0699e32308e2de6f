/// @file
/// CMp4Muxer, the one class that a recording application sees.
#ifndef KX_MP4_KX_MP4_MP4MUXER_H
#define KX_MP4_KX_MP4_MP4MUXER_H

#include <cstdint>
#include <memory>
#include <string_view>

#include "kx_mp4/export.h"
#include "kx_mp4/kx_mp4.h"
#include "kx_mp4/presentation.h"

namespace kx_mp4 {
struct MuxerState;
}  // namespace kx_mp4

/// Records encoded frames into one MP4 file or QuickTime movie.
///
/// One object records one file at a time: Create, declare tracks and metadata, write frames,
/// Close; then Create again for the next file. Bytes of samples go to the output as they arrive,
/// the index (`moov`) is kept in memory and appended by Close.
///
/// | ftyp | free (MP4 only) | mdat: samples of all tracks, as they came ... | moov |
///
/// Threads: Close and the four frame writers lock, so frames of different tracks may come from
/// different threads. The queries may be asked by any thread at any time and wait for no write.
/// Nothing else locks: the caller must not run Create, the set-up operations or
/// Flush at the same time as a locked operation.
///
/// Every operation catches what is thrown inside. Statuses that any of them can return:
/// #MP4_STATUS_FILE_NOT_OPEN without a file; after a failed write, seek or sync the status of that
/// failure, from every later call; #MP4_STATUS_UNEXPECTED_ERROR. When the repair info file fails,
/// the call in which it does answers with its status, but has done its work all the same: the movie
/// is not touched by it, later calls succeed, and IsRepairInfoActive tells.
class KX_MP4_EXPORT CMp4Muxer {
public:
    /// Without a file. Throws std::bad_alloc when there is no memory for the object's state.
    CMp4Muxer();
    /// Does NOT finish the file: call Close first, or the output has no index. An output that is
    /// still open is released (`uninit`, so a buffered output writes what it holds), and the repair
    /// info file stays.
    ~CMp4Muxer();
    CMp4Muxer(const CMp4Muxer&) = delete;
    CMp4Muxer& operator=(const CMp4Muxer&) = delete;

    /// Opens the output. Nothing is written to it before the first frame (or, with the repair info
    /// file on, the first track).
    ///
    /// @param pFilePath  The path, copied. With #MP4_IO_FILE the current locale must be able to
    ///                   convert it (call `setlocale`). A path that contains "mov" ANYWHERE gives
    ///                   a QuickTime movie, any other an MP4 file.
    /// @param config     Read during the call; its callbacks must live until Close has returned.
    /// @return #MP4_STATUS_INVALID_PARAMETER for null arguments, missing callbacks, a path that
    ///         cannot be converted or is too long for ".info" to be added;
    ///         #MP4_STATUS_FILE_NAME_TOO_LONG for any other path that is too long;
    ///         #MP4_STATUS_UNSUPPORTED for I/O modes other than file and external;
    ///         #MP4_STATUS_DEVICE_OR_RESOURCE_BUSY when a file is open, which is not touched, and
    ///         when the repair info file of that name belongs to a recording that is running;
    ///         the status of a failed open. The repair info file is touched last: what an earlier
    ///         recording left there is still there when anything else was refused. It keeps its
    ///         place when the working directory or the locale changes later.
    mp4_status_t Create(const wchar_t* pFilePath, mp4_config_t* config);
    /// The same with a configuration of these values. Block size and count are not used.
    mp4_status_t Create(const wchar_t* pFilePath, uint32_t nBlockSize, uint32_t nBufferBlocks,
                        uint8_t uFlag, mp4_io_mode ioMode, mp4_file_io_func_t* pFunc);

    /// The same for a path in UTF-8, which needs no locale: it is taken for the system's bytes, and
    /// callbacks of #mp4_file_io_func_t get it in wide characters.
    ///
    /// @param path       The path, copied; at most 1022 bytes, with the repair info file 1017.
    /// @param container  The kind of file.
    /// @param config     Read during the call; its callbacks must live until Close has returned.
    /// @return As above; #MP4_STATUS_INVALID_PARAMETER for an empty path, and for one that is not
    ///         UTF-8 or has a zero byte.
    mp4_status_t Create(std::string_view path, mp4_container container, const mp4_config_t& config);
    /// The same with the caller's output in its second form.
    ///
    /// @param path       The path in UTF-8, copied; `open` gets it, and the repair info file lies
    ///                   beside it.
    /// @param container  The kind of file.
    /// @param flags      Bits of #mp4_config_flag.
    /// @param callbacks  Copied.
    /// @return As above; #MP4_STATUS_INVALID_PARAMETER also when `tell`, `seek` or `write` is
    ///         missing, or `open` fails.
    mp4_status_t Create(std::string_view path, mp4_container container, uint32_t flags,
                        const mp4_io_callbacks_t& callbacks);

    /// Finishes the file: true media data size, index, then the repair info file is removed. With
    /// one beside a file of its own, the movie is pushed to the storage device before.
    ///
    /// Releases everything whatever happens. When the movie could not be finished, the failure's
    /// status is returned and the repair info file stays. Without a single frame the output stays
    /// empty, which is a success. A second Close does nothing.
    mp4_status_t Close();

    /// Sends this object's log lines to `function` instead of the link-time functions of zv_log.h,
    /// and what would go to standard output as well. Not while another operation runs.
    ///
    /// @param function  Null goes back to the link-time functions.
    /// @param user      Its first argument; must live as long as this object or until replaced.
    void SetLogCallback(mp4_log_callback_t function, void* user);

    /// Whether a file is open and its writer has not failed, as the last operation left it.
    bool IsOpen();
    /// Whether a repair info file was asked for and everything so far is in it. For any thread at
    /// any time.
    bool IsRepairInfoActive() const;
    /// Bytes: while open the offset of the next sample, after Close the final size.
    int64_t GetCurFileSize();
    /// Pushes what was written, of output and repair info file, to the storage device.
    /// @return Also the status with which a repair info file that was asked for has failed before.
    mp4_status_t Flush();
    /// The longer of the video and the audio duration so far in milliseconds; 0 when not open.
    uint64_t GetDurationMS();
    /// Bytes that the index would take if it were written now; 0 when not open. Constant time.
    uint32_t GetMoovSize();
    /// KiB per second of the video track so far, -1 when not open.
    double GetVideoBitrate();
    /// KiB per second of the audio track so far, -1 when not open.
    double GetAudioBitrate();
    /// Counts and times of the recording that runs, or of the last one.
    ///
    /// Any thread may call it at any time; it waits for no write. The numbers are each right, but
    /// not all of one moment.
    /// @param statistics  The caller sets `struct_size`; everything that lies within it is filled
    /// in.
    /// @return #MP4_STATUS_INVALID_PARAMETER for null or a `struct_size` that does not hold itself.
    mp4_status_t GetStatistics(mp4_statistics_t* statistics);
    /// Video frames between two pushes of the repair info file to the storage device; at least 10,
    /// otherwise #MP4_STATUS_INVALID_PARAMETER. 900 by default.
    mp4_status_t SetRepairFlushInterval(uint32_t interval);

    /// Turns composition offsets on or off for this file; off after Create.
    ///
    /// Off, presentation times do not reach the file: every sample is shown at its decode time. On,
    /// the difference of the two times given with each video frame is recorded (`ctts`), the edit
    /// list starts at the first picture shown, durations count what is presented, and for HEVC
    /// every random-access picture (CRA and BLA too) is marked as a sync sample. Without reordered
    /// frames and without such pictures the file is the same either way.
    /// @return #MP4_STATUS_INVALID_PARAMETER once the first frame has been written.
    mp4_status_t SetCompositionOffsets(bool enable);

    /// Makes the recording playable at every moment, without a repair: every interval, the index of
    /// what was just written follows behind it (ISO/IEC 14496-12, 8.8), and Close makes an ordinary
    /// file of it. Off after Create.
    ///
    /// After a crash every reader of fragmented files finds all intervals that were over. The index
    /// takes about 0.3 % more bytes; it covers the tracks that are declared and the metadata that
    /// is set when the first interval ends, what comes later is in the final index only. Memory is
    /// that of one interval. An output by callbacks sees three seeks for each interval.
    /// @param interval_ms  Milliseconds of a track's time from one index to the next; 0 turns it
    ///                     off. 1000 is a good choice.
    /// @return #MP4_STATUS_INVALID_PARAMETER once the first frame has been written or, with
    ///         #MP4_FLAG_REPAIR_INFO, the first track has been declared.
    mp4_status_t SetLiveIndex(uint32_t interval_ms);

    /// Keeps the times at which the tracks begin; off after Create, where every track begins at its
    /// own first sample.
    ///
    /// On, timestamps of all tracks count from the same moment, and the movie begins with what is
    /// shown first of any track. A track that begins later gets an empty edit before it
    /// (ISO/IEC 14496-12, 8.6.6), and durations of the movie, the tracks and their edits are exact,
    /// in a timescale that fits those of all tracks. The live index has the tracks' own beginnings
    /// until Close.
    /// @return #MP4_STATUS_INVALID_PARAMETER once the first frame has been written.
    mp4_status_t SetTimeline(bool keep_start_times);
    /// How much of the beginning of the sound is the encoder's own and not to be heard, while start
    /// times are kept; 0 after Create.
    ///
    /// The first frame's timestamp is that of its first sample, priming included: an encoder of
    /// AAC LC that is given sound from the time T on makes a frame of T - 1024 samples first (some
    /// 2112, HE-AAC 5186 by its own delay).
    /// @param samples  At the sample rate of the audio track.
    /// @return As SetTimeline.
    mp4_status_t SetAudioPriming(uint32_t samples);
    /// Says in the file how the pictures are shaped, turned and made of fields.
    /// @param shape  Copied.
    /// @return #MP4_STATUS_INVALID_PARAMETER for a `struct_size` that does not hold itself, a turn
    ///         that is not one of four, half a pixel shape or clean aperture, an unknown order of
    ///         fields, and once the first frame has been written.
    mp4_status_t SetVideoShape(const mp4_video_shape_t& shape);
    /// Says in the file of which colour and light the pictures are.
    /// @param colour  Copied.
    /// @return #MP4_STATUS_INVALID_PARAMETER for a `struct_size` that does not hold itself, and
    /// once
    ///         the first frame has been written.
    mp4_status_t SetVideoColour(const mp4_video_colour_t& colour);
    /// Writes boxes as the standard of the file's kind has them to the letter; off after Create,
    /// where a few keep an older form that most readers take.
    ///
    /// On, in both kinds: the sound description has the true number of channels, a timecode
    /// description ends where it should, and a track that was declared twice keeps nothing of its
    /// first description. In an MP4 file also: custom metadata is a full box, without which some
    /// readers of tags see none at all; handlers have names that end with a zero, and none stands
    /// in `minf`; tracks of captions and timecode have the 12 bytes of `nmhd`; and the brands are
    /// those whose rules are kept.
    /// @return #MP4_STATUS_INVALID_PARAMETER once the first frame has been written or, with
    ///         #MP4_FLAG_REPAIR_INFO, the first track has been declared.
    mp4_status_t SetStrictForm(bool strict);

    /// Puts every parameter set of an H.264 or HEVC stream into the file's description, instead of
    /// the first one of each kind; off after Create.
    ///
    /// On, sets of further numbers are taken from the configuration record and, whenever they come,
    /// from the frames: a stream that sends several once can be decoded from any key frame on. The
    /// first content of a number counts. An H.264 description then also ends with chroma format and
    /// bit depths, which profiles from High on ask for (ISO/IEC 14496-15, 5.3.3.1.2). Sets of a
    /// configuration record are taken when this comes before SetVideoTrack.
    /// @return #MP4_STATUS_INVALID_PARAMETER once the first frame has been written.
    mp4_status_t SetAllParameterSets(bool all);

    /// Declares the video track; may be called again before its first frame.
    ///
    /// Without parameter sets (sizes 0) they are taken from the stream, and frames before the
    /// first complete set are dropped. Parameter sets are copied.
    /// @return #MP4_STATUS_INVALID_PARAMETER for null, a timescale, width or height of 0 or a
    ///         negative parameter-set size; #MP4_STATUS_INVALID_CODEC_TYPE for an unknown codec;
    ///         #MP4_STATUS_UNEXPECTED_ERROR for parameter sets that the file cannot describe. A
    ///         refused declaration leaves the one before it in place.
    mp4_status_t SetVideoTrack(const mp4_video_track_info* pTrackInfo);
    /// Declares a video track whose frames have a length in front of each NAL unit instead of start
    /// codes (ISO/IEC 14496-15, 5.3.2), as many capture interfaces give them. The file is the same
    /// as from start codes.
    ///
    /// @param pTrackInfo  As above; its parameter sets are not looked at.
    /// @param record      The `avcC` or `hvcC` record without box header; read during the call. Of
    ///                    several sets of a kind the first is taken, which is logged; see
    ///                    SetAllParameterSets. Without sets they are taken from the stream.
    /// @param recordSize  Bytes.
    /// @return As above; #MP4_STATUS_INVALID_PARAMETER also for ProRes and for a record that cannot
    ///         be read. WriteVideoFrame then answers #MP4_STATUS_INVALID_VIDEO_STREAM for lengths
    ///         that do not fill the frame.
    mp4_status_t SetVideoTrack(const mp4_video_track_info* pTrackInfo, const uint8_t* record,
                               uint32_t recordSize);
    /// Puts a further parameter set into the description of the video track, which has its first
    /// ones already: for encoders that give theirs beside the frames. At any time until Close;
    /// another declaration of the track forgets it.
    ///
    /// @param nal   The NAL unit without start code or length; read during the call.
    /// @param size  Bytes; at most 32767.
    /// @return #MP4_STATUS_SUCCESS also for a set that is there already;
    ///         #MP4_STATUS_INVALID_VIDEO_TRACK without an H.264 or HEVC track that has its sets;
    ///         #MP4_STATUS_INVALID_PARAMETER for what is no parameter set of the codec, cannot be
    ///         read, or has the number of another set.
    mp4_status_t AddParameterSet(const uint8_t* nal, uint32_t size);
    /// Declares the audio track. ADTS without sample rate or channels takes both, and the profile,
    /// from the first frame's header.
    /// @return #MP4_STATUS_INVALID_PARAMETER for null, a timescale of 0, an unknown codec, or raw
    ///         AAC without sample rate or channels. A refused declaration leaves the one before it
    ///         in place.
    mp4_status_t SetAudioTrack(const mp4_audio_track_info_t* pTrackInfo);
    /// Declares the caption track. An unknown codec is refused when a packet is written.
    /// @return #MP4_STATUS_INVALID_PARAMETER for null.
    mp4_status_t SetSubtitleTrack(const mp4_subtitle_track_info_t* pTrackInfo);
    /// Declares the timecode track and makes the video track refer to it. The values are taken as
    /// they are: with a timescale of 0 no reader can tell the track's times.
    /// @return #MP4_STATUS_INVALID_PARAMETER for null.
    mp4_status_t SetTCMDTrack(const mp4_time_code_track_info_t* pTrackInfo);

    /// Adds a metadata item; key, data and namespace are copied.
    ///
    /// A well-known key ("title", "artist", ... or its four-byte tag) is stored as text in the
    /// iTunes form, set again it replaces its value. Any other key is stored in the QuickTime form
    /// with its type.
    /// @param pKey   A C string; the name, or the tag of a well-known item.
    /// @param pData  For #MP4_META_DATA_TYPE_STRING a C string, else `size` bytes.
    /// @param size   Bytes of `pData`; not used for strings.
    /// @param type   How `pData` is read, and how a reader is to understand the item.
    /// @param key_namespace  Four bytes, padded with zeros; null means "mdta".
    /// @return #MP4_STATUS_INVALID_PARAMETER for a null key or value, raw data or an integer of
    ///         size 0, an integer shorter than 4 bytes. An item of an unknown type is taken, but
    ///         logged and left out when the file is finished.
    mp4_status_t SetMetadata(const char* pKey, const char* pData, uint32_t size,
                             mp4_meta_data_type_t type, const char* key_namespace);

    /// Appends one video frame: an Annex-B access unit of H.264 or HEVC, or one ProRes frame.
    ///
    /// @param buf   The frame, read during the call.
    /// @param size  Bytes.
    /// @param pts  Presentation time in the track's ticks; see SetCompositionOffsets.
    /// @param dts  Decode time in the track's ticks. One that goes back, or forward by more than an
    ///             hour, is recorded as it is and logged; with composition offsets a decode time
    ///             that goes back is refused.
    /// @return #MP4_STATUS_SUCCESS also for an empty frame (logged) and for a frame dropped while
    ///         the parameter sets are looked for; #MP4_STATUS_INVALID_VIDEO_STREAM without a start
    ///         code; #MP4_STATUS_INVALID_VIDEO_TRACK without a declared track;
    ///         #MP4_STATUS_INVALID_PARAMETER for a frame of 2 GiB or more or a composition offset
    ///         that does not fit 32 bits, or with composition offsets a decode time before that of
    ///         the last frame (nothing of the frame is written);
    ///         #MP4_STATUS_NO_SPACE_LEFT_IN_HEADER when the file cannot describe another sample;
    ///         the status of a repair info file that fails in this call (the frame is recorded all
    ///         the same, and so is every later one).
    mp4_status_t WriteVideoFrame(const uint8_t* buf, uint32_t size, uint64_t pts, uint64_t dts);
    /// Appends one AAC frame. An ADTS header in front of it is recognised and stripped, with its
    /// CRC where the length in it is that of the buffer. A buffer with another length (several
    /// frames, or half a one) loses 7 bytes and is stored as it is, which is logged once: most
    /// players cannot play such a sample.
    ///
    /// @param buf   The frame, read during the call.
    /// @param size  Bytes.
    /// @param timestamp  In the audio track's ticks.
    /// @return #MP4_STATUS_SUCCESS also for an empty frame (logged);
    ///         #MP4_STATUS_INVALID_ADTS_STREAM when the configuration is to come from the stream
    ///         and the frame has no header; #MP4_STATUS_NO_SPACE_LEFT_IN_HEADER without a declared
    ///         track; and as for WriteVideoFrame.
    mp4_status_t WriteAudioFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp);
    /// Appends one caption packet: 61 02 n and byte triplets for CEA-608, 61 01 n and n bytes of a
    /// caption distribution packet for CEA-708.
    ///
    /// @param buf   The packet, read during the call.
    /// @param size  Bytes.
    /// @param timestamp  In the caption track's ticks.
    /// @return #MP4_STATUS_SUCCESS also for an empty or malformed packet (logged);
    ///         #MP4_STATUS_INVALID_SUBTITLE_TYPE without a known codec; and as for WriteVideoFrame.
    mp4_status_t WriteSubtitleFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp);
    /// Appends one timecode sample, the count of frames since 00:00:00:00. One per file is usual:
    /// it lasts as long as the video track.
    mp4_status_t WriteTimeCode(int nTimeCode);

private:
    std::unique_ptr<kx_mp4::MuxerState> m_state;
};

#endif  // KX_MP4_KX_MP4_MP4MUXER_H
