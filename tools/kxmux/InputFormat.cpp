#include "InputFormat.h"

#include <algorithm>
#include <cctype>
#include <optional>

#include "ByteSource.h"

namespace kxmux {
namespace {

using namespace std::string_view_literals;

struct Extensions {
    mp4_video_codec codec;
    const char* name;
    std::vector<std::string_view> list;
};

const std::vector<Extensions>& VideoExtensions() {
    static const std::vector<Extensions> table = {
        {MP4_MVC_H264, "H.264", {"h264", "264", "avc"}},
        {MP4_MVC_HEVC, "HEVC", {"h265", "265", "hevc", "hvc"}},
        {MP4_MVC_PRORES, "ProRes", {"prores", "icpf"}}};
    return table;
}

struct Signature {
    size_t offset;
    std::string_view bytes;
    const char* name;
};

constexpr Signature kSignatures[] = {
    {4, "ftyp"sv, "an MP4 or QuickTime file"},
    {4, "moov"sv, "a QuickTime movie"},
    {4, "mdat"sv, "a QuickTime movie"},
    {4, "wide"sv, "a QuickTime movie"},
    {4, "styp"sv, "a segment of a fragmented MP4 file"},
    {4, "moof"sv, "a segment of a fragmented MP4 file"},
    {0, "\x1A\x45\xDF\xA3"sv, "a Matroska or WebM file"},
    {8, "WAVE"sv, "a WAV file"},
    {8, "AVI "sv, "an AVI file"},
    {0, "FLV\x01"sv, "an FLV file"},
    {0, "OggS"sv, "an Ogg file"},
    {0, "DKIF"sv, "an IVF file"},
    {0, "fLaC"sv, "a FLAC file"},
    {0, "YUV4MPEG2"sv, "uncompressed video"},
    {0, "\x06\x0E\x2B\x34"sv, "an MXF file"},
    {0, "\x30\x26\xB2\x75"sv, "an ASF file"},
    {0, "\x00\x00\x01\xBA"sv, "an MPEG program stream"},
    {0, "\x00\x00\x01\xB3"sv, "an MPEG-1 or MPEG-2 video stream"},
};

bool Has(const std::vector<uint8_t>& head, size_t offset, std::string_view bytes) {
    return head.size() >= offset + bytes.size() &&
           std::equal(bytes.begin(), bytes.end(), head.begin() + static_cast<ptrdiff_t>(offset),
                      [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; });
}

/// A sync byte in each of several packets of 188 bytes, or of 192 and 204 with what some devices
/// add, wherever the first packet begins.
bool IsTransportStream(const std::vector<uint8_t>& head) {
    constexpr uint8_t kSync = 0x47;
    constexpr size_t kPackets = 5;
    for (const size_t packet : {188U, 192U, 204U}) {
        for (size_t first = 0; first < packet; ++first) {
            size_t at = first;
            size_t found = 0;
            for (; at < head.size() && head[at] == kSync; at += packet)
                ++found;
            if (at >= head.size() && found >= kPackets) return true;
        }
    }
    return false;
}

const char* ForeignFormat(const std::vector<uint8_t>& head) {
    for (const Signature& signature : kSignatures) {
        if (Has(head, signature.offset, signature.bytes)) return signature.name;
    }
    return nullptr;
}

/// The offset behind the start code that the input begins with.
std::optional<size_t> BehindStartCode(const std::vector<uint8_t>& head) {
    for (const auto code : {"\x00\x00\x01"sv, "\x00\x00\x00\x01"sv}) {
        if (Has(head, 0, code)) return code.size();
    }
    return {};
}

bool IsFrameOfProRes(const std::vector<uint8_t>& head) {
    return Has(head, 4, "icpf"sv);
}

/// ISO/IEC 14496-3, 1.A.2: twelve bits of sync word and a layer of 0.
bool IsAdts(const std::vector<uint8_t>& head) {
    return head.size() >= 2 && head[0] == 0xFF && (head[1] & 0xF6) == 0xF0;
}

/// The codec of an Annex-B stream, by the type of its first unit: those that a stream begins with
/// cannot be taken for one another, because H.265 has a second byte of header with the layer 0.
mp4_video_codec CodecOfFirstUnit(const std::vector<uint8_t>& head, size_t at) {
    if (at + 1 >= head.size()) return MP4_MVC_UNKNOWN;
    constexpr uint8_t kHevc[] = {0x40, 0x42, 0x46, 0x4E};  // VPS, SPS, delimiter, prefix SEI
    constexpr uint8_t kH264[] = {0x67, 0x27, 0x47, 0x09};  // SPS of any nal_ref_idc, delimiter
    const auto isOf = [&](const auto& types) {
        return std::find(std::begin(types), std::end(types), head[at]) != std::end(types);
    };
    if (isOf(kHevc) && head[at + 1] == 1) return MP4_MVC_HEVC;
    return isOf(kH264) ? MP4_MVC_H264 : MP4_MVC_UNKNOWN;
}

/// The name of what the head is when it is not a stream of the codec; null when it may be.
const char* WhatElse(mp4_video_codec codec, const std::vector<uint8_t>& head) {
    if (const char* name = ForeignFormat(head)) return name;
    if (IsFrameOfProRes(head)) return codec == MP4_MVC_PRORES ? nullptr : "a ProRes stream";
    if (const auto at = BehindStartCode(head)) {
        const mp4_video_codec found = CodecOfFirstUnit(head, *at);
        if (found == codec || found == MP4_MVC_UNKNOWN) return nullptr;
        return found == MP4_MVC_HEVC ? "an HEVC stream" : "an H.264 stream";
    }
    if (IsTransportStream(head)) return "an MPEG transport stream";
    return IsAdts(head) ? "an AAC stream" : nullptr;
}

}  // namespace

const char* CodecName(mp4_video_codec codec) {
    for (const Extensions& known : VideoExtensions()) {
        if (known.codec == codec) return known.name;
    }
    return "unknown";
}

mp4_video_codec CodecOfExtension(std::string_view path) {
    const size_t dot = path.rfind('.');
    if (dot == std::string_view::npos) return MP4_MVC_UNKNOWN;
    std::string extension(path.substr(dot + 1));
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    for (const Extensions& known : VideoExtensions()) {
        const auto& list = known.list;
        if (std::find(list.begin(), list.end(), extension) != list.end()) return known.codec;
    }
    return MP4_MVC_UNKNOWN;
}

std::string AcceptedVideo() {
    std::string text;
    for (const Extensions& known : VideoExtensions()) {
        text += std::string(text.empty() ? "raw " : ", ") + known.name + " (";
        for (const std::string_view extension : known.list)
            text +=
                std::string(extension == known.list.front() ? "." : " .") + std::string(extension);
        text += ")";
    }
    return text;
}

std::string AcceptedAudio() {
    return "AAC in ADTS (.aac .adts)";
}

void RequireRawVideo(mp4_video_codec codec, const std::vector<uint8_t>& head) {
    const char* const name = WhatElse(codec, head);
    if (name == nullptr) return;
    throw StreamError(std::string("is ") + name + " and not a raw " + CodecName(codec) +
                      " stream; accepted: " + AcceptedVideo());
}

void RequireAdts(const std::vector<uint8_t>& head) {
    const char* name = ForeignFormat(head);
    if (name == nullptr && IsFrameOfProRes(head)) name = "a ProRes stream";
    if (name == nullptr && BehindStartCode(head)) name = "a raw video stream";
    if (name == nullptr && !IsAdts(head) && IsTransportStream(head)) {
        name = "an MPEG transport stream";
    }
    if (name == nullptr) return;
    throw StreamError(std::string("is ") + name + "; accepted: " + AcceptedAudio());
}

}  // namespace kxmux
