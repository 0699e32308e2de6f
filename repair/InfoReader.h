/// @file
/// Reads the repair info file (InfoWriter.h has its layout) record by record.
#ifndef KX_MP4_REPAIR_INFOREADER_H
#define KX_MP4_REPAIR_INFOREADER_H

#include <array>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "PosixFile.h"
#include "kx_mp4/kx_mp4.h"
#include "kx_mp4/repair.h"

namespace kx_mp4 {

struct MetadataRecord {
    mp4_meta_data_type_t type = MP4_META_DATA_TYPE_RAW;
    std::string key;
    std::string data;  // with its terminator when it is a string
    bool has_namespace = false;
    std::string name_space;
};

struct VideoFormatRecord {
    /// The description; its parameter sets point into `sets`, so it is made on demand.
    mp4_video_track_info_t Info() const;

    mp4_video_track_info_t head{};             // without parameter sets
    std::array<std::vector<uint8_t>, 3> sets;  // as in the file: SPS, PPS or VPS, SPS, PPS
};

struct FrameRecord {
    RepairTrack track = kRepairVideo;
    int64_t pts = 0;  // of a track with one time, that time
    int64_t dts = 0;
    bool sync = false;
    uint32_t size = 0;  // bytes in the media data
    int32_t timecode = 0;
};

using InfoRecord =
    std::variant<FrameRecord, VideoFormatRecord, mp4_audio_track_info_t, mp4_subtitle_track_info_t,
                 mp4_time_code_track_info_t, MetadataRecord>;

/// Goes once through the file, in pieces. Nothing that the file says is believed: every length is
/// held against the bytes that are left before anything is allocated for it.
///
/// Failures to read throw kx_mp4_exception.
class InfoReader {
public:
    /// Opens the file: also for writing where that is allowed, as some file systems want it for a
    /// lock.
    explicit InfoReader(const std::string& path);

    const PosixFile& File() const { return m_file; }
    /// Takes the file's size as it is now for its end. To be called once, when nobody writes to the
    /// file any more.
    void Begin() { m_size = m_file.Size(); }
    /// Position of the record that was read last.
    uint64_t RecordPosition() const { return m_recordPosition; }

    /// Flag byte and media data position. False when the file is too short to hold them.
    bool ReadHead(uint8_t& flags, uint32_t& mdatPosition);

    /// Reads the next record. False at the end of the file, and at a record that does not hold:
    /// then Problem says what is wrong with it.
    bool Next(InfoRecord& record);
    const std::string& Problem() const { return m_problem; }

private:
    bool Fail(const std::string& problem);
    bool ReadBody(uint8_t type, InfoRecord& record);
    bool ReadFrame(uint8_t type, FrameRecord& frame);
    bool ReadVideoFormat(VideoFormatRecord& format);
    bool ReadAudioFormat(mp4_audio_track_info_t& info);
    bool ReadCaptionFormat(mp4_subtitle_track_info_t& info);
    bool ReadTimecodeFormat(mp4_time_code_track_info_t& info);
    bool ReadMetadata(MetadataRecord& item);
    bool ReadParameterSet(std::vector<uint8_t>& set);
    bool ReadString(std::string& text, bool& present);
    bool EndMayBeUnwritten();

    uint64_t Left() const;
    /// Whether so many more bytes of strings and values can be there: the file may be large by
    /// holes alone.
    bool MayHold(uint64_t size);
    bool Bytes(void* out, size_t size);
    template <class Integer>
    bool Int(Integer& value);

    PosixFile m_file;
    uint64_t m_size = 0;
    uint64_t m_held = 0;  // bytes of strings and values so far
    uint64_t m_position = 0;
    uint64_t m_recordPosition = 0;
    std::vector<uint8_t> m_window;
    uint64_t m_windowStart = 0;
    std::string m_problem;
};

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_INFOREADER_H
