#include "stss.h"

#include "Log.h"

using kx_mp4::Low32;

namespace {
constexpr const char* kSource = "src/stss";
}  // namespace

bool CMp4StssAtom::AddSyncSample(int32_t iSampleIndex) {
    if (IsFull()) {
        kx_mp4::LogError("video sync frame box(stss) have no left space", kSource, __LINE__,
                         "AddSyncSample");
        return false;
    }
    ++m_frameNum;
    m_buffer.WriteInt32(Low32(iSampleIndex));
    return true;
}

void CMp4StssAtom::Update() {
    if (CanUpdate(kSource, __LINE__)) Rewrite(m_frameNum);
}
