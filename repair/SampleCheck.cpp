#include "SampleCheck.h"

#include <algorithm>
#include <array>

#include "FourCC.h"
#include "H264Syntax.h"
#include "HevcSyntax.h"

namespace kx_mp4 {

namespace {

constexpr uint32_t kLengthField = 4;
constexpr uint32_t kAtomHeader = 8;
constexpr uint32_t kLine21Atom = 10;  // header and one byte pair
constexpr uint8_t kForbiddenZeroBit = 0x80;

constexpr uint32_t CodeOf(FourCC code) {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = value << 8 | static_cast<uint8_t>(code[i]);
    return value;
}

}  // namespace

SampleVerdict SampleCheck::Fail(const std::string& problem) {
    m_problem = problem;
    return SampleVerdict::kRefuted;
}

bool SampleCheck::ReadInt(uint64_t position, uint32_t& value) {
    std::array<uint8_t, 4> bytes{};
    if (!m_media.Read(position, bytes.data(), bytes.size())) return false;
    value = 0;
    for (const uint8_t byte : bytes)
        value = value << 8 | byte;
    return true;
}

SampleVerdict SampleCheck::Distrust(const char* doubt) {
    m_doubt = doubt;
    return SampleVerdict::kDoubtful;
}

void SampleCheck::SetVideoFormat(const VideoFormatRecord& format) {
    m_videoCodec = format.head.codec;
    m_nal.reset();
    m_sps.clear();
    if (m_videoCodec == MP4_MVC_H264) {
        m_nal = std::make_unique<CH264Nal>();
        m_sps = format.sets[0];
    } else if (m_videoCodec == MP4_MVC_HEVC) {
        m_nal = std::make_unique<CHevcNal>();
        m_sps = format.sets[1];
    }
}

size_t SampleCheck::ZerosOfNoSample(RepairTrack track) const {
    const bool unmarked = track == kRepairAudio || (track == kRepairVideo && m_nal == nullptr);
    return unmarked ? kZerosOfNoSample : kZerosOfNoMarkedSample;
}

SampleVerdict SampleCheck::Check(const FrameRecord& frame, uint64_t position) {
    if (position > m_media.Limit() || frame.size > m_media.Limit() - position)
        return Fail("it points past the end of the media data");
    const auto check = [&] {
        switch (frame.track) {
            case kRepairVideo:
                return CheckVideo(frame, position);
            case kRepairAudio:
                return CheckAac(frame.size, position);
            case kRepairCaption:
                return CheckCaption(frame.size, position);
            default:
                return CheckTimecode(frame.timecode, position);
        }
    };
    const SampleVerdict verdict = check();
    if (verdict != SampleVerdict::kHolds) return verdict;
    const size_t zeros = ZerosOfNoSample(frame.track);
    return m_media.LooksUnwritten(position, position + frame.size, zeros)
               ? Distrust("lie on bytes that look as if they had never been written")
               : verdict;
}

SampleVerdict SampleCheck::CheckVideo(const FrameRecord& frame, uint64_t position) {
    if (m_nal != nullptr) return CheckNalUnits(frame, position);
    if (m_videoCodec != MP4_MVC_PRORES) return Fail("there is no video format before it");
    if (!frame.sync) return Fail("a ProRes frame that is not marked as sync");
    return CheckProRes(frame.size, position);
}

// The lengths must lead exactly to the sample's end, each to a NAL unit header (ITU-T H.264,
// 7.3.1; H.265, 7.3.1.2). Two start codes in a row leave one empty unit; a run of empty units is
// what a page of zeros looks like.
SampleVerdict SampleCheck::CheckNalUnits(const FrameRecord& frame, uint64_t position) {
    const uint64_t end = position + frame.size;
    bool key = false;
    bool randomAccess = false;
    bool lastWasEmpty = false;
    bool hasUnit = false;
    while (position != end) {
        uint32_t length = 0;
        if (end - position < kLengthField || !ReadInt(position, length))
            return Fail("its NAL units do not end with the sample");
        position += kLengthField;
        if (length > end - position) return Fail("a NAL unit is longer than the sample");
        if (length == 0 && lastWasEmpty) return Fail("its media data was never written");
        lastWasEmpty = length == 0;
        if (length == 0) continue;
        std::array<uint8_t, 2> head{};
        if (!m_media.Read(position, head.data(), std::min<size_t>(length, head.size())))
            return Fail("its media data cannot be read");
        if ((head[0] & kForbiddenZeroBit) != 0) return Fail("a NAL unit header is impossible");
        const auto size = static_cast<int>(length);
        key = key || m_nal->IsKeyFrame(head.data(), size);
        randomAccess = randomAccess || m_nal->IsRandomAccess(head.data(), size);
        hasUnit = true;
        CompareParameterSet(head[0], length, position);
        position += length;
    }
    if (!hasUnit) return Fail("it holds no NAL unit");
    // HEVC pictures of type CRA and BLA are marked as sync with composition offsets only.
    if (key != frame.sync && !(randomAccess && frame.sync))
        return Fail("its sync mark contradicts its NAL units");
    return SampleVerdict::kHolds;
}

void SampleCheck::CompareParameterSet(uint8_t header, uint32_t length, uint64_t position) {
    const uint8_t spsType = m_videoCodec == MP4_MVC_H264 ? uint8_t{kx_mp4::h264::kNalSps}
                                                         : uint8_t{kx_mp4::hevc::kNalSps};
    if (m_spsMatched || m_nal->GetTag(&header, 1) != spsType) return;
    m_spsSeen = true;
    if (length != m_sps.size()) return;
    std::vector<uint8_t> set(length);
    m_spsMatched = m_media.Read(position, set.data(), length) && set == m_sps;
}

// ISO/IEC 14496-3, 4.4.2.1: a raw data block ends with ID_END, three ones, and zeros up to the
// byte.
SampleVerdict SampleCheck::CheckAac(uint32_t size, uint64_t position) {
    constexpr unsigned kIdEnd = 7;
    std::array<uint8_t, 2> tail{};
    const uint32_t count = std::min<uint32_t>(size, 2);
    if (!m_media.Read(position + size - count, tail.data() + 2 - count, count))
        return Fail("its media data cannot be read");
    unsigned bits = static_cast<unsigned>(tail[0]) << 8 | tail[1];
    for (int zeros = 0; zeros < 7 && (bits & 1) == 0; ++zeros)
        bits >>= 1;
    ++m_aacFrames;
    if ((bits & kIdEnd) == kIdEnd) return SampleVerdict::kHolds;
    ++m_aacOdd;
    return Distrust("do not end as AAC frames do");
}

// SMPTE RDD 36, 5.1: the frame's size and the identifier 'icpf'. An encoder may pad the frame.
SampleVerdict SampleCheck::CheckProRes(uint32_t size, uint64_t position) {
    uint32_t frameSize = 0;
    uint32_t identifier = 0;
    if (size < kAtomHeader || !ReadInt(position, frameSize) || !ReadInt(position + 4, identifier))
        return Fail("it is too short for a ProRes frame");
    if (identifier != CodeOf("icpf")) return Fail("it has no ProRes frame header");
    if (frameSize < kAtomHeader || frameSize > size)
        return Fail("its size contradicts its ProRes frame header");
    return SampleVerdict::kHolds;
}

// QuickTime caption samples: CEA-608 as atoms of one byte pair, CEA-708 as one atom.
SampleVerdict SampleCheck::CheckCaption(uint32_t size, uint64_t position) {
    const bool line21 = m_captionCodec == MP4_SUBTITLE_CODEC_CC608;
    if (!line21 && m_captionCodec != MP4_SUBTITLE_CODEC_CC708)
        return Fail("there is no caption format before it");
    if (size == 0) return SampleVerdict::kHolds;
    const uint64_t end = position + size;
    const uint32_t atom = line21 ? kLine21Atom : size;
    while (position != end) {
        uint32_t atomSize = 0;
        uint32_t type = 0;
        if (end - position < std::max(atom, kAtomHeader) || !ReadInt(position, atomSize) ||
            !ReadInt(position + 4, type))
            return Fail("its caption atoms do not end with the sample");
        const bool known =
            line21 ? type == CodeOf("cdat") || type == CodeOf("cdt2") : type == CodeOf("ccdp");
        if (!known || atomSize != atom) return Fail("a caption atom is impossible");
        position += atom;
    }
    return SampleVerdict::kHolds;
}

SampleVerdict SampleCheck::CheckTimecode(int32_t timecode, uint64_t position) {
    uint32_t value = 0;
    if (!ReadInt(position, value)) return Fail("its media data cannot be read");
    if (value != static_cast<uint32_t>(timecode))
        return Fail("its counter is not the one in the media data");
    return SampleVerdict::kHolds;
}

}  // namespace kx_mp4
