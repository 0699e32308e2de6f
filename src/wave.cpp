#include "wave.h"

using kx_mp4::CountBytes;
using kx_mp4::FourCC;
using kx_mp4::PutBoxHeader;

template <class Out>
void CMp4WaveAtom::PutHead(Out& out) {
    constexpr uint32_t kChildSize = 12;
    PutBoxHeader(out, "wave");
    out.WriteInt32(kChildSize);
    out.WriteTag("frma");
    out.WriteTag("mp4a");
    out.WriteInt32(kChildSize);
    out.WriteTag("mp4a");
    out.WriteInt32(0);
}

template <class Out>
void CMp4WaveAtom::PutTerminator(Out& out) {
    PutBoxHeader(out, FourCC());
}

void CMp4WaveAtom::Write() {
    WriteHeadAndChildren(
        true, [](auto& out) { PutHead(out); },
        [this] {
            m_esds.Write();
            FillBuffer([this] { PutTerminator(m_buffer); });
        });
}

uint32_t CMp4WaveAtom::GetSize() {
    return m_esds.GetSize() + CountBytes([](auto& out) {
               PutHead(out);
               PutTerminator(out);
           });
}
