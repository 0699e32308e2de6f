#include "InfoWriter.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "Log.h"
#include "keys.h"

using kx_mp4::ConvertPath;
using kx_mp4::NarrowPath;

namespace {
constexpr const char* kSource = "src/InfoWriter";
constexpr uint32_t kSmallestFlushInterval = 10;
constexpr uint32_t kDefaultTimeScale = 1000;
constexpr uint32_t kIntegerSize = 4;
}  // namespace

mp4_status_t CInfoWriter::Create(const wchar_t* pFilePath, uint32_t) {
    NarrowPath path;
    const mp4_status_t status = ConvertPath(pFilePath, path);
    return status == MP4_STATUS_SUCCESS ? Create(path.data()) : status;
}

mp4_status_t CInfoWriter::Create(const char* path) {
    Close();
    m_video_num = m_video_flush_num = 0;
    m_failure = m_writer.InitLocked(path, m_lock);
    m_record.Init(&m_writer);
    m_active = m_failure == MP4_STATUS_SUCCESS;
    return m_failure;
}

void CInfoWriter::Close() {
    m_active = false;
    m_writer.Uninit();
}

mp4_status_t CInfoWriter::Fail(mp4_status_t status) {
    Close();
    m_failure = status;
    return status;
}

mp4_status_t CInfoWriter::Flush() {
    try {
        const kx_mp4::FigureTimer timer(m_figures, &kx_mp4::Figures::OnPush);
        m_writer.Flush();
        return MP4_STATUS_SUCCESS;
    } catch (const kx_mp4_exception& e) {
        return Fail(e.error());
    } catch (...) {
        return MP4_STATUS_UNEXPECTED_ERROR;
    }
}

bool CInfoWriter::setFlushInterval(uint32_t interval) {
    if (interval < kSmallestFlushInterval) {
        kx_mp4::Print(MP4_LOG_ERROR, "ERROR:info file flush interval(%d) too small\n",
                      "src/InfoWriter", __LINE__, "setFlushInterval", static_cast<int>(interval));
        return false;
    }
    kx_mp4::Print(MP4_LOG_INFO, "change info file flush interval from %d to %d\n", "src/InfoWriter",
                  __LINE__, "setFlushInterval", static_cast<int>(m_flush_interval),
                  static_cast<int>(interval));
    m_flush_interval = interval;
    return true;
}

/// Writes one record in one piece; a failure ends the side file.
template <class Body>
mp4_status_t CInfoWriter::Record(Body&& writeBody) {
    if (!IsOpen()) return MP4_STATUS_SUCCESS;
    try {
        m_record.Clear();
        writeBody();
        m_record.Flush();
        return MP4_STATUS_SUCCESS;
    } catch (const kx_mp4_exception& e) {
        return Fail(e.error());
    } catch (...) {
        return Fail(MP4_STATUS_UNEXPECTED_ERROR);
    }
}

mp4_status_t CInfoWriter::WriteFlag(uint8_t byFlag) {
    return Record([&] { m_record.WriteInt8(byFlag); });
}

mp4_status_t CInfoWriter::WriteMdatOffset(uint32_t nPos) {
    return Record([&] { m_record.WriteInt32(nPos); });
}

void CInfoWriter::WriteString(const char* text, uint32_t size) {
    m_record.WriteInt32(size);
    if (size != 0) m_record.WriteBuf(text, size);
}

mp4_status_t CInfoWriter::WriteMetadata(const char* pKey, const char* pData, uint32_t size,
                                        mp4_meta_data_type_t type, const char* key_namespace) {
    const auto stringSize = [](const char* text) {
        return text == nullptr ? 0 : static_cast<uint32_t>(std::strlen(text) + 1);
    };
    // Nothing is read past the caller's bytes: what a record of fixed width lacks is zero.
    static constexpr char kZeros[kIntegerSize] = {};
    return Record([&] {
        m_record.WriteInt8(MIFPT_METADATA);
        m_record.WriteInt8(static_cast<uint8_t>(type));
        WriteString(pKey, stringSize(pKey));
        if (type == MP4_META_DATA_TYPE_STRING)
            WriteString(pData, stringSize(pData));
        else if (size == 0)
            WriteString(kZeros, kIntegerSize);
        else
            WriteString(pData, size);
        const std::string space(CMp4KeysAtom::NamespaceOf(key_namespace));
        WriteString(space.c_str(), key_namespace == nullptr ? 0 : stringSize(space.c_str()));
    });
}

void CInfoWriter::WriteParameterSet(const uint8_t* set, int16_t size) {
    m_record.WriteInt32(static_cast<uint32_t>(int32_t{size}));
    if (size > 0) m_record.WriteBuf(set, static_cast<uint32_t>(size));
}

