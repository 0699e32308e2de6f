#include "hdlr.h"

using kx_mp4::PutFullBoxHeader;

void CMp4HdlrAtom::Write() {
    FillBuffer([this] {
        const auto start = static_cast<int64_t>(m_buffer.Ftell());
        PutFullBoxHeader(m_buffer, "hdlr");
        WriteHandlerType();
        m_buffer.WriteInt32(0);  // manufacturer
        m_buffer.WriteInt32(0);  // flags
        m_buffer.WriteInt32(0);  // flags mask
        WriteHandlerDesc();
        UpdateBufferSize(start);
    });
}
