#include "mdia.h"

void CMp4MdiaAtom::Write() {
    WriteContainer("mdia", [this] {
        m_mdhd.Write();
        WriteHdlr();
        WriteMinf();
    });
}
