#include "minf.h"

using kx_mp4::kBoxHeaderSize;

void CMp4MinfAtom::Write() {
    WriteContainer("minf", [this] {
        WriteMhd();
        m_UrlHdlr.Write();
        m_dinf.Write();
        WriteStbl();
    });
}

uint32_t CMp4MinfAtom::GetSize() {
    return kBoxHeaderSize + m_dinf.GetSize() + m_UrlHdlr.GetSize();
}

CMp4BaseMinfAtom::CMp4BaseMinfAtom(IBaseIO* pWriter)
    : ContainerAtom(pWriter),
      m_gmhd(pWriter),
      m_nmhd(pWriter),
      m_Urlhdlr(pWriter),
      m_dinf(pWriter),
      m_stbl(pWriter) {}
