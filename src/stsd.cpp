#include "stsd.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "Log.h"

using kx_mp4::CountBytes;
using kx_mp4::Fixed16_16;
using kx_mp4::FourCC;
using kx_mp4::kFullBoxHeaderSize;
using kx_mp4::Low16;
using kx_mp4::Low32;
using kx_mp4::PutFullBoxHeader;

namespace {

constexpr const char* kSource = "src/stsd";
constexpr uint16_t kDataReferenceIndex = 1;

struct ProResKind {
    FourCC fourcc;
    const char* compressor = nullptr;
};

/// By mp4_prores_format.
constexpr ProResKind kProResKinds[] = {
    {"apco", "Apple ProRes 422 Proxy"}, {"apcs", "Apple ProRes 422 LT"},
    {"apcn", "Apple ProRes 422"},       {"apch", "Apple ProRes 422 HQ"},
    {"ap4h", "Apple ProRes 4444"},      {"ap4x", "Apple ProRes 4444 XQ"},
};

template <class Out>
void PutHead(Out& out) {
    constexpr uint32_t kEntryCount = 1;
    PutFullBoxHeader(out, "stsd");
    out.WriteInt32(kEntryCount);
}

/// What every sample entry begins with; the size is a placeholder.
template <class Out>
void PutEntryHead(Out& out, FourCC type) {
    out.WriteInt32(kFullBoxHeaderSize);
    out.WriteTag(type);
    out.WriteInt32(0);
    out.WriteInt16(0);
    out.WriteInt16(kDataReferenceIndex);
}

}  // namespace

// CMp4StsdAtom

void CMp4StsdAtom::Write() {
    WriteHeadAndChildren(
        true, [](auto& out) { PutHead(out); }, [this] { WriteMediaInfo(); });
}

uint32_t CMp4StsdAtom::GetSize() {
    return CountBytes([](auto& out) { PutHead(out); });
}

// CMp4VideoStsdAtom

CMp4VideoStsdAtom::CMp4VideoStsdAtom(IBaseIO* pWriter)
    : CMp4StsdAtom(pWriter), m_hvcc(pWriter), m_avcc(pWriter) {}

void CMp4VideoStsdAtom::SetH264(const mp4_h264_parameter_set_t* pParam) {
    m_szTag = "avc1";
    m_avcc.SetVosData(pParam);
}

void CMp4VideoStsdAtom::SetHevc(const mp4_hevc_parameter_set_t* pParam) {
    m_szTag = "hvc1";
    m_hvcc.SetVosData(pParam);
}

void CMp4VideoStsdAtom::AddParameterSet(const std::vector<uint8_t>& set) {
    if (m_szTag == "hvc1") m_hvcc.AddParameterSet(set);
    if (m_szTag == "avc1") m_avcc.AddParameterSet(set);
}

void CMp4VideoStsdAtom::SetProRes(const mp4_prores_parameter_set_t* pParam) {
    m_codec = MP4_MVC_PRORES;
    const auto format = static_cast<int>(pParam->format);
    if (format >= 0 && format < static_cast<int>(std::size(kProResKinds))) {
        m_fourcc = kProResKinds[format].fourcc;
        m_compressor = kProResKinds[format].compressor;
    } else {
        kx_mp4::LogError("invalid prores format %d", kSource, __LINE__, "SetProRes", format);
    }
    m_szTag = m_fourcc;
}

bool CMp4VideoStsdAtom::IsProRes() const {
    return m_codec == MP4_MVC_PRORES && (!IsStrict() || m_szTag == m_fourcc);
}

bool CMp4VideoStsdAtom::HasAlpha() const {
    const bool alpha = m_fourcc == "ap4x" || m_fourcc == "ap4h";
    return alpha && (!IsStrict() || IsProRes());
}

