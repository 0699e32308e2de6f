#include "wave.h"

using kx_mp4::CountBytes;
using kx_mp4::FourCC;
using kx_mp4::PutBox;
using kx_mp4::PutBoxHeader;

template <class Out>
void CMp4WaveAtom::PutHead(Out& out) {
    PutBoxHeader(out, "wave");
    PutBox(out, "frma", [](auto& format) { format.WriteTag("mp4a"); });
    PutBox(out, "mp4a", [](auto& entry) { entry.WriteInt32(0); });
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
