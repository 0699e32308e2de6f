#include "InfoReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "InfoWriter.h"
#include "MediaReader.h"

namespace kx_mp4 {

namespace {

constexpr size_t kWindowBytes = size_t{64} << 10;
/// Lengths of a parameter set: the writer keeps them in 16 bits with a sign.
constexpr uint32_t kMaxParameterSet = INT16_MAX;
// The muxer takes unnamed values of these enumerations too; these are the largest that they hold.
constexpr uint8_t kLargestCaptionCodec = 3;
constexpr uint8_t kLargestProResFormat = 7;
constexpr uint8_t kLargestMetadataType = 31;
/// What all strings and values together may take beyond the bytes that the file has on the device.
constexpr uint64_t kSmallItem = uint64_t{16} << 20;
constexpr size_t kRecordTypes = MIFPT_TMCD_FRAME + 1;

const char* RecordName(uint8_t type) {
    static constexpr std::array<const char*, kRecordTypes> kNames = {
        "never written", "metadata",       "video format",  "audio format",    "video frame",
        "audio frame",   "caption format", "caption frame", "timecode format", "timecode"};
    return type < kNames.size() ? kNames[type] : "unknown";
}

}  // namespace

mp4_video_track_info_t VideoFormatRecord::Info() const {
    mp4_video_track_info_t info = head;
    const auto size = [this](size_t i) { return static_cast<int16_t>(sets[i].size()); };
    if (info.codec == MP4_MVC_H264)
        info.h264 = {sets[0].data(), size(0), sets[1].data(), size(1)};
    else if (info.codec == MP4_MVC_HEVC)
        info.hevc = {sets[1].data(), size(1), sets[2].data(), size(2), sets[0].data(), size(0)};
    return info;
}

InfoReader::InfoReader(const std::string& path)
    : m_file(path, access(path.c_str(), W_OK) == 0 ? O_RDWR : O_RDONLY) {}

bool InfoReader::Bytes(void* out, size_t size) {
    auto* next = static_cast<uint8_t*>(out);
    while (size != 0) {
        const uint64_t behind = m_position - m_windowStart;
        if (behind >= m_window.size()) {
            m_window.resize(static_cast<size_t>(std::min<uint64_t>(kWindowBytes, Left())));
            m_windowStart = m_position;
            m_window.resize(m_file.ReadAt(m_position, m_window.data(), m_window.size()));
            if (m_window.empty()) return false;
            continue;
        }
        const auto offset = static_cast<size_t>(behind);
        const size_t count = std::min(size, m_window.size() - offset);
        std::memcpy(next, m_window.data() + offset, count);
        next += count;
        size -= count;
        m_position += count;
    }
    return true;
}

template <class Integer>
bool InfoReader::Int(Integer& value) {
    std::array<uint8_t, sizeof(Integer)> bytes{};
    if (!Bytes(bytes.data(), bytes.size())) return false;
    uint64_t number = 0;
    for (const uint8_t byte : bytes)
        number = number << 8 | byte;
    value = static_cast<Integer>(number);
    return true;
}

bool InfoReader::MayHold(uint64_t size) {
    m_held += size;
    return m_held <= kSmallItem + m_file.BytesOnDevice();
}

uint64_t InfoReader::Left() const {
    return m_size - std::min(m_size, m_position);
}

bool InfoReader::ReadHead(uint8_t& flags, uint32_t& mdatPosition) {
    return Int(flags) && Int(mdatPosition);
}

bool InfoReader::Fail(const std::string& problem) {
    if (m_problem.empty()) m_problem = problem;
    return false;
}

bool InfoReader::Next(InfoRecord& record) {
    if (!m_problem.empty()) return false;
    m_recordPosition = m_position;
    uint8_t type = MIFPT_UNKNOWN;
    if (!Int(type)) return false;  // the end, at the end of a record
    if (!ReadBody(type, record))
        Fail("it is cut off");
    else if (EndMayBeUnwritten())
        Fail("its end lies in a page that was never written");
    if (m_problem.empty()) return true;
    m_problem = std::string(RecordName(type)) + " record at byte " +
                std::to_string(m_recordPosition) + " of the repair info file: " + m_problem;
    return false;
}

// A power cut leaves zeros where a page of the file never reached the disk. They are harmless as
// long as they begin with a record, for no type is 0. A record that began in the page before
// could be completed by them, and an audio frame of 0x173 bytes would seem to have 0x100:
//
//   ... page that was written | page of zeros ...
//       05 <time> 00 00 01    | 00 00 00 00 ...
bool InfoReader::EndMayBeUnwritten() {
    const uint64_t page = (m_position - 1) / kPageBytes * kPageBytes;
    if (page <= m_recordPosition) return false;
    // The byte after the record, when there is one, is part of the same run of zeros.
    std::vector<uint8_t> tail(static_cast<size_t>(m_position - page) + 1);
    tail.resize(m_file.ReadAt(page, tail.data(), tail.size()));
    return std::all_of(tail.begin(), tail.end(), [](uint8_t byte) { return byte == 0; });
}

bool InfoReader::ReadBody(uint8_t type, InfoRecord& record) {
    switch (type) {
        case MIFPT_METADATA:
            return ReadMetadata(record.emplace<MetadataRecord>());
        case MIFPT_VIDEO_FORMAT:
            return ReadVideoFormat(record.emplace<VideoFormatRecord>());
        case MIFPT_AUDIO_FORMAT:
            return ReadAudioFormat(record.emplace<mp4_audio_track_info_t>());
        case MIFPT_SUBTITLE_FORMAT:
            return ReadCaptionFormat(record.emplace<mp4_subtitle_track_info_t>());
        case MIFPT_TMCD_FORMAT:
            return ReadTimecodeFormat(record.emplace<mp4_time_code_track_info_t>());
        case MIFPT_VIDEO_FRAME:
        case MIFPT_AUDIO_FRAME:
        case MIFPT_SUBTITLE_FRAME:
        case MIFPT_TMCD_FRAME:
            return ReadFrame(type, record.emplace<FrameRecord>());
        default:
            return Fail("there is no record type " + std::to_string(type));
    }
}

bool InfoReader::ReadFrame(uint8_t type, FrameRecord& frame) {
    if (type == MIFPT_TMCD_FRAME) {
        frame.track = kRepairTimecode;
        frame.size = sizeof frame.timecode;
        return Int(frame.timecode);
    }
    if (!Int(frame.pts)) return false;
    frame.dts = frame.pts;
    uint8_t sync = 0;
    if (type == MIFPT_VIDEO_FRAME && !(Int(frame.dts) && Int(sync))) return false;
    if (!Int(frame.size)) return false;
    if (sync > 1) return Fail("its sync mark is neither 0 nor 1");
    frame.sync = sync == 1;
    frame.track = type == MIFPT_VIDEO_FRAME   ? kRepairVideo
                  : type == MIFPT_AUDIO_FRAME ? kRepairAudio
                                              : kRepairCaption;
    // Only a malformed caption packet makes an empty sample.
    if (frame.size == 0 && frame.track != kRepairCaption) return Fail("its size is 0");
    if (frame.size > INT32_MAX) return Fail("its size does not fit 31 bits");
    return true;
}

bool InfoReader::ReadParameterSet(std::vector<uint8_t>& set) {
    uint32_t size = 0;
    if (!Int(size)) return false;
    if (size == 0 || size > kMaxParameterSet) return Fail("a parameter set of impossible length");
    if (size > Left()) return false;
    set.resize(size);
    return Bytes(set.data(), size);
}

bool InfoReader::ReadVideoFormat(VideoFormatRecord& format) {
    uint8_t codec = 0;
    mp4_video_track_info_t& head = format.head;
    if (!(Int(head.timescale) && Int(head.frame_duration) && Int(codec) && Int(head.width) &&
          Int(head.height)))
        return false;
    if (head.timescale == 0 || head.width == 0 || head.height == 0)
        return Fail("timescale, width or height is 0");
    head.codec = static_cast<mp4_video_codec>(codec);
    switch (codec) {
        case MP4_MVC_H264:
            return ReadParameterSet(format.sets[0]) && ReadParameterSet(format.sets[1]);
        case MP4_MVC_HEVC:
            return ReadParameterSet(format.sets[0]) && ReadParameterSet(format.sets[1]) &&
                   ReadParameterSet(format.sets[2]);
        case MP4_MVC_PRORES: {
            uint8_t flavour = 0;
            if (!Int(flavour)) return false;
            if (flavour > kLargestProResFormat)
                return Fail("there is no ProRes format " + std::to_string(flavour));
            head.prores.format = static_cast<mp4_prores_format>(flavour);
            return true;
        }
        default:
            return Fail("there is no video codec " + std::to_string(codec));
    }
}

bool InfoReader::ReadAudioFormat(mp4_audio_track_info_t& info) {
    uint8_t codec = 0;
    if (!(Int(info.timescale) && Int(info.frame_duration) && Int(codec) && Int(info.sample_rate) &&
          Int(info.channels) && Int(info.profile)))
        return false;
    info.codec = static_cast<mp4_audio_codec>(codec);
    if (info.timescale == 0) return Fail("its timescale is 0");
    if (codec != MP4_MAC_AAC && codec != MP4_MAC_ADTS)
        return Fail("there is no audio codec " + std::to_string(codec));
    return true;
}

bool InfoReader::ReadCaptionFormat(mp4_subtitle_track_info_t& info) {
    uint8_t codec = 0;
    if (!(Int(info.timescale) && Int(codec))) return false;
    if (codec > kLargestCaptionCodec)
        return Fail("there is no caption codec " + std::to_string(codec));
    info.codec = static_cast<mp4_subtitle_codec>(codec);
    return true;
}

bool InfoReader::ReadTimecodeFormat(mp4_time_code_track_info_t& info) {
    return Int(info.timescale) && Int(info.frame_duration) && Int(info.frame_rate) &&
           Int(info.flags);
}

bool InfoReader::ReadString(std::string& text, bool& present) {
    uint32_t size = 0;
    if (!Int(size)) return false;
    present = size != 0;
    if (size > Left()) return false;
    if (!MayHold(size)) return Fail("a length of which the file has no bytes");
    text.resize(size);
    if (!Bytes(text.data(), size)) return false;
    if (present && text.find('\0') != size - 1) return Fail("a string without its end");
    if (present) text.pop_back();
    return true;
}

bool InfoReader::ReadMetadata(MetadataRecord& item) {
    uint8_t type = 0;
    uint32_t size = 0;
    bool hasKey = false;
    if (!(Int(type) && ReadString(item.key, hasKey) && Int(size))) return false;
    if (!hasKey) return Fail("its key is missing");
    if (size > Left()) return false;
    if (!MayHold(size)) return Fail("a length of which the file has no bytes");
    if (type > kLargestMetadataType)
        return Fail("there is no metadata type " + std::to_string(type));
    item.type = static_cast<mp4_meta_data_type_t>(type);
    item.data.resize(size);
    if (!Bytes(item.data.data(), size)) return false;
    const bool isString = item.type == MP4_META_DATA_TYPE_STRING;
    if (isString && (size == 0 || item.data.find('\0') != size - 1))
        return Fail("its value is not a string");
    return ReadString(item.name_space, item.has_namespace);
}

}  // namespace kx_mp4