template <class Out>
void CMp4VideoStsdAtom::PutCompressorName(Out& out) const {
    char field[32] = {};
    if (IsStrict() && !IsProRes()) {
        out.WriteBuf(field, sizeof field);
        return;
    }
    const size_t length = std::min(m_compressor.size(), sizeof field - 1);
    field[0] = static_cast<char>(m_compressor.size());
    std::copy_n(m_compressor.begin(), length, field + 1);
    out.WriteBuf(field, sizeof field);
}

template <class Out>
void CMp4VideoStsdAtom::PutEntry(Out& out) const {
    constexpr uint32_t k72Dpi = 0x00480000;  // 16.16
    constexpr uint16_t kFrameCount = 1;
    constexpr uint16_t kDepth = 24;
    constexpr uint16_t kDepthWithAlpha = 32;
    constexpr uint16_t kNoColourTable = 0xFFFF;
    const bool prores = IsProRes();

    PutEntryHead(out, m_szTag);
    out.WriteInt16(0);  // version
    out.WriteInt16(0);  // revision level
    out.WriteTag(prores ? FourCC("appl") : FourCC());
    out.WriteInt32(0);  // temporal quality
    out.WriteInt32(0);  // spatial quality
    out.WriteInt16(Low16(m_nWidth));
    out.WriteInt16(Low16(m_nHeight));
    out.WriteInt32(k72Dpi);
    out.WriteInt32(k72Dpi);
    out.WriteInt32(0);  // data size
    out.WriteInt16(kFrameCount);
    PutCompressorName(out);
    out.WriteInt16(HasAlpha() ? kDepthWithAlpha : kDepth);
    out.WriteInt16(kNoColourTable);
    if (prores) PutPresentation(out);
}

template <class Out>
void CMp4VideoStsdAtom::PutPresentation(Out& out) const {
    const mp4_video_shape_t& shape = m_presentation.shape;
    const bool prores = IsProRes();
    if (shape.field_order != MP4_FIELDS_NOT_SAID)
        CMp4FielAtom::Put(out, shape.field_order);
    else if (prores)
        CMp4FielAtom::Put(out);
    if (m_presentation.HasColour()) PutColour(out);
    if (prores || m_presentation.HasPixelAspect()) {
        kx_mp4::PutBox(out, "pasp", [&](auto& aspect) {
            aspect.WriteInt32(m_presentation.HasPixelAspect() ? shape.pixel_width : 1);
            aspect.WriteInt32(m_presentation.HasPixelAspect() ? shape.pixel_height : 1);
        });
    }
    if (m_presentation.HasCleanAperture()) PutCleanAperture(out);
    PutLight(out);
}

/// ISO/IEC 14496-12, 12.1.5; QuickTime's form has no mark of the full range.
template <class Out>
void CMp4VideoStsdAtom::PutColour(Out& out) const {
    kx_mp4::PutBox(out, "colr", [this](auto& colr) {
        constexpr uint8_t kFullRange = 0x80;
        const mp4_video_colour_t& colour = m_presentation.colour;
        colr.WriteTag(m_qt ? "nclc" : "nclx");
        colr.WriteInt16(colour.primaries);
        colr.WriteInt16(colour.transfer);
        colr.WriteInt16(colour.matrix);
        if (!m_qt) colr.WriteInt8(colour.full_range != 0 ? kFullRange : uint8_t{0});
    });
}

/// ISO/IEC 14496-12, 12.1.4.1: sizes and the centre's place as fractions, from the picture's
/// centre.
template <class Out>
void CMp4VideoStsdAtom::PutCleanAperture(Out& out) const {
    kx_mp4::PutBox(out, "clap", [this](auto& clap) {
        const mp4_video_shape_t& shape = m_presentation.shape;
        const auto twiceOffset = [](uint32_t from, uint32_t size, int whole) {
            return Low32(2 * int64_t{from} + size - whole);
        };
        clap.WriteInt32(shape.clean_width);
        clap.WriteInt32(1);
        clap.WriteInt32(shape.clean_height);
        clap.WriteInt32(1);
        clap.WriteInt32(twiceOffset(shape.clean_x, shape.clean_width, m_nWidth));
        clap.WriteInt32(2);
        clap.WriteInt32(twiceOffset(shape.clean_y, shape.clean_height, m_nHeight));
        clap.WriteInt32(2);
    });
}

