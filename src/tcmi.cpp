#include "tcmi.h"

using kx_mp4::CountBytes;
using kx_mp4::kBoxHeaderSize;

namespace {

/// Counted string: the length byte 13 and the characters.
constexpr char strFont[] = "\rLucida Grande";
constexpr uint32_t kFontLength = sizeof strFont - 1;
static_assert(strFont[0] == kFontLength - 1, "the length byte counts the name");

}  // namespace

template <class Out>
void CMp4TcmiAtom::PutTcmi(Out& out) {
    constexpr uint32_t kSize = 32 + kFontLength;
    constexpr uint16_t kBold = 1;
    constexpr uint16_t kPoints = 12;
    constexpr uint16_t kFull = 0xFFFF;
    out.WriteInt32(kSize);
    out.WriteTag("tcmi");
    out.WriteInt32(0);
    out.WriteInt16(0);
    out.WriteInt16(kBold);
    out.WriteInt16(kPoints);
    out.WriteInt16(0);
    for (int i = 0; i < 3; ++i)
        out.WriteInt16(kFull);
    for (int i = 0; i < 3; ++i)
        out.WriteInt16(0);
    out.WriteBuf(strFont, kFontLength);
}

void CMp4TcmiAtom::Write() {
    WriteContainer("tmcd", [this] { FillBuffer([this] { PutTcmi(m_buffer); }); });
}

uint32_t CMp4TcmiAtom::GetSize() {
    return kBoxHeaderSize + CountBytes([](auto& out) { PutTcmi(out); });
}
