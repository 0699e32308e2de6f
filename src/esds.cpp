#include "esds.h"

using kx_mp4::CountBytes;
using kx_mp4::Low16;
using kx_mp4::Low8;
using kx_mp4::PutFullBoxHeader;

void CMp4EsdsAtom::SetVosData(const uint8_t* pbData, int cbData) {
    m_vosData.clear();
    if (pbData != nullptr && cbData > 0) m_vosData.assign(pbData, pbData + cbData);
}

template <class Out, class Content>
void CMp4EsdsAtom::PutDesc(Out& out, int nTag, Content&& put) {
    const uint32_t size = CountBytes(put);
    out.WriteInt8(Low8(nTag));
    for (int shift = 21; shift > 0; shift -= 7)
        out.WriteInt8(Low8(0x80 | (size >> shift & 0x7F)));
    out.WriteInt8(Low8(size & 0x7F));
    put(out);
}

template <class Out>
void CMp4EsdsAtom::Put(Out& out) const {
    constexpr int kEsDescriptor = 3;
    constexpr int kDecoderConfig = 4;
    constexpr int kDecoderSpecificInfo = 5;
    constexpr int kSlConfig = 6;
    constexpr uint8_t kMpeg4Audio = 0x40;
    constexpr uint8_t kAudioStream = 5 << 2 | 1;  // stream type, not upstream, reserved 1
    PutFullBoxHeader(out, "esds");
    PutDesc(out, kEsDescriptor, [&](auto& es) {
        es.WriteInt16(Low16(m_iTrakId));
        es.WriteInt8(0);
        PutDesc(es, kDecoderConfig, [&](auto& decoder) {
            decoder.WriteInt8(kMpeg4Audio);
            decoder.WriteInt8(kAudioStream);
            decoder.WriteInt24(0);
            decoder.WriteInt32(0);
            decoder.WriteInt32(0);
            if (m_vosData.empty()) return;
            PutDesc(decoder, kDecoderSpecificInfo, [&](auto& info) {
                info.WriteBuf(m_vosData.data(), static_cast<uint32_t>(m_vosData.size()));
            });
        });
        PutDesc(es, kSlConfig, [](auto& sl) {
            constexpr uint8_t kPredefinedMp4 = 2;
            sl.WriteInt8(kPredefinedMp4);
        });
    });
}

void CMp4EsdsAtom::Write() {
    WriteLeaf(*this);
}

uint32_t CMp4EsdsAtom::GetSize() {
    return CountBytes([this](auto& out) { Put(out); });
}