/// ISO/IEC 14496-12, 12.1.7 and 12.1.6.
template <class Out>
void CMp4VideoStsdAtom::PutLight(Out& out) const {
    const mp4_video_colour_t& colour = m_presentation.colour;
    if (colour.has_mastering_display != 0) {
        kx_mp4::PutBox(out, "mdcv", [&](auto& mdcv) {
            for (const auto& primary : colour.display_primaries) {
                mdcv.WriteInt16(primary[0]);
                mdcv.WriteInt16(primary[1]);
            }
            mdcv.WriteInt16(colour.white_point[0]);
            mdcv.WriteInt16(colour.white_point[1]);
            mdcv.WriteInt32(colour.max_luminance);
            mdcv.WriteInt32(colour.min_luminance);
        });
    }
    if (colour.has_content_light != 0) {
        kx_mp4::PutBox(out, "clli", [&](auto& clli) {
            clli.WriteInt16(colour.max_content_light_level);
            clli.WriteInt16(colour.max_frame_average_light_level);
        });
    }
}

CMp4Atom* CMp4VideoStsdAtom::Configuration() {
    if (m_szTag == "hvc1") return &m_hvcc;
    if (m_szTag == "avc1") return &m_avcc;
    return nullptr;
}

void CMp4VideoStsdAtom::WriteMediaInfo() {
    WriteHeadAndChildren(
        false, [this](auto& out) { PutEntry(out); },
        [this] {
            CMp4Atom* const configuration = Configuration();
            if (configuration == nullptr) return;
            configuration->Write();
            if (PresentationSize() != 0) FillBuffer([this] { PutPresentation(m_buffer); });
        });
}

uint32_t CMp4VideoStsdAtom::GetSize() {
    CMp4Atom* const configuration = Configuration();
    const uint32_t entry =
        CMp4StsdAtom::GetSize() + CountBytes([this](auto& out) { PutEntry(out); });
    if (configuration == nullptr) return entry;
    return entry + configuration->GetSize() + PresentationSize();
}

uint32_t CMp4VideoStsdAtom::PresentationSize() const {
    return CountBytes([this](auto& out) { PutPresentation(out); });
}

// CMp4AudioStsdAtom

void CMp4AudioStsdAtom::SetAAC(const uint8_t* pbData, int cbData) {
    m_szTag = "mp4a";
    m_wave.SetVosData(pbData, cbData);
    m_esds.SetVosData(pbData, cbData);
}

void CMp4AudioStsdAtom::SetTrakId(int iId) {
    m_wave.SetTrakId(iId);
    m_esds.SetTrakId(iId);
}

uint32_t CMp4AudioStsdAtom::SampleRateField() const {
    constexpr int kFirstThatDoesNotFit = 65536;
    return m_nSamplerate < kFirstThatDoesNotFit ? Fixed16_16(m_nSamplerate) : 0;
}

namespace {
constexpr uint16_t kSoundChannels = 2;
constexpr uint16_t kSoundSampleBits = 16;
}  // namespace

/// Configuration 0 has its channels in a program config element; 7 are 7.1, 11 and up less usual.
uint16_t CMp4AudioStsdAtom::ChannelField() const {
    constexpr uint16_t kByConfiguration[] = {kSoundChannels, 1, 2, 3, 4, 5, 6, 8};
    const auto configuration = static_cast<size_t>(m_nChannels);
    if (!IsStrict() || configuration >= std::size(kByConfiguration)) return kSoundChannels;
    return kByConfiguration[configuration];
}

