#include "mvhd.h"

#include "zv_log.h"

void CMp4MvhdAtom::Write() {
    m_startPos = Low32(WriterPos());
    CMp4LeafAtom::Write();
}

void CMp4MvhdAtom::Update() {
    if (m_startPos == 0) {
        zv_log_error("logic error", "src/mvhd", __LINE__, "Update");
        return;
    }
    RewriteTime(int64_t{m_startPos} + (m_b64bitTime ? 32 : 24), m_b64bitTime, m_nTotallDuration);
}