mp4_status_t CInfoWriter::WriteVideoFormat(const mp4_video_track_info_t* pTrackInfo) {
    const mp4_video_track_info_t& info = *pTrackInfo;
    return Record([&] {
        m_record.WriteInt8(MIFPT_VIDEO_FORMAT);
        m_record.WriteInt32(info.timescale);
        m_record.WriteInt64(info.frame_duration);
        m_record.WriteInt8(static_cast<uint8_t>(info.codec));
        m_record.WriteInt16(info.width);
        m_record.WriteInt16(info.height);
        switch (info.codec) {
            case MP4_MVC_H264:
                WriteParameterSet(info.h264.sps, info.h264.sps_size);
                WriteParameterSet(info.h264.pps, info.h264.pps_size);
                break;
            case MP4_MVC_HEVC:
                WriteParameterSet(info.hevc.vps, info.hevc.vps_size);
                WriteParameterSet(info.hevc.sps, info.hevc.sps_size);
                WriteParameterSet(info.hevc.pps, info.hevc.pps_size);
                break;
            case MP4_MVC_PRORES:
                m_record.WriteInt8(static_cast<uint8_t>(info.prores.format));
                break;
            default:
                break;
        }
    });
}

mp4_status_t CInfoWriter::WriteAudioFormat(const mp4_audio_track_info_t* pTrackInfo) {
    return Record([&] {
        m_record.WriteInt8(MIFPT_AUDIO_FORMAT);
        m_record.WriteInt32(pTrackInfo->timescale);
        m_record.WriteInt64(pTrackInfo->frame_duration);
        m_record.WriteInt8(static_cast<uint8_t>(pTrackInfo->codec));
        m_record.WriteInt16(pTrackInfo->sample_rate);
        m_record.WriteInt16(pTrackInfo->channels);
        m_record.WriteInt8(pTrackInfo->profile);
    });
}

mp4_status_t CInfoWriter::WriteSubtitleFormat(const mp4_subtitle_track_info_t* pTrackInfo) {
    return Record([&] {
        m_record.WriteInt8(MIFPT_SUBTITLE_FORMAT);
        m_record.WriteInt32(pTrackInfo->timescale != 0 ? pTrackInfo->timescale : kDefaultTimeScale);
        m_record.WriteInt8(static_cast<uint8_t>(pTrackInfo->codec));
    });
}

mp4_status_t CInfoWriter::WriteTimeCodeFormat(const mp4_time_code_track_info_t* pTrackInfo) {
    return Record([&] {
        m_record.WriteInt8(MIFPT_TMCD_FORMAT);
        m_record.WriteInt32(pTrackInfo->timescale);
        m_record.WriteInt64(pTrackInfo->frame_duration);
        m_record.WriteInt8(pTrackInfo->frame_rate);
        m_record.WriteInt32(static_cast<uint32_t>(pTrackInfo->flags));
    });
}

mp4_status_t CInfoWriter::WriteVideoFrame(int cbFrame, int64_t nPts, int64_t nDts, bool bSync) {
    const mp4_status_t status = Record([&] {
        m_record.WriteInt8(MIFPT_VIDEO_FRAME);
        m_record.WriteInt64(static_cast<uint64_t>(nPts));
        m_record.WriteInt64(static_cast<uint64_t>(nDts));
        m_record.WriteInt8(bSync ? 1 : 0);
        m_record.WriteInt32(static_cast<uint32_t>(cbFrame));
    });
    if (status != MP4_STATUS_SUCCESS) return status;
    ++m_video_num;
    if (m_video_num - m_video_flush_num >= m_flush_interval) {
        if (Flush() != MP4_STATUS_SUCCESS)
            kx_mp4::LogError("repair info file cannot be pushed to the device, it ends here",
                             kSource, __LINE__, "WriteVideoFrame");
        m_video_flush_num = m_video_num;
    }
    return status;
}

mp4_status_t CInfoWriter::WriteAudioFrame(int cbFrame, int64_t nTimeStamp) {
    return Record([&] { WriteTimedFrame(MIFPT_AUDIO_FRAME, cbFrame, nTimeStamp); });
}

mp4_status_t CInfoWriter::WriteSubtitleFrame(int cbFrame, int64_t nTimeStamp) {
    return Record([&] { WriteTimedFrame(MIFPT_SUBTITLE_FRAME, cbFrame, nTimeStamp); });
}

void CInfoWriter::WriteTimedFrame(uint8_t type, int cbFrame, int64_t nTimeStamp) {
    m_record.WriteInt8(type);
    m_record.WriteInt64(static_cast<uint64_t>(nTimeStamp));
    m_record.WriteInt32(static_cast<uint32_t>(cbFrame));
}

mp4_status_t CInfoWriter::WriteTimeCode(int nTimeCode) {
    return Record([&] {
        m_record.WriteInt8(MIFPT_TMCD_FRAME);
        m_record.WriteInt32(static_cast<uint32_t>(nTimeCode));
    });
}
