#include "stco.h"

using kx_mp4::Low32;

namespace {
constexpr const char* kSource = "src/stco";
}  // namespace

bool CMp4StcoAtom::AddChunk(int32_t nOffset) {
    if (IsFull()) return Refuse(kSource, __LINE__, "AddChunk");
    m_buffer.WriteInt32(Low32(nOffset));
    ++m_frameNum;
    return true;
}

void CMp4StcoAtom::Update() {
    if (CanUpdate(kSource, __LINE__) && m_lastUpdateOffset != BufferedBytes()) Rewrite(m_frameNum);
}
