#include "avcc.h"

#include "Log.h"

using kx_mp4::CountBytes;
using kx_mp4::PutBoxHeader;

namespace {

constexpr size_t kSmallestSps = 4;  // header, profile, compatibility, level
/// Thrown by a box without usable parameter sets.
constexpr int kUnusableParameterSets = 49;

std::vector<uint8_t> CopyOf(const uint8_t* set, int16_t size) {
    if (set == nullptr || size <= 0) return {};
    return {set, set + size};
}

template <class Out>
void PutParameterSet(Out& out, const std::vector<uint8_t>& set) {
    const auto size = static_cast<uint16_t>(set.size());
    out.WriteInt16(size);
    out.WriteBuf(set.data(), size);
}

}  // namespace

void CMp4AvccAtom::SetVosData(const mp4_h264_parameter_set_t* pParam) {
    m_sps = CopyOf(pParam->sps, pParam->sps_size);
    m_pps = CopyOf(pParam->pps, pParam->pps_size);
    calcSize();
}

template <class Out>
void CMp4AvccAtom::Put(Out& out) const {
    constexpr uint8_t kFourByteLengths = 0xFC | 3;
    constexpr uint8_t kOneSps = 0xE0 | 1;
    PutBoxHeader(out, "avcC");
    out.WriteInt8(1);
    for (size_t i = 1; i < kSmallestSps; ++i)
        out.WriteInt8(i < m_sps.size() ? m_sps[i] : 0);
    out.WriteInt8(kFourByteLengths);
    out.WriteInt8(kOneSps);
    PutParameterSet(out, m_sps);
    out.WriteInt8(1);
    PutParameterSet(out, m_pps);
}

void CMp4AvccAtom::calcSize() {
    m_size = CountBytes([this](auto& out) { Put(out); });
}

void CMp4AvccAtom::Write() {
    if (m_sps.size() < kSmallestSps || m_pps.empty()) {
        kx_mp4::LogError("Invalid sps(%d) or pps(%d) size !", "src/avcc", __LINE__, "Write",
                         static_cast<int>(m_sps.size()), static_cast<int>(m_pps.size()));
        throw int{kUnusableParameterSets};
    }
    WriteLeaf(*this);
}
