#include "VideoFrameParser.h"

#include <cstddef>
#include <cstring>

#include "StartCode.h"

using kx_mp4::FindStartCode;

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

// ITU-T H.264, table 7-1.
enum H264Type : uint8_t {
    kH264Idr = 5,
    kH264Sei = 6,
    kH264AccessUnitDelimiter = 9,  // 7 and 8, between them, are SPS and PPS
};

// ITU-T H.265, table 7-1.
enum HevcType : uint8_t {
    kHevcBlaWLp = 16,
    kHevcIdrWRadl = 19,
    kHevcIdrNLp = 20,
    kHevcCra = 21,
    kHevcPrefixSei = 39,
};

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

uint8_t CH264Nal::GetTag(const uint8_t* pbData, int /*cbData*/) {
    return pbData[0] & 0x1F;
}

bool CH264Nal::IsPayload(const uint8_t* pbData, int cbData) {
    const uint8_t type = GetTag(pbData, cbData);
    return type < kH264Sei || type > kH264AccessUnitDelimiter;
}

bool CH264Nal::IsKeyFrame(const uint8_t* pbData, int cbData) {
    return GetTag(pbData, cbData) == kH264Idr;
}

bool CH264Nal::IsRandomAccess(const uint8_t* pbData, int cbData) {
    return IsKeyFrame(pbData, cbData);
}

uint8_t CHevcNal::GetTag(const uint8_t* pbData, int /*cbData*/) {
    return static_cast<uint8_t>(pbData[0] >> 1) & 0x3F;
}

bool CHevcNal::IsPayload(const uint8_t* pbData, int cbData) {
    const uint8_t type = GetTag(pbData, cbData);
    return type <= kHevcCra || type == kHevcPrefixSei;
}

bool CHevcNal::IsKeyFrame(const uint8_t* pbData, int cbData) {
    const uint8_t type = GetTag(pbData, cbData);
    return type == kHevcIdrWRadl || type == kHevcIdrNLp;
}

bool CHevcNal::IsRandomAccess(const uint8_t* pbData, int cbData) {
    const uint8_t type = GetTag(pbData, cbData);
    return type >= kHevcBlaWLp && type <= kHevcCra;
}
