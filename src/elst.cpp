#include "elst.h"

#include "zv_log.h"

void CMp4ElstAtom::Write() {
    m_startPos = m_pWriter->Ftell();
    CMp4LeafAtom::Write();
}

void CMp4ElstAtom::Update() {
    if (m_startPos == 0) {
        zv_log_error("logic error, start position is 0", "src/elst", __LINE__, "Update");
        return;
    }
    RewriteTime(static_cast<int64_t>(m_startPos) + 16, m_b64bitTime, m_nTotallDuration);
}
