#include "esds.h"

using kx_mp4::CountBytes;
using kx_mp4::Low16;
using kx_mp4::Low8;
using kx_mp4::PutFullBoxHeader;

void CMp4EsdsAtom::SetVosData(const uint8_t* pbData, int cbData) {
    m_vosData.clear();
    if (pbData != nullptr && cbData > 0) m_vosData.assign(pbData, pbData + cbData);
}

template <class Out>
void CMp4EsdsAtom::PutDesc(Out& out, int nTag, uint32_t nSize) {
    out.WriteInt8(Low8(nTag));
    for (int shift = 21; shift > 0; shift -= 7)
        out.WriteInt8(Low8(0x80 | (nSize >> shift & 0x7F)));
    out.WriteInt8(Low8(nSize & 0x7F));
}

template <class Out>
void CMp4EsdsAtom::Put(Out& out) const {
    constexpr int kEsDescriptor = 3;
    constexpr int kDecoderConfig = 4;
    constexpr int kDecoderSpecificInfo = 5;
    constexpr int kSlConfig = 6;
    constexpr uint8_t kMpeg4Audio = 0x40;
    constexpr uint8_t kAudioStream = 5 << 2 | 1;  // stream type, not upstream, reserved 1
    constexpr uint8_t kPredefinedMp4 = 2;
    constexpr uint32_t kDescriptorHeader = 5;

    const auto config = static_cast<uint32_t>(m_vosData.size());
    const uint32_t specificInfo = config != 0 ? kDescriptorHeader + config : 0;
    PutFullBoxHeader(out, "esds");
    PutDesc(out, kEsDescriptor, 27 + specificInfo);
    out.WriteInt16(Low16(m_iTrakId));
    out.WriteInt8(0);
    PutDesc(out, kDecoderConfig, 13 + specificInfo);
    out.WriteInt8(kMpeg4Audio);
    out.WriteInt8(kAudioStream);
    out.WriteInt24(0);
    out.WriteInt32(0);
    out.WriteInt32(0);
    if (config != 0) {
        PutDesc(out, kDecoderSpecificInfo, config);
        out.WriteBuf(m_vosData.data(), config);
    }
    PutDesc(out, kSlConfig, 1);
    out.WriteInt8(kPredefinedMp4);
}

void CMp4EsdsAtom::Write() {
    WriteLeaf(*this);
}

uint32_t CMp4EsdsAtom::GetSize() {
    return CountBytes([this](auto& out) { Put(out); });
}
