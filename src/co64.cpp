#include "co64.h"

#include "Log.h"

namespace {
constexpr const char* kSource = "src/co64";
}  // namespace

bool CMp4Co64Atom::AddChunk(int64_t nOffset) {
    if (IsFull()) return Refuse(kSource, __LINE__, "AddChunk");
    m_buffer.WriteInt64(static_cast<uint64_t>(nOffset));
    ++m_frameNum;
    return true;
}

void CMp4Co64Atom::SetMaxFrame(uint32_t num) {
    Reserve(num, false);
    kx_mp4::LogInfo("max frame number:%u", kSource, __LINE__, "SetMaxFrame", num);
}

void CMp4Co64Atom::Update() {
    if (CanUpdate(kSource, __LINE__) && m_lastUpdateOffset != BufferedBytes()) Rewrite(m_frameNum);
}