template <class Out>
void CMp4AudioStsdAtom::PutMp4Entry(Out& out) const {
    PutEntryHead(out, m_szTag);
    out.WriteInt64(0);
    out.WriteInt16(ChannelField());
    out.WriteInt16(kSoundSampleBits);
    out.WriteInt16(0);
    out.WriteInt16(0);
    out.WriteInt32(SampleRateField());
}

template <class Out>
void CMp4AudioStsdAtom::PutQtEntry(Out& out) const {
    constexpr uint16_t kVersion = 1;
    constexpr uint16_t kVariableCompression = 0xFFFE;  // -2
    PutEntryHead(out, m_szTag);
    out.WriteInt16(kVersion);
    out.WriteInt16(0);  // revision level
    out.WriteInt32(0);  // vendor
    out.WriteInt16(ChannelField());
    out.WriteInt16(kSoundSampleBits);
    out.WriteInt16(kVariableCompression);
    out.WriteInt16(0);  // packet size
    out.WriteInt32(SampleRateField());
    out.WriteInt32(0);  // samples per packet
    out.WriteInt32(0);  // bytes per packet
    out.WriteInt32(0);  // bytes per frame
    out.WriteInt32(0);  // bytes per sample
}

void CMp4AudioStsdAtom::WriteMediaInfo() {
    if (m_qt)
        WriteQtMediaInfo();
    else
        WriteMp4MediaInfo();
}

void CMp4AudioStsdAtom::WriteMp4MediaInfo() {
    WriteHeadAndChildren(
        false, [this](auto& out) { PutMp4Entry(out); }, [this] { m_esds.Write(); });
}

void CMp4AudioStsdAtom::WriteQtMediaInfo() {
    WriteHeadAndChildren(
        false, [this](auto& out) { PutQtEntry(out); }, [this] { m_wave.Write(); });
}

uint32_t CMp4AudioStsdAtom::GetSize() {
    const uint32_t entry = m_qt ? CountBytes([this](auto& out) { PutQtEntry(out); })
                                : CountBytes([this](auto& out) { PutMp4Entry(out); });
    return CMp4StsdAtom::GetSize() + entry + (m_qt ? m_wave.GetSize() : m_esds.GetSize());
}

// CMp4SubtitleStsdAtom

void CMp4SubtitleStsdAtom::SetCodec(mp4_subtitle_codec codec) {
    switch (codec) {
        case MP4_SUBTITLE_CODEC_CC608:
            m_szTag = "c608";
            break;
        case MP4_SUBTITLE_CODEC_CC708:
            m_szTag = "c708";
            break;
        default:
            kx_mp4::LogError("unknown subtitle codec %d", kSource, __LINE__, "SetCodec", codec);
    }
}

template <class Out>
void CMp4SubtitleStsdAtom::PutEntry(Out& out) const {
    PutEntryHead(out, m_szTag);
}

void CMp4SubtitleStsdAtom::WriteMediaInfo() {
    WriteHeadAndChildren(
        false, [this](auto& out) { PutEntry(out); }, [] {});
}

uint32_t CMp4SubtitleStsdAtom::GetSize() {
    return CMp4StsdAtom::GetSize() + CountBytes([this](auto& out) { PutEntry(out); });
}

// CMp4TMCDStsdAutom

template <class Out>
void CMp4TMCDStsdAutom::PutEntry(Out& out) const {
    PutEntryHead(out, "tmcd");
    out.WriteInt32(0);
    out.WriteInt32(Low32(m_nFlags));
    out.WriteInt32(Low32(m_nTimeScale));
    out.WriteInt32(Low32(m_nFrameDuration));
    out.WriteInt8(m_nNumOfFrames);
    out.WriteInt8(0);
    if (!IsStrict()) out.WriteInt16(0);
}

void CMp4TMCDStsdAutom::WriteMediaInfo() {
    WriteHeadAndChildren(
        false, [this](auto& out) { PutEntry(out); }, [] {});
}

uint32_t CMp4TMCDStsdAutom::GetSize() {
    return CMp4StsdAtom::GetSize() + CountBytes([this](auto& out) { PutEntry(out); });
}
