#include "tkhd.h"

#include "zv_log.h"

void CMp4TkhdAtom::Write() {
    m_startPos = Low32(WriterPos());
    CMp4LeafAtom::Write();
}

void CMp4TkhdAtom::Update() {
    if (m_startPos == 0) {
        zv_log_error("logic error", "src/tkhd", __LINE__, "Update");
        return;
    }
    RewriteTime(int64_t{m_startPos} + (m_b64bitTime ? 36 : 28), m_b64bitTime, m_nTotallDuration);
}
