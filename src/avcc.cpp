#include "avcc.h"

#include "H264Syntax.h"
#include "Log.h"

namespace h264 = kx_mp4::h264;
using kx_mp4::CountBytes;
using kx_mp4::Low8;
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
void PutParameterSets(Out& out, uint8_t highBits, const std::vector<std::vector<uint8_t>>& sets) {
    out.WriteInt8(Low8(highBits | static_cast<int64_t>(sets.size())));
    for (const std::vector<uint8_t>& set : sets) {
        const auto size = static_cast<uint16_t>(set.size());
        out.WriteInt16(size);
        out.WriteBuf(set.data(), size);
    }
}

}  // namespace

void CMp4AvccAtom::SetVosData(const mp4_h264_parameter_set_t* pParam) {
    m_sps = {CopyOf(pParam->sps, pParam->sps_size)};
    m_pps = {CopyOf(pParam->pps, pParam->pps_size)};
    calcSize();
}

void CMp4AvccAtom::AddParameterSet(const std::vector<uint8_t>& set) {
    const uint8_t type = h264::NalUnitType(set.at(0));
    if (type == h264::kNalSps) m_sps.push_back(set);
    if (type == h264::kNalPps) m_pps.push_back(set);
    calcSize();
}

void CMp4AvccAtom::SetHighProfileFields(bool wanted) {
    m_highProfileFields = wanted;
    if (m_size != 0) calcSize();
}

template <class Out>
void CMp4AvccAtom::Put(Out& out) const {
    constexpr uint8_t kFourByteLengths = 0xFC | 3;
    constexpr uint8_t kSpsHighBits = 0xE0;
    PutBoxHeader(out, "avcC");
    out.WriteInt8(1);
    for (size_t i = 1; i < kSmallestSps; ++i)
        out.WriteInt8(i < FirstSps().size() ? FirstSps()[i] : 0);
    out.WriteInt8(kFourByteLengths);
    PutParameterSets(out, kSpsHighBits, m_sps);
    PutParameterSets(out, 0, m_pps);
    if (m_highProfileFields) PutHighProfileFields(out);
}

template <class Out>
void CMp4AvccAtom::PutHighProfileFields(Out& out) const {
    constexpr uint8_t kBaseline = 66;
    constexpr uint8_t kMain = 77;
    constexpr uint8_t kExtended = 88;
    h264::Sps sps;
    if (!h264::ParseSps(FirstSps().data(), FirstSps().size(), &sps)) return;
    const uint8_t profile = sps.profile_idc;
    if (profile == kBaseline || profile == kMain || profile == kExtended) return;
    out.WriteInt8(Low8(0xFC | sps.chroma_format_idc));
    out.WriteInt8(Low8(0xF8 | (sps.bit_depth_luma - 8)));
    out.WriteInt8(Low8(0xF8 | (sps.bit_depth_chroma - 8)));
    out.WriteInt8(0);
}

void CMp4AvccAtom::calcSize() {
    m_size = CountBytes([this](auto& out) { Put(out); });
}

void CMp4AvccAtom::Write() {
    if (FirstSps().size() < kSmallestSps || m_pps.front().empty()) {
        kx_mp4::LogError("Invalid sps(%d) or pps(%d) size !", "src/avcc", __LINE__, "Write",
                         static_cast<int>(FirstSps().size()),
                         static_cast<int>(m_pps.front().size()));
        throw int{kUnusableParameterSets};
    }
    WriteLeaf(*this);
}
