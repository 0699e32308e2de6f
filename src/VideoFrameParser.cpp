#include "VideoFrameParser.h"

#include <cstddef>
#include <cstring>

#include "H264Syntax.h"
#include "HevcSyntax.h"
#include "StartCode.h"

using kx_mp4::FindStartCode;
namespace h264 = kx_mp4::h264;
namespace hevc = kx_mp4::hevc;

namespace {

constexpr int kPrefixBytes = 3;

VIDEO_SLICE Slice(const uint8_t* begin, const uint8_t* end) {
    return {static_cast<int>(end - begin), begin};
}

// Nearly every frame begins with a four-byte start code; to look for that alone is cheaper than a
// search, and the processor can go on to the next search before the answer is there.
const uint8_t* FirstPrefix(const uint8_t* frame, const uint8_t* searchEnd) {
    constexpr uint8_t kLongStartCode[] = {0, 0, 0, 1};
    if (searchEnd - frame >= static_cast<ptrdiff_t>(sizeof kLongStartCode) &&
        std::memcmp(frame, kLongStartCode, sizeof kLongStartCode) == 0) {
        return frame + 1;
    }
    return FindStartCode(frame, searchEnd);
}

}  // namespace

bool CVideoFrameParser::Parse(const uint8_t* pbFrame, int cbFrame) {
    clear();
    if (pbFrame == nullptr || cbFrame <= kPrefixBytes) return false;
    const uint8_t* const end = pbFrame + cbFrame;
    const uint8_t* const searchEnd = end - 1;  // a prefix counts only if a byte follows it
    const uint8_t* head = nullptr;
    const uint8_t* prefix = FirstPrefix(pbFrame, searchEnd);
    while (prefix != searchEnd) {
        // prefix[-1] is never before `head`: the byte before `head` is the 01 of its start code.
        if (head != nullptr) push_back(Slice(head, prefix[-1] == 0 ? prefix - 1 : prefix));
        head = prefix + kPrefixBytes;
        prefix = FindStartCode(head, searchEnd);
    }
    if (head != nullptr) push_back(Slice(head, end));
    return !empty();
}

bool CVideoFrameParser::ParseLengths(const uint8_t* pbFrame, int cbFrame, uint32_t lengthSize) {
    clear();
    if (pbFrame == nullptr) return false;
    const uint8_t* const end = pbFrame + cbFrame;
    for (const uint8_t* next = pbFrame; next != end;) {
        if (static_cast<size_t>(end - next) < lengthSize) return false;
        uint32_t length = 0;
        for (uint32_t i = 0; i < lengthSize; ++i)
            length = length << 8 | *next++;
        if (static_cast<size_t>(end - next) < length) return false;
        if (length != 0) push_back(Slice(next, next + length));
        next += length;
    }
    return !empty();
}

uint8_t CH264Nal::GetTag(const uint8_t* pbData, int /*cbData*/) {
    return h264::NalUnitType(pbData[0]);
}

bool CH264Nal::IsPayload(const uint8_t* pbData, int cbData) {
    const uint8_t type = GetTag(pbData, cbData);
    return type < h264::kNalSei || type > h264::kNalAccessUnitDelimiter;
}

bool CH264Nal::IsKeyFrame(const uint8_t* pbData, int cbData) {
    return GetTag(pbData, cbData) == h264::kNalIdrSlice;
}

bool CH264Nal::IsRandomAccess(const uint8_t* pbData, int cbData) {
    return IsKeyFrame(pbData, cbData);
}

uint8_t CHevcNal::GetTag(const uint8_t* pbData, int /*cbData*/) {
    return hevc::NalUnitType(pbData[0]);
}

bool CHevcNal::IsPayload(const uint8_t* pbData, int cbData) {
    const uint8_t type = GetTag(pbData, cbData);
    return type <= hevc::kNalCra || type == hevc::kNalPrefixSei;
}

bool CHevcNal::IsKeyFrame(const uint8_t* pbData, int cbData) {
    const uint8_t type = GetTag(pbData, cbData);
    return type == hevc::kNalIdrWRadl || type == hevc::kNalIdrNLp;
}

bool CHevcNal::IsRandomAccess(const uint8_t* pbData, int cbData) {
    const uint8_t type = GetTag(pbData, cbData);
    return type >= hevc::kNalBlaWLp && type <= hevc::kNalCra;
}
