#include "mdhd.h"

#include "zv_log.h"

void CMp4MdhdAtom::Write() {
    m_startPos = m_pWriter->Ftell();
    CMp4LeafAtom::Write();
}

void CMp4MdhdAtom::Update() {
    if (m_startPos == 0) {
        zv_log_error("logic error", "src/mdhd", __LINE__, "Update");
        return;
    }
    RewriteTime(static_cast<int64_t>(m_startPos) + (m_b64bitTime ? 32 : 24), m_b64bitTime,
                m_nTotallDuration);
}
