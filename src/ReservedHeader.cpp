#include "ReservedHeader.h"

#include "BaseIO.h"
#include "Log.h"
#include "mdat.h"
#include "moov.h"

namespace kx_mp4 {
namespace {
constexpr const char* kSource = "src/ReservedHeader";
}  // namespace

mp4_status_t ReservedHeader::CheckDuration(uint64_t frameDuration, const char* function) const {
    if (!m_safeWrite || frameDuration != 0) return MP4_STATUS_SUCCESS;
    LogError("please set frame_duration in safe mode", kSource, __LINE__, function);
    return MP4_STATUS_INVALID_PARAMETER;
}

mp4_status_t ReservedHeader::CheckConfiguration(bool complete, const char* kind,
                                                const char* function) const {
    if (!m_safeWrite || complete) return MP4_STATUS_SUCCESS;
    LogError("please provide %s codec data in safe mode", kSource, __LINE__, function, kind);
    return MP4_STATUS_INVALID_PARAMETER;
}

mp4_status_t ReservedHeader::CheckCaptions(const char* function) const {
    if (!m_safeWrite) return MP4_STATUS_SUCCESS;
    LogError("subtitle not supported in safe mode", kSource, __LINE__, function);
    return MP4_STATUS_UNSUPPORTED;
}

uint64_t ReservedHeader::SizeBeforeFrame(IBaseIO& writer) const {
    return m_safeWrite ? writer.GetFileSize() : 0;
}

void ReservedHeader::AfterVideoFrame(IBaseIO& writer, uint64_t sizeBefore, CMp4MoovAtom& moov,
                                     CMp4MdatAtom& mdat) {
    if (!m_safeWrite) return;
    ++m_videoFrameNum;
    const bool due = m_videoFrameNum - m_lastWriteVideoFrameNum > m_safeWriteFrameNum;
    if (!due || writer.GetFileSize() == sizeBefore) return;
    const int64_t start = GetTimeTick();
    moov.Update();
    mdat.Update();
    m_lastWriteVideoFrameNum = m_videoFrameNum;
    LogInfo("update header to %u cost time %llums", kSource, __LINE__, "WriteVideoFrame",
            m_videoFrameNum, static_cast<unsigned long long>(GetTimeTick() - start));
}

}  // namespace kx_mp4
