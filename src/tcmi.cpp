#include "tcmi.h"

using kx_mp4::CountBytes;
using kx_mp4::kBoxHeaderSize;
using kx_mp4::PutBox;

namespace {

/// Counted string: the length byte 13 and the characters.
constexpr char strFont[] = "\rLucida Grande";
constexpr uint32_t kFontLength = sizeof strFont - 1;
static_assert(strFont[0] == kFontLength - 1, "the length byte counts the name");

}  // namespace

template <class Out>
void CMp4TcmiAtom::PutTcmi(Out& out) {
    PutBox(out, "tcmi", [](auto& content) {
        constexpr uint16_t kBold = 1;
        constexpr uint16_t kPoints = 12;
        constexpr uint16_t kFull = 0xFFFF;
        content.WriteInt32(0);
        content.WriteInt16(0);
        content.WriteInt16(kBold);
        content.WriteInt16(kPoints);
        content.WriteInt16(0);
        for (int i = 0; i < 3; ++i)
            content.WriteInt16(kFull);
        for (int i = 0; i < 3; ++i)
            content.WriteInt16(0);
        content.WriteBuf(strFont, kFontLength);
    });
}

void CMp4TcmiAtom::Write() {
    WriteContainer("tmcd", [this] { FillBuffer([this] { PutTcmi(m_buffer); }); });
}

uint32_t CMp4TcmiAtom::GetSize() {
    return kBoxHeaderSize + CountBytes([](auto& out) { PutTcmi(out); });
}
